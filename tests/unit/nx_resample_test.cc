#include "convert/nx_resample.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace {

using zeva::FramePtr;

// Stereo frame of `n` samples (buffers only when n > 0), each `v`.
FramePtr Audio(AVSampleFormat fmt, int rate, int n, int16_t v = 0, int64_t pts = 0) {
  FramePtr f = zeva::NewFrame();
  f->format = fmt;
  f->sample_rate = rate;
  f->nb_samples = n;
  f->pts = pts;
  av_channel_layout_default(&f->ch_layout, 2);
  if (n > 0 && av_frame_get_buffer(f.get(), 0) == 0 && fmt == AV_SAMPLE_FMT_S16) {
    std::fill_n(reinterpret_cast<int16_t*>(f->data[0]), 2 * n, v);
  }
  return f;
}

// Into the encoder's frame: 48 kHz planar float stereo, 1024 samples.
struct Resampler : ::testing::Test {
  FramePtr dst = Audio(AV_SAMPLE_FMT_FLTP, 48000, 1024);
  ZV::NxResample nxr;
  void Config(int in_rate) {
    FramePtr src = Audio(AV_SAMPLE_FMT_S16, in_rate, 0);
    ASSERT_GE(nxr.config(dst.get(), src.get(), AVRational{1, 48000}), 0);
  }
  int64_t Feed(int rate, int n, int64_t pts, AVRational tb, int16_t v = 0) {
    FramePtr in = Audio(AV_SAMPLE_FMT_S16, rate, n, v, pts);
    AVFrame* out = nxr.resample(in.get(), &tb);
    return out ? out->pts : -1;
  }
};

TEST_F(Resampler, GathersFullFramesFromSmallInputs) {
  EXPECT_EQ(nxr.resample(nullptr, nullptr), nullptr);  // not configured yet
  Config(44100);
  std::vector<int64_t> pts;
  for (int i = 0; i < 5; ++i) pts.push_back(Feed(44100, 441, i * 10000, {1, 1000000}));
  EXPECT_EQ(pts, (std::vector<int64_t>{-1, -1, 0, -1, 1024}));
}

TEST_F(Resampler, ReanchorsAtHalfASecondOfDriftEitherWay) {
  Config(48000);
  const AVRational tb{1, 48000};
  EXPECT_EQ(Feed(48000, 1024, 0, tb, 16384), 0);
  EXPECT_EQ(Feed(48000, 1024, 1024 + 23999, tb), 1024);  // one sample short
  EXPECT_EQ(Feed(48000, 1024, 2048 + 24000, tb), 26048);  // half a second ahead
  EXPECT_EQ(Feed(48000, 1024, 27072 - 24000, tb), 3072);  // half a second behind
}

TEST_F(Resampler, WritesTheEncodersBuffersAndDrainsWholeFramesOnly) {
  Config(48000);
  EXPECT_EQ(Feed(48000, 3000, 0, {1, 48000}, 16384), 0);
  EXPECT_FLOAT_EQ(reinterpret_cast<float*>(dst->data[1])[500], 0.5f);
  AVFrame* out = nxr.resample(nullptr, nullptr);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->pts, 1024);
  EXPECT_EQ(nxr.resample(nullptr, nullptr), nullptr);  // 952 samples left
}

}  // namespace
