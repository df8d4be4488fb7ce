#include "settings/preset_options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
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

// Valid values reach libx264 by name; an out-of-range one is logged and left
// unchanged, and encoders without such options are left alone silently.
TEST(ApplyPresetOptions, NamesReachLibx264AndBadValuesAreLogged) {
  zeva::test::LogCapture log;
  auto ctx = NewEncoderContext("libx264");
  const std::string tune_before = GetOption(ctx.get(), "tune");
  zeva::apply_preset_options(ctx.get(), QL_SLOWER, PL_HIGH444, -1);
  EXPECT_EQ(GetOption(ctx.get(), "preset"), "slower");
  EXPECT_EQ(GetOption(ctx.get(), "profile"), "high444");
  EXPECT_EQ(GetOption(ctx.get(), "tune"), tune_before);
  zeva::apply_preset_options(NewEncoderContext("aac").get(), QL_MEDIUM, PL_HIGH, TL_FILM);
  zeva::apply_preset_options(nullptr, QL_MEDIUM, PL_HIGH, TL_FILM);
  EXPECT_EQ(log.Take(), std::vector<std::string>{"2:--- invalid tune value -1, left unchanged"});
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
    EXPECT_EQ(pkt->data[5], 66);
    const std::string bytes(reinterpret_cast<const char*>(pkt->data), size_t(pkt->size));
    const int subme = std::atoi(bytes.c_str() + bytes.find(" subme=") + 7);
    EXPECT_GT(subme, previous) << preset_to_str(static_cast<Quality_Level>(p));
    previous = subme;
  }
}

}  // namespace
