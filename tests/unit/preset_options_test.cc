#include "settings/preset_options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
#include <libavutil/opt.h>
}

#include "support/log_capture.h"
#include "platform/av_ptr.h"
#include "zeva/movie_info.h"

namespace {

zeva::CodecContextPtr NewEncoderContext(const char* name) {
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (codec == nullptr) return nullptr;
  return zeva::CodecContextPtr(avcodec_alloc_context3(codec));
}

std::string GetOption(AVCodecContext* ctx, const char* key) {
  uint8_t* value = nullptr;
  if (av_opt_get(ctx->priv_data, key, 0, &value) < 0) return "<none>";
  std::string s = value ? reinterpret_cast<char*>(value) : "<null>";
  av_free(value);
  return s;
}

TEST(ApplyPresetOptions, EveryNameReachesLibx264) {
  for (int p = QL_ULTRAFAST; p < QL_NONE; ++p) {
    auto ctx = NewEncoderContext("libx264");
    ASSERT_TRUE(ctx);
    const int profile = p % PL_NONE, tune = p % TL_NONE;
    zeva::apply_preset_options(ctx.get(), p, profile, tune);
    EXPECT_EQ(GetOption(ctx.get(), "preset"), preset_to_str(static_cast<Quality_Level>(p)));
    EXPECT_EQ(GetOption(ctx.get(), "profile"), profile_to_str(static_cast<Profile_Level>(profile)));
    EXPECT_EQ(GetOption(ctx.get(), "tune"), tune_to_str(static_cast<Tune_Level>(tune)));
  }
  // The remaining profiles and tunes, through the last named row; "none"
  // keeps the encoder's default (an empty profile would not open).
  auto ctx = NewEncoderContext("libx264");
  const std::string default_preset = GetOption(ctx.get(), "preset");
  zeva::apply_preset_options(ctx.get(), QL_NONE, PL_HIGH444, TL_ZEROLATENCY);
  EXPECT_EQ(GetOption(ctx.get(), "preset"), default_preset);
  EXPECT_EQ(GetOption(ctx.get(), "profile"), "high444");
  EXPECT_EQ(GetOption(ctx.get(), "tune"), "zerolatency");
}

TEST(ApplyPresetOptions, OutOfRangeValueIsLoggedAndLeftUnchanged) {
  zeva::test::LogCapture log;
  auto ctx = NewEncoderContext("libx264");
  ASSERT_TRUE(ctx);
  const std::string preset_before = GetOption(ctx.get(), "preset");
  const std::string tune_before = GetOption(ctx.get(), "tune");
  zeva::apply_preset_options(ctx.get(), QL_NONE + 1, PL_MAIN, -1);
  EXPECT_EQ(GetOption(ctx.get(), "preset"), preset_before);
  EXPECT_EQ(GetOption(ctx.get(), "profile"), "main");  // the valid one still applies
  EXPECT_EQ(GetOption(ctx.get(), "tune"), tune_before);
  const std::vector<std::string> lines = log.Take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "2:--- invalid preset value 11, left unchanged");
  EXPECT_EQ(lines[1], "2:--- invalid tune value -1, left unchanged");
  // Encoders without such options, or none at all, are left alone silently.
  auto aac = NewEncoderContext("aac");
  zeva::apply_preset_options(aac.get(), QL_MEDIUM, PL_HIGH, TL_FILM);
  EXPECT_EQ(GetOption(aac.get(), "preset"), "<none>");
  zeva::apply_preset_options(nullptr, QL_MEDIUM, PL_HIGH, TL_FILM);
  EXPECT_TRUE(log.Take().empty());
}

// The names follow the enumeration's own order, fastest first: each preset
// makes x264 search sub-pixel motion harder than the one before it (its
// "subme" setting, which it writes into the stream's first SEI). The profile
// caps every preset: the SPS (00 00 00 01 67 profile_idc) says Baseline.
TEST(ApplyPresetOptions, PresetsFollowTheEnumerationsSpeedOrderUnderTheProfileCap) {
  int previous = -1;
  for (int p = QL_ULTRAFAST; p < QL_NONE; ++p) {
    auto ctx = NewEncoderContext("libx264");
    ASSERT_TRUE(ctx);
    ctx->width = 64;
    ctx->height = 64;
    ctx->pix_fmt = AV_PIX_FMT_YUV420P;
    ctx->time_base = {1, 25};
    zeva::apply_preset_options(ctx.get(), p, PL_BASELINE, TL_ZEROLATENCY);
    ASSERT_EQ(avcodec_open2(ctx.get(), nullptr, nullptr), 0);
    zeva::FramePtr frame = zeva::NewFrame();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = frame->height = 64;
    ASSERT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    zeva::PacketPtr pkt = zeva::NewPacket();
    ASSERT_EQ(avcodec_send_frame(ctx.get(), frame.get()), 0);
    ASSERT_EQ(avcodec_receive_packet(ctx.get(), pkt.get()), 0);
    ASSERT_GT(pkt->size, 5);
    EXPECT_EQ(pkt->data[5], 66);
    const std::string bytes(reinterpret_cast<const char*>(pkt->data), size_t(pkt->size));
    const size_t at = bytes.find(" subme=");
    ASSERT_NE(at, std::string::npos) << preset_to_str(static_cast<Quality_Level>(p));
    const int subme = std::atoi(bytes.c_str() + at + 7);
    EXPECT_GT(subme, previous) << preset_to_str(static_cast<Quality_Level>(p));
    previous = subme;
  }
}

}  // namespace
