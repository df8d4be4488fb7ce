#include "packet/pts_smoother.h"

#include <gtest/gtest.h>

#include <cstdint>

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

}  // namespace
