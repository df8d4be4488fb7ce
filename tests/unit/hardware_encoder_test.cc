#include "encode/hardware_encoder.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace {

constexpr int kNv12 = 23;
constexpr int kOpensPerKey = 2;  // nvenc and qsv exist but find no device; amf and mf do not exist

// Probes every row at one size; each answers false without a GPU.
void ProbeAll(int w, int h) {
  size_t n = 0;
  const zeva::HwEncoder* rows = zeva::hw_encoders(&n);
  for (size_t i = 0; i < n; ++i) EXPECT_FALSE(zeva::probe_hw_encoder(&rows[i], w, h, kNv12));
}

// Too small sizes are never opened; every other size opens each encoder once,
// even when threads probe it at the same time. The cache is process-wide, so
// the sizes are this test's own.
TEST(HardwareEncoderTest, EachKeyProbesOnceThenAnswersFromCache) {
  zeva::test::LogCapture quiet;
  const int opens = zeva::hw_probe_open_count();
  ProbeAll(2, 2);
  EXPECT_FALSE(zeva::probe_hw_encoder(nullptr, 320, 240, kNv12));
  EXPECT_EQ(zeva::hw_probe_open_count(), opens);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back([t] { ProbeAll(320, 240); ProbeAll(16 + t, 16); });
  for (std::thread& t : threads) t.join();
  ProbeAll(320, 240);
  EXPECT_EQ(zeva::hw_probe_open_count() - opens, 5 * kOpensPerKey);
}

}  // namespace
