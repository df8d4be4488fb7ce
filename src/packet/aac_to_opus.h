// AAC into Opus, for outputs (RTSP) that carry Opus audio.
#ifndef ZEVA_PACKET_AAC_TO_OPUS_H
#define ZEVA_PACKET_AAC_TO_OPUS_H

#include <cstdint>
#include <functional>

extern "C" {
#include <libavutil/rational.h>
}

#include "packet/ff_resample.h"
#include "packet/status.h"
#include "platform/av_ptr.h"

namespace zeva {

// Decodes AAC, converts to 48 kHz stereo float and encodes Opus (libopus,
// 64 kbit/s). Opus timestamps count samples at 48 kHz from 0 (the encoder's
// priming makes the first packet's pts -initial_padding); the AAC timestamps
// are not carried over. Not thread-safe: one thread transcodes.
class AacToOpus {
 public:
  AacToOpus() = default;
  ~AacToOpus();
  AacToOpus(const AacToOpus&) = delete;
  AacToOpus& operator=(const AacToOpus&) = delete;

  // Opens the decoder for `par` (an AAC stream's parameters, not kept), the
  // Opus encoder and the resampler between them. Call once. Failure codes:
  // -1 no decoder, -2 no Opus encoder, -3 decoder open, -4 encoder open, -5
  // resampler, -6 out of memory; the codec contexts are then freed.
  Status init(const AVCodecParameters* par);

  // Decodes `packet` (not owned; null ends the stream: decoder, resampler and
  // FIFO are drained, the remainder is encoded as a short last frame and the
  // encoder is drained) and calls `emit` for each Opus packet, which is owned
  // here, valid during the call, has stream_index -1 and timestamps in the
  // time base given to `emit` (this->time_base()). `time_base` is the
  // packet's own and is not used, since Opus timestamps count samples.
  // True when everything handed in was taken; false on a codec failure or
  // when `emit` returns false (logged; transcoding stops for this call).
  bool transcode(const AVPacket* packet, const AVRational& time_base,
                 const std::function<bool(AVPacket*, const AVRational&)>& emit);

  // The opened Opus encoder, for the output stream's parameters; null before
  // a successful init.
  AVCodecContext* encoder() const { return enc_.get(); }
  // 1/48000.
  AVRational time_base() const { return kTimeBase; }

 private:
  using Emit = std::function<bool(AVPacket*, const AVRational&)>;
  static constexpr AVRational kTimeBase{1, 48000};

  // Feeds FIFO frames of the encoder's size (with `flush`, also the short
  // remainder and then the drain) to the encoder and emits its packets.
  [[nodiscard]] bool encode_fifo(bool flush, const Emit& emit);
  [[nodiscard]] bool send_frame(AVFrame* frame, const Emit& emit);

  CodecContextPtr dec_;
  CodecContextPtr enc_;
  FFResample resample_;
  FramePtr frame_;  // decoded AAC
  PacketPtr pkt_;   // encoded Opus
  int64_t samples_sent_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_PACKET_AAC_TO_OPUS_H
