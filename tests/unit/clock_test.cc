#include "platform/clock.h"

#include <gtest/gtest.h>

namespace {

TEST(SysUsec, FollowsCalendarTimeAndNeverGoesBack) {
  const int64_t calendar_us = zeva::platform::calendar_seconds() * 1000000;
  int64_t prev = zeva::sys_usec();
  EXPECT_NEAR(static_cast<double>(prev), static_cast<double>(calendar_us), 2e6);
  for (int i = 0; i < 10000; ++i) {
    const int64_t now = zeva::SystemClock::Get().NowUs();
    ASSERT_GE(now, prev);
    prev = now;
  }
}

}  // namespace
