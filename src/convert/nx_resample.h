// Audio conversion into frames of the encoder's format and frame size.
#ifndef ZEVA_CONVERT_NX_RESAMPLE_H
#define ZEVA_CONVERT_NX_RESAMPLE_H

#include <cstdint>

extern "C" {
#include <libavutil/rational.h>
}

#include "platform/av_ptr.h"

namespace ZV {

// Converts audio of any layout, sample format and rate into frames of exactly
// the encoder's frame size, buffering the remainder in a FIFO. Output frames
// are stamped with a running sample count, re-anchored to the input time
// stamps when the two drift apart by half a second or more. Not thread-safe:
// one feeding thread per instance.
class NxResample {
 public:
  // Allocates the resampling context; nothing is configured yet.
  NxResample();
  // Frees the context, the output frame and the FIFO, printing two progress
  // lines to standard error.
  virtual ~NxResample();
  NxResample(const NxResample&) = delete;
  NxResample& operator=(const NxResample&) = delete;

  // `dst` is the encoder's frame (layout, sample format, rate and nb_samples,
  // the frame size); its buffers are shared, not copied, and receive every
  // output. `src` describes the input (layout, sample format, rate). `tb` is
  // the unit of output time stamps, the encoder's 1/sample-rate. Call once.
  // Returns swr_init's non-negative result, or a negative value on failure.
  int config(AVFrame* dst, AVFrame* src, AVRational tb);

  // Feeds `in` (not owned; null drains what is buffered), whose pts is in
  // `*in_tb` (not used when `in` is null). Returns the resampler's own frame,
  // valid until the next call, holding exactly one frame size of samples in
  // the encoder's buffers; null when fewer are buffered or on failure.
  AVFrame* resample(AVFrame* in, const AVRational* in_tb);

 private:
  [[nodiscard]] int set_options(const AVFrame* dst, const AVFrame* src);

  zeva::SwrPtr swr_;
  zeva::AudioFifoPtr fifo_;
  AVRational time_base_{0, 1};

  // What config was given, for reference; the context's options drive the work.
  uint64_t in_ch_layout_ = 0;  // channel mask; 0 when the layout has none
  int in_sample_rate_ = 0;
  int in_sample_fmt_ = -1;
  int in_channels_ = 0;
  int in_bytes_per_sample_ = 0;
  int in_bytes_per_second_ = 0;
  uint64_t out_ch_layout_ = 0;
  int out_sample_rate_ = 0;
  int out_sample_fmt_ = -1;
  int out_nb_samples_ = 0;
  int out_planar_ = 0;
  int out_channels_ = 0;

  zeva::FramePtr out_frame_;  // clone of the encoder's frame
  int64_t processed_ = 0;     // pts of the next output, in time_base_
};

}  // namespace ZV

#endif  // ZEVA_CONVERT_NX_RESAMPLE_H
