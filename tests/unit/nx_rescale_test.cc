#include "convert/nx_rescale.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace {

using zeva::FramePtr;
const AVRational kUs{1, 1000000}, kFps{1, 25};

FramePtr Picture(AVPixelFormat fmt, int w, int h) {
  FramePtr f = zeva::NewFrame();
  f->format = fmt;
  f->width = w;
  f->height = h;
  EXPECT_EQ(av_frame_get_buffer(f.get(), 0), 0);
  return f;
}

int At(const FramePtr& f, int p, int x, int y) { return f->data[p][y * f->linesize[p] + x]; }

// A frame of the encoder's own size and format passes through; any other is
// scaled into the encoder's frame. Either way the stamp moves to frame ticks.
TEST(NxRescale, PassesMatchingFramesAndScalesOthersIntoTheEncodersFrame) {
  FramePtr same = Picture(AV_PIX_FMT_YUV420P, 32, 24), dst = Picture(AV_PIX_FMT_YUV420P, 32, 24);
  FramePtr in = Picture(AV_PIX_FMT_BGRA, 64, 48);
  memset(in->data[0], 255, in->linesize[0] * 48);  // white
  ZV::NxRescale pass, scale;
  ASSERT_EQ(pass.config(dst.get(), same.get(), kFps), 0);
  ASSERT_EQ(scale.config(dst.get(), in.get(), kFps), 0);
  same->pts = 80000;
  EXPECT_EQ(pass.rescale(same.get(), &kUs), same.get());
  EXPECT_EQ(same->pts, 2);
  in->pts = 40000;
  AVFrame* out = scale.rescale(in.get(), &kUs);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->data[0], dst->data[0]);
  EXPECT_EQ(out->pts, 1);
  EXPECT_EQ(At(dst, 0, 31, 23), 235);
  EXPECT_EQ(At(dst, 1, 15, 11), 128);
}

// Same-size RGB goes through libyuv, which must agree with swscale: luma within
// 1, chroma within 2 (swscale without SWS_ACCURATE_RND rounds chroma its own
// way). RGBA into NV12 must give exactly the planes of BGRA into I420.
TEST(NxRescale, SameSizeRgbMatchesSwscale) {
  const int w = 66, h = 38;  // not a multiple of any SIMD block
  FramePtr bgra = Picture(AV_PIX_FMT_BGRA, w, h), rgba = Picture(AV_PIX_FMT_RGBA, w, h);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const uint8_t b = (x + y) * 127 / (w + h), g = y * 255 / (h - 1), r = x * 255 / (w - 1);
      const uint8_t px[4] = {b, g, r, 255}, sw[4] = {r, g, b, 255};
      memcpy(bgra->data[0] + y * bgra->linesize[0] + 4 * x, px, 4);
      memcpy(rgba->data[0] + y * rgba->linesize[0] + 4 * x, sw, 4);
    }
  }
  FramePtr i420 = Picture(AV_PIX_FMT_YUV420P, w, h), nv12 = Picture(AV_PIX_FMT_NV12, w, h),
           ref = Picture(AV_PIX_FMT_YUV420P, w, h);
  ZV::NxRescale to_i420, to_nv12;
  ASSERT_EQ(to_i420.config(i420.get(), bgra.get(), kFps), 0);
  ASSERT_EQ(to_nv12.config(nv12.get(), rgba.get(), kFps), 0);
  to_i420.rescale(bgra.get(), &kUs);
  to_nv12.rescale(rgba.get(), &kUs);
  zeva::SwsPtr sws(sws_getContext(w, h, AV_PIX_FMT_BGRA, w, h, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                                  nullptr, nullptr, nullptr));
  ASSERT_GT(sws_scale(sws.get(), bgra->data, bgra->linesize, 0, h, ref->data, ref->linesize), 0);

  int worst_y = 0, worst_uv = 0;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      worst_y = std::max(worst_y, std::abs(At(i420, 0, x, y) - At(ref, 0, x, y)));
      ASSERT_EQ(At(nv12, 0, x, y), At(i420, 0, x, y));
      for (int p = 1; p <= 2 && x < w / 2 && y < h / 2; ++p) {
        worst_uv = std::max(worst_uv, std::abs(At(i420, p, x, y) - At(ref, p, x, y)));
        ASSERT_EQ(At(nv12, 1, 2 * x + p - 1, y), At(i420, p, x, y));
      }
    }
  }
  EXPECT_LE(worst_y, 1);
  EXPECT_LE(worst_uv, 2);
}

}  // namespace
