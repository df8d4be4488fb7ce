#include "packet/pts_smoother.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace {

TEST(PtsSmootherTest, ConstantSpacingPassesUnchanged) {
  zeva::PtsSmoother s;
  for (int64_t i = 0; i < 300; ++i) EXPECT_EQ(s.smooth(5000000 + i * 33333), 5000000 + i * 33333);
}

TEST(PtsSmootherTest, LatePacketMovesATenth) {
  zeva::PtsSmoother s;
  for (int64_t i = 0; i < 10; ++i) s.smooth(i * 40000);
  const int64_t out = s.smooth(10 * 40000 + 10000);  // 10 ms late
  EXPECT_NEAR(out - 10 * 40000, 1000, 100);
}

// Alternating jitter of ±4 ms stays within a quarter of that.
TEST(PtsSmootherTest, AbsorbsJitter) {
  zeva::PtsSmoother s;
  int64_t worst = 0;
  for (int64_t i = 0; i < 600; ++i) {
    const int64_t ideal = i * 33333;
    const int64_t jitter = i < 2 ? 0 : (i % 2 ? 4000 : -4000);
    worst = std::max(worst, static_cast<int64_t>(std::llabs(s.smooth(ideal + jitter) - ideal)));
  }
  EXPECT_LE(worst, 1000);
}

}  // namespace
