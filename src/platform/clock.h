// Time sources. Nothing else in the library reads a system clock, so pause and
// drift logic can be driven by FakeClock in tests.
#ifndef ZEVA_PLATFORM_CLOCK_H
#define ZEVA_PLATFORM_CLOCK_H

#include <cstdint>
#include <ctime>

namespace zeva {

// A source of microsecond time stamps. Implementations are thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  // Microseconds on this clock's time line; never decreases.
  virtual int64_t NowUs() const = 0;
};

// The library's system clock (the one hosts stamp frames with): calendar
// microseconds at the resolution of the monotonic counter, anchored to the
// calendar once, at the first call in the process. Thread-safe.
int64_t sys_usec();

// The clock behind sys_usec(), for code that takes a Clock.
class SystemClock final : public Clock {
 public:
  int64_t NowUs() const override { return sys_usec(); }
  // The process-wide instance; never destroyed.
  static const SystemClock& Get();
};

// A clock that moves only when told; for tests.
class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t start_us = 0) : now_us_(start_us) {}
  int64_t NowUs() const override { return now_us_; }
  void AdvanceUs(int64_t delta_us) { now_us_ += delta_us; }
  void SetUs(int64_t now_us) { now_us_ = now_us; }

 private:
  int64_t now_us_;
};

namespace platform {

// The monotonic counter and its ticks per second (never 0).
int64_t perf_counter();
int64_t perf_frequency();

// Milliseconds of the monotonic counter; for time-outs, never for stamps.
int64_t monotonic_ms();

// Seconds since the epoch.
int64_t calendar_seconds();

// Local broken-down time of `t`; false when it cannot be converted.
bool local_time(int64_t t, std::tm* out);

}  // namespace platform
}  // namespace zeva

#endif  // ZEVA_PLATFORM_CLOCK_H
