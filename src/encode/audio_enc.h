// The audio encoder of a classic recording.
#ifndef ZEVA_ENCODE_AUDIO_ENC_H
#define ZEVA_ENCODE_AUDIO_ENC_H

#include <cstdint>

#include "encode/enc_base.h"

struct AVCodec;
struct AVDictionary;
struct AVFormatContext;
struct AVRational;

namespace zeva {

// Encodes the sound of one audio stream and hands the packets to the writer.
// Also makes a rising tone for hosts that test a recording chain. One thread
// at a time; see EncBase.
class AudioEnc : public EncBase {
 public:
  // Keeps `writer` (not owned). Allocates nothing.
  explicit AudioEnc(BaseWriter* writer);
  // Forgets the filter without deleting it: the host owns it. The stream's
  // codec, frames and packet stay with `OutputStream`'s owner.
  ~AudioEnc() override;

  // Copies `info`, opens `codec` on `ost->enc` (already configured) with a
  // copy of `opts` (left unchanged; may be null), copies the codec parameters
  // into `ost->st`, primes the tone and allocates `ost->frame` in the codec's
  // format, layout and rate, with 10000 samples for a codec that takes frames
  // of any size and the codec's frame size otherwise; `ost->tmp_frame` is
  // reset. `oc` is not used. Throws EncoderError with "Could not open audio
  // codec: <FFmpeg's text>" or "Could not allocate audio frame"; ends the
  // process when the frame's memory cannot be allocated.
  void open(AVFormatContext* oc, const AVCodec* codec, OutputStream* ost, AVDictionary* opts,
            const MovieInfo& info);

  // Encodes `frame` (not owned; in the codec's format, pts in its time base)
  // as given, or drains the codec when it is null. The installed filter sees
  // every packet before the writer does. Returns the number of packets handed
  // to the writer; -1 when `oc` is null (nothing else happens); -2 when the
  // codec refuses the frame (also after the drain); -3 when the writer refuses
  // a packet. Opened only.
  int encode(AVFormatContext* oc, OutputStream* ost, AVFrame* frame);

  // Fills `ost->tmp_frame` (allocated on first use in the source format,
  // channel count and rate of the settings, sized to match one encoder frame)
  // with the next piece of a 110 Hz tone whose pitch rises, the same 16-bit
  // sample on every channel of the codec, interleaved, and stamps it in `tb`.
  // The tone restarts every 10 seconds of this encoder's stream. Returns the
  // frame (owned by `ost`, valid until the next call), or null when it cannot
  // be allocated or before open.
  AVFrame* generate_test_frame(OutputStream* ost, const AVRational& tb);

  // Installs `f` without taking ownership; it must outlive the encoder or be
  // replaced. A filter installed before is forgotten, neither called nor deleted.
  void set_filter(FilterBase* f) { filter_ = f; }
  FilterBase* filter() const { return filter_; }

 private:
  // Resets the tone's phase step for `sample_rate` (the phase is left alone).
  void PrimeTone(int sample_rate);

  FilterBase* filter_ = nullptr;
  // Tone state: phase, phase step per sample, and the step's growth per sample.
  float t_ = 0;
  float tincr_ = 0;
  float tincr2_ = 0;
  // The next restart of the tone, in seconds of stream time.
  int64_t tone_period_s_ = 10;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_AUDIO_ENC_H
