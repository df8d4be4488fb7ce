// Picture conversion into the encoder's size and pixel format.
#ifndef ZEVA_CONVERT_NX_RESCALE_H
#define ZEVA_CONVERT_NX_RESCALE_H

extern "C" {
#include <libavutil/rational.h>
}

#include "platform/av_ptr.h"

namespace ZV {

// Converts pictures into the encoder's frame, or passes them through when size
// and format already match, and restamps them in the encoder's time base.
// Same-size packed RGB into YUV 4:2:0 goes through libyuv, over ten times
// faster than swscale at 720p; everything else through swscale's bicubic
// scaler.
// Not thread-safe: one feeding thread per instance.
class NxRescale {
 public:
  NxRescale();
  virtual ~NxRescale();
  NxRescale(const NxRescale&) = delete;
  NxRescale& operator=(const NxRescale&) = delete;

  // `dst` is the encoder's frame (its buffers are shared and receive every
  // converted picture); `src` describes the input (width, height, format).
  // `tb` is the unit of output time stamps, the encoder's 1/fps. Call once.
  // Returns 0, or -1 when no conversion can be set up.
  int config(AVFrame* dst, AVFrame* src, AVRational tb);

  // Converts `in` (not owned; it must match the `src` given to config) and
  // returns the rescaler's own frame, valid until the next call, or `in`
  // itself when nothing needs converting: either way with pts set to
  // `in->pts` rescaled from `*in_tb`, which in pass-through restamps the
  // caller's frame. Null when `in` is null or the conversion fails.
  AVFrame* rescale(AVFrame* in, const AVRational* in_tb);

 private:
  // Same-size conversions done by libyuv. "Argb"/"Abgr" name libyuv's
  // layouts, whose letters read from the most significant byte of a
  // little-endian word: Argb is B,G,R,A in memory (FFmpeg's BGRA).
  enum class Fast { kNone, kArgbToI420, kAbgrToI420, kArgbToNv12, kAbgrToNv12 };

  [[nodiscard]] int convert_fast(const AVFrame* in, AVFrame* out) const;

  zeva::SwsPtr sws_;  // null unless swscale converts
  AVRational time_base_{0, 1};
  zeva::FramePtr out_frame_;  // clone of the encoder's frame; null in pass-through
  Fast fast_ = Fast::kNone;
  bool scale_failed_ = false;  // the first failure is logged, later ones not
};

}  // namespace ZV

#endif  // ZEVA_CONVERT_NX_RESCALE_H
