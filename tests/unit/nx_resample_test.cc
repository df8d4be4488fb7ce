#include "convert/nx_resample.h"

#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace {

// Stereo frame of `n` samples (buffers only when n > 0), each `v`.
zeva::FramePtr Audio(AVSampleFormat fmt, int rate, int n, int16_t v = 0, int64_t pts = 0) {
  zeva::FramePtr f = zeva::NewFrame();
  f->format = fmt;
  f->sample_rate = rate;
  f->nb_samples = n;
  f->pts = pts;
  av_channel_layout_default(&f->ch_layout, 2);
  if (n > 0 && av_frame_get_buffer(f.get(), 0) == 0 && fmt == AV_SAMPLE_FMT_S16)
    std::fill_n(reinterpret_cast<int16_t*>(f->data[0]), 2 * n, v);
  return f;
}

// Into the encoder's frame (48 kHz planar float stereo, 1024 samples): a
// frame leaves as soon as the samples fill it, stamped on the frame count
// unless half a second of drift either way re-anchors it; draining gives
// whole frames only.
TEST(Resampler, FillsTheEncodersFramesAndReanchorsOnDrift) {
  zeva::FramePtr dst = Audio(AV_SAMPLE_FMT_FLTP, 48000, 1024);
  ZV::NxResample nxr;
  ASSERT_GE(nxr.config(dst.get(), Audio(AV_SAMPLE_FMT_S16, 48000, 0).get(), AVRational{1, 48000}), 0);
  auto feed = [&](int n, int64_t pts, int16_t v = 0) {
    const AVRational tb{1, 48000};
    AVFrame* out = nxr.resample(Audio(AV_SAMPLE_FMT_S16, 48000, n, v, pts).get(), &tb);
    return out ? out->pts : -1;
  };
  EXPECT_EQ(feed(1024, 0, 16384), 0);  // exactly one frame
  EXPECT_FLOAT_EQ(reinterpret_cast<float*>(dst->data[1])[500], 0.5f);
  EXPECT_EQ(feed(1024, 1024 + 23999), 1024);   // one sample short of re-anchoring
  EXPECT_EQ(feed(1024, 2048 + 24000), 26048);  // half a second ahead
  EXPECT_EQ(feed(3000, 27072 - 24000), 3072);  // half a second behind
  EXPECT_EQ(nxr.resample(nullptr, nullptr)->pts, 4096);
  EXPECT_EQ(nxr.resample(nullptr, nullptr), nullptr);  // 952 samples left
}

}  // namespace
