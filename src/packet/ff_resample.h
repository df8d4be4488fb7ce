// Sample-format, layout and rate conversion into a sample FIFO, for the
// packet recording's audio encoders.
#ifndef ZEVA_PACKET_FF_RESAMPLE_H
#define ZEVA_PACKET_FF_RESAMPLE_H

#include "platform/av_ptr.h"

struct AVChannelLayout;

namespace zeva {

// Converts pushed frames into one output format and buffers the samples
// until a caller reads them in frames of its choosing (an encoder's frame
// size). Not thread-safe: one thread feeds and reads an instance.
class FFResample {
 public:
  FFResample() = default;
  virtual ~FFResample() = default;
  FFResample(const FFResample&) = delete;
  FFResample& operator=(const FFResample&) = delete;

  // Sets up the conversion from `in_format` (an AVSampleFormat), `in_rate`
  // and the default layout of `in_channels` to the output ones. Call once.
  // False (logged) on invalid arguments or when FFmpeg refuses.
  bool init(int in_format, int in_rate, int in_channels, int out_format, int out_rate,
            int out_channels);
  // As above with explicit layouts (a decoder's, which need not be the
  // default order for its channel count). The layouts are copied.
  bool init(int in_format, int in_rate, const AVChannelLayout& in_layout, int out_format,
            int out_rate, const AVChannelLayout& out_layout);

  // Converts `frame` (not owned; format, rate and layout as given to init)
  // and appends the result to the FIFO. A null frame adds nothing and
  // returns false. False on conversion or allocation failure.
  bool push(const AVFrame* frame);
  // Converts what the resampler still holds back (its filter delay) into the
  // FIFO; for the end of a stream. False on failure.
  bool drain();

  // Samples in the FIFO.
  int size() const;
  // Takes `nb_samples` (1 ≤ nb_samples ≤ size()) from the FIFO into the
  // output frame and returns it, owned here and valid until the next call of
  // any method. Null (logged) on failure.
  AVFrame* read(int nb_samples);

  // One of the two frames owned here: the input one (`for_output` false) in
  // the input format, or the output one, (re)allocated with room for at
  // least `nb_samples` and nb_samples set to that; a buffer still referenced
  // elsewhere (by an encoder) is replaced, not overwritten. Null on failure,
  // logged as "get buffer error: ...".
  AVFrame* get_frame(bool for_output, int nb_samples);

  int out_format() const { return out_format_; }
  int out_rate() const { return out_rate_; }
  int out_channels() const { return out_channels_; }

 private:
  SwrPtr swr_;
  AudioFifoPtr fifo_;
  FramePtr in_frame_;
  FramePtr out_frame_;
  int in_rate_ = 0;
  int out_format_ = -1;
  int out_rate_ = 0;
  int out_channels_ = 0;
  int in_capacity_ = 0;   // samples the input frame's buffers hold
  int out_capacity_ = 0;  // samples the output frame's buffers hold
};

}  // namespace zeva

#endif  // ZEVA_PACKET_FF_RESAMPLE_H
