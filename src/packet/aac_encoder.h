// Host PCM into AAC frames with ADTS headers, for the packet recording's
// "aac" input.
#ifndef ZEVA_PACKET_AAC_ENCODER_H
#define ZEVA_PACKET_AAC_ENCODER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "packet/ff_resample.h"
#include "platform/av_ptr.h"

namespace zeva {

// The audio settings of a packet recording that writes PCM.
struct AacSettings {
  int sample_rate;            // Hz
  int channels;
  const char* sample_format;  // "s16", "flt32p" or "flt32"
  int bitrate;                // kbit/s
};

// FFmpeg's "aac" encoder (AAC LC, 1024-sample frames) behind a FIFO, so the
// host may write any number of samples per call. Not thread-safe: one thread
// encodes.
class AACEncoder {
 public:
  // Bit of `flags` asking for global headers (the packet API always sets it).
  static constexpr int kGlobalHeader = 64;

  // Opens the encoder for `settings`. Null on failure, logged as
  // "AACEncoder error (%d): %s"; the code also goes to `*error_code` when
  // given: -21 no encoder, -22 no context, -23 unknown sample format, -24
  // resampler, -25 encoder open, -26 out of memory.
  static std::unique_ptr<AACEncoder> create(const AacSettings& settings, int flags,
                                            int* error_code = nullptr);

  ~AACEncoder();
  AACEncoder(const AACEncoder&) = delete;
  AACEncoder& operator=(const AACEncoder&) = delete;

  // Appends `nb_samples` of PCM in the settings' format (`planes` as FFmpeg
  // frame data: one pointer interleaved, one per channel planar, at most
  // four; read during the call only) and hands `sink` every complete ADTS
  // frame (header and payload, valid during the call) with its pts in
  // microseconds, which counts encoded samples from 0; `usec` is not used.
  // `nb_samples` < 1 ends the stream: the buffered remainder is encoded as a
  // short last frame, the encoder drained into `sink`, then `sink(nullptr,
  // 0, 0)` is called; later calls return false. False on an FFmpeg failure,
  // after an end, or when `sink` returns false (nothing further is handed on
  // for that call).
  bool encode(uint8_t* const* planes, int nb_samples, int64_t usec,
              const std::function<bool(const uint8_t* data, int nbytes, int64_t pts)>& sink);

  // The encoder, opened (for its extradata and parameters).
  const AVCodecContext* context() const { return enc_.get(); }

 private:
  using Sink = std::function<bool(const uint8_t*, int, int64_t)>;

  AACEncoder() = default;
  // Sends `frame` (null drains) and hands on every packet the encoder has.
  [[nodiscard]] bool send_and_receive(const AVFrame* frame, const Sink& sink);
  // Appends the 7-byte ADTS header for a payload of `payload_len` bytes.
  void write_adts_header(int payload_len);

  CodecContextPtr enc_;
  FFResample resample_;
  FramePtr in_frame_;  // the host's PCM, its data pointing at the host's planes
  PacketPtr pkt_;
  AacSettings settings_{};
  int in_planes_ = 1;        // data pointers a host call brings
  std::vector<uint8_t> adts_;
  int64_t samples_sent_ = 0;
  bool ended_ = false;
};

// ADTS sampling-frequency index of `sample_rate`; 4 (44100 Hz) for a rate
// the table lacks.
int AdtsSamplingIndex(int sample_rate);

}  // namespace zeva

#endif  // ZEVA_PACKET_AAC_ENCODER_H
