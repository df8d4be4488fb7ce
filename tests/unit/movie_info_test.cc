#include "zeva/movie_info.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(MovieInfo, DefaultRecordIsZeroButForRateFactorAndQuantiser) {
  MovieInfo info{}, zero;
  std::memset(static_cast<void*>(&zero), 0, sizeof zero);
  zero.crf = 23;
  zero.qp = 20;
  EXPECT_EQ(std::memcmp(&info, &zero, sizeof info), 0);
}

// Every value's name reads back as the value; unknown names give the
// low-latency defaults, and none or out-of-range values the empty name.
TEST(TuningNames, RoundTripAndDefaults) {
  for (int v = QL_ULTRAFAST; v < QL_NONE; ++v)
    EXPECT_EQ(preset_from_str(preset_to_str(static_cast<Quality_Level>(v))), v);
  for (int v = PL_BASELINE; v < PL_NONE; ++v)
    EXPECT_EQ(profile_from_str(profile_to_str(static_cast<Profile_Level>(v))), v);
  for (int v = TL_FILM; v < TL_NONE; ++v)
    EXPECT_EQ(tune_from_str(tune_to_str(static_cast<Tune_Level>(v))), v);
  EXPECT_EQ(preset_from_str("Medium"), QL_VERYFAST);  // case matters
  EXPECT_EQ(preset_from_str(""), QL_VERYFAST);        // the empty row is never matched
  EXPECT_EQ(profile_from_str("High"), PL_BASELINE);
  EXPECT_EQ(tune_from_str(""), TL_ZEROLATENCY);
  EXPECT_STREQ(preset_to_str(QL_NONE), "");
  EXPECT_STREQ(tune_to_str(TL_NONE), "");
  EXPECT_STREQ(preset_to_str(static_cast<Quality_Level>(-1)), "");
  EXPECT_STREQ(profile_to_str(static_cast<Profile_Level>(99)), "");
}

}  // namespace
