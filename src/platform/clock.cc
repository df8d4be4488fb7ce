#include "platform/clock.h"

#include <mutex>

namespace zeva {
namespace platform {

int64_t perf_counter() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t perf_frequency() { return 1000000000; }

int64_t monotonic_ms() { return perf_counter() / (perf_frequency() / 1000); }

int64_t calendar_seconds() { return static_cast<int64_t>(std::time(nullptr)); }

bool local_time(int64_t t, std::tm* out) {
  const std::time_t tt = static_cast<std::time_t>(t);
  return localtime_r(&tt, out) != nullptr;
}

}  // namespace platform

int64_t sys_usec() {
  // The counter is anchored to calendar time once, on the first call. Only the
  // low 31 bits of the counter's whole seconds enter the anchor; the monotonic
  // counter counts from boot, far below 2^31 seconds, so the mask never bites.
  static std::once_flag once;
  static int64_t freq = 1;
  static int64_t base = 0;
  std::call_once(once, [] {
    freq = platform::perf_frequency();
    if (freq == 0) freq = 1;
    const int64_t counter = platform::perf_counter();
    base = platform::calendar_seconds() - ((counter / freq) & 0x7FFFFFFF);
  });
  const int64_t counter = platform::perf_counter();
  return (counter / freq + base) * 1000000 + ((counter % freq) * 1000000000 / freq) / 1000;
}

const SystemClock& SystemClock::Get() {
  static const SystemClock clock;
  return clock;
}

}  // namespace zeva
