// Built as a host is: only <zeva/zeva.h>, linked against libzeva.so.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace {

TEST(HostApi, SettingsRecordCrossesTheInterfaceByValue) {
  static_assert(std::is_trivially_copyable_v<MovieInfo>);
  static_assert(std::is_standard_layout_v<MovieInfo>);
  static_assert(sizeof(MovieInfo) == 1424);
  MovieInfo info{};
  info.preset = preset_from_str("slow");
  info.profile = profile_from_str("high");
  info.tune = tune_from_str("film");
  EXPECT_STREQ(preset_to_str(info.preset), "slow");
  EXPECT_STREQ(profile_to_str(info.profile), "high");
  EXPECT_STREQ(tune_to_str(info.tune), "film");
}

TEST(HostApi, LogControlsAreCallable) {
  ZEVA_Log_Level(3);
  ZEVA_Set_Log_Callback([](const char*, int, const char*, int, const char*) {});
  ZEVA_Set_Log_Callback(nullptr);
  ZEVA_Log_On2(nullptr, 2);
}

}  // namespace
