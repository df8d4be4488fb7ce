#include "delay_probe.h"

#include <algorithm>
#include <cstdio>

#include <zeva/zeva.h>

namespace zeva::bench {

DelayProbe::DelayProbe(OtherLine other) : other_(std::move(other)) {
  ZEVA_Set_Log_Callback([this](const char*, int level, const char*, int, const char* msg) {
    OnLine(level, msg);
  });
}

DelayProbe::~DelayProbe() { ZEVA_Set_Log_Callback({}); }

void DelayProbe::OnLine(int level, const char* msg) {
  if (level < 5) return;
  const Clock::time_point now = Clock::now();
  long long stream = -1, dts = 0;
  std::lock_guard<std::mutex> lock(mu_);
  if (std::sscanf(msg, "write packet: stream=%lld, dts=%lld us", &stream, &dts) == 2) {
    if (stream == 0 || stream == 1) handed_[stream].push_back({dts, now});
  } else if (other_) {
    other_(msg, now);
  }
}

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? -1 : v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

void PrintDelay(const std::string& name, const std::vector<double>& delays_ms) {
  const double median = Percentile(delays_ms, 0.5), p99 = Percentile(delays_ms, 0.99);
  std::printf("bench %s_median: %.1f ms vs 50.0 ms (aim) = %.2f x\n", name.c_str(), median,
              median / 50);
  std::printf("bench %s_p99: %.1f ms vs 100.0 ms (aim) = %.2f x\n", name.c_str(), p99, p99 / 100);
}

}  // namespace zeva::bench
