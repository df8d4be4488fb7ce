#include "zeva/movie_info.h"

#include <gtest/gtest.h>

namespace {

// Every value's name reads back as the value; unknown names give the
// low-latency defaults, and out-of-range values the empty name.
TEST(TuningNames, RoundTripAndDefaults) {
  for (int v = QL_ULTRAFAST; v < QL_NONE; ++v)
    EXPECT_EQ(preset_from_str(preset_to_str(static_cast<Quality_Level>(v))), v);
  for (int v = TL_FILM; v < TL_NONE; ++v)
    EXPECT_EQ(tune_from_str(tune_to_str(static_cast<Tune_Level>(v))), v);
  EXPECT_EQ(preset_from_str("Medium"), QL_VERYFAST);  // case matters
  EXPECT_EQ(tune_from_str(""), TL_ZEROLATENCY);
  EXPECT_STREQ(preset_to_str(static_cast<Quality_Level>(-1)), "");
}

}  // namespace
