// The delay from a host's write call to the moment an output's writer thread
// hands the packet to FFmpeg, traced through the library's per-packet
// level-6 line "write packet: stream=S, dts=D us".
#ifndef ZEVA_BENCH_DELAY_PROBE_H
#define ZEVA_BENCH_DELAY_PROBE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace zeva::bench {

using Clock = std::chrono::steady_clock;

// While alive, the library's log callback: one recording with one output at
// a time, streams 0 (video) and 1 (audio).
class DelayProbe {
 public:
  struct Handed {
    int64_t dts_us;    // as the writer logged it, in microseconds
    Clock::time_point at;
  };
  using OtherLine = std::function<void(const char* msg, Clock::time_point at)>;

  // Installs the callback. `other` (may be empty) sees every other line of
  // level 5 or 6 with the time it arrived, one call at a time.
  explicit DelayProbe(OtherLine other = {});
  ~DelayProbe();  // returns the log to its sink
  DelayProbe(const DelayProbe&) = delete;
  DelayProbe& operator=(const DelayProbe&) = delete;

  // The packets of `stream` handed to FFmpeg, in order. Read only once the
  // recording has stopped (its threads joined).
  const std::vector<Handed>& handed(int stream) const { return handed_[stream]; }

 private:
  void OnLine(int level, const char* msg);

  std::mutex mu_;
  OtherLine other_;
  std::vector<Handed> handed_[2];
};

inline double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// The value a fraction `p` of `v` lies below (nearest rank); -1 when empty.
double Percentile(std::vector<double> v, double p);

// Prints "bench NAME_median" and "bench NAME_p99" of `delays_ms`. No peer
// measures this: the "peer" printed is the aim, 50 ms and 100 ms.
void PrintDelay(const std::string& name, const std::vector<double>& delays_ms);

}  // namespace zeva::bench

#endif  // ZEVA_BENCH_DELAY_PROBE_H
