#include "convert/nx_rescale.h"

#include <cstdio>

#include <libyuv/convert.h>
#include <libyuv/convert_from_argb.h>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include "log/logger.h"

namespace ZV {
namespace {

bool IsArgb(int f) { return f == AV_PIX_FMT_BGRA || f == AV_PIX_FMT_BGR0; }
bool IsAbgr(int f) { return f == AV_PIX_FMT_RGBA || f == AV_PIX_FMT_RGB0; }

}  // namespace

NxRescale::NxRescale() = default;
NxRescale::~NxRescale() = default;

int NxRescale::config(AVFrame* dst, AVFrame* src, AVRational tb) {
  time_base_ = tb;
  if (dst == nullptr || src == nullptr) return -1;
  if (src->width == dst->width && src->height == dst->height && src->format == dst->format) {
    return 0;  // frames pass through
  }

  // libyuv converts with the same BT.601 limited-range matrix as swscale's
  // default, so the fast path changes speed, not colours. Alpha (or the
  // padding byte of BGR0/RGB0) is ignored.
  if (src->width == dst->width && src->height == dst->height) {
    const bool argb = IsArgb(src->format), abgr = IsAbgr(src->format);
    if (dst->format == AV_PIX_FMT_YUV420P) {
      fast_ = argb ? Fast::kArgbToI420 : abgr ? Fast::kAbgrToI420 : Fast::kNone;
    } else if (dst->format == AV_PIX_FMT_NV12) {
      fast_ = argb ? Fast::kArgbToNv12 : abgr ? Fast::kAbgrToNv12 : Fast::kNone;
    }
  }
  if (fast_ == Fast::kNone) {
    sws_.reset(sws_getContext(src->width, src->height, static_cast<AVPixelFormat>(src->format),
                              dst->width, dst->height, static_cast<AVPixelFormat>(dst->format),
                              SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (sws_ == nullptr) {
      qel::err_print(stderr, "Could not initialize the conversion context\n");
      return -1;
    }
  }
  out_frame_.reset(av_frame_clone(dst));
  if (out_frame_ == nullptr) {
    sws_.reset();
    fast_ = Fast::kNone;
    return -1;
  }
  return 0;
}

int NxRescale::convert_fast(const AVFrame* in, AVFrame* out) const {
  const uint8_t* s = in->data[0];
  const int ss = in->linesize[0];
  uint8_t* const* d = out->data;
  const int* dl = out->linesize;
  const int w = out->width, h = out->height;
  switch (fast_) {
    case Fast::kArgbToI420:
      return libyuv::ARGBToI420(s, ss, d[0], dl[0], d[1], dl[1], d[2], dl[2], w, h);
    case Fast::kAbgrToI420:
      return libyuv::ABGRToI420(s, ss, d[0], dl[0], d[1], dl[1], d[2], dl[2], w, h);
    case Fast::kArgbToNv12:
      return libyuv::ARGBToNV12(s, ss, d[0], dl[0], d[1], dl[1], w, h);
    case Fast::kAbgrToNv12:
      return libyuv::ABGRToNV12(s, ss, d[0], dl[0], d[1], dl[1], w, h);
    case Fast::kNone:
      break;
  }
  return -1;
}

AVFrame* NxRescale::rescale(AVFrame* in, const AVRational* in_tb) {
  if (in == nullptr) return nullptr;
  AVFrame* result = in;
  if (out_frame_ != nullptr) {
    result = out_frame_.get();
    int r;
    if (sws_ != nullptr) {
      r = sws_scale(sws_.get(), in->data, in->linesize, 0, in->height, result->data,
                    result->linesize);
      r = r > 0 ? 0 : -1;
    } else {
      r = convert_fast(in, result);
    }
    if (r != 0) {
      if (!scale_failed_) ZEVA_LOG(zeva::kLogError, "picture conversion failed");
      scale_failed_ = true;
      return nullptr;
    }
  }
  result->pts = av_rescale_q(in->pts, *in_tb, time_base_);
  return result;
}

}  // namespace ZV
