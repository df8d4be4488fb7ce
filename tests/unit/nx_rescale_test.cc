#include "convert/nx_rescale.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace {

zeva::FramePtr Picture(AVPixelFormat fmt, int w, int h) {
  zeva::FramePtr f = zeva::NewFrame();
  f->format = fmt;
  f->width = w;
  f->height = h;
  EXPECT_EQ(av_frame_get_buffer(f.get(), 0), 0);
  return f;
}

int At(const zeva::FramePtr& f, int p, int x, int y) { return f->data[p][y * f->linesize[p] + x]; }

// Same-size BGRA goes through libyuv, which must agree with swscale: luma
// within 1, chroma within 2 (swscale without SWS_ACCURATE_RND rounds chroma
// its own way).
TEST(NxRescale, SameSizeRgbMatchesSwscale) {
  const int w = 66, h = 38;  // not a multiple of any SIMD block
  zeva::FramePtr bgra = Picture(AV_PIX_FMT_BGRA, w, h), i420 = Picture(AV_PIX_FMT_YUV420P, w, h);
  zeva::FramePtr ref = Picture(AV_PIX_FMT_YUV420P, w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint8_t px[4] = {uint8_t((x + y) * 127 / (w + h)), uint8_t(y * 6), uint8_t(x * 3), 255};
      std::copy(px, px + 4, bgra->data[0] + y * bgra->linesize[0] + 4 * x);
    }
  ZV::NxRescale to_i420;
  const AVRational us{1, 1000000};
  ASSERT_EQ(to_i420.config(i420.get(), bgra.get(), AVRational{1, 25}), 0);
  ASSERT_NE(to_i420.rescale(bgra.get(), &us), nullptr);
  zeva::SwsPtr sws(sws_getContext(w, h, AV_PIX_FMT_BGRA, w, h, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                                  nullptr, nullptr, nullptr));
  ASSERT_GT(sws_scale(sws.get(), bgra->data, bgra->linesize, 0, h, ref->data, ref->linesize), 0);
  int worst_y = 0, worst_uv = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      worst_y = std::max(worst_y, std::abs(At(i420, 0, x, y) - At(ref, 0, x, y)));
      for (int p = 1; p <= 2 && x < w / 2 && y < h / 2; ++p)
        worst_uv = std::max(worst_uv, std::abs(At(i420, p, x, y) - At(ref, p, x, y)));
    }
  EXPECT_LE(worst_y, 1);
  EXPECT_LE(worst_uv, 2);
}

}  // namespace
