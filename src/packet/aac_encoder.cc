#include "packet/aac_encoder.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "log/logger.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

constexpr int kFrameSize = 1024;  // samples per AAC LC frame
constexpr int kAdtsHeaderLen = 7;
// At most this many plane pointers come with a host call.
constexpr int kMaxHostPlanes = 4;

AVSampleFormat FormatByName(const char* name) {
  if (name == nullptr) return AV_SAMPLE_FMT_NONE;
  if (std::strcmp(name, "s16") == 0) return AV_SAMPLE_FMT_S16;
  if (std::strcmp(name, "flt32p") == 0) return AV_SAMPLE_FMT_FLTP;
  if (std::strcmp(name, "flt32") == 0) return AV_SAMPLE_FMT_FLT;
  return AV_SAMPLE_FMT_NONE;
}

std::unique_ptr<AACEncoder> Fail(int code, const char* text, int* error_code) {
  ZEVA_LOG(kLogError, "AACEncoder error (%d): %s", code, text);
  if (error_code != nullptr) *error_code = code;
  return nullptr;
}

}  // namespace

int AdtsSamplingIndex(int sample_rate) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  for (int i = 0; i < static_cast<int>(sizeof kRates / sizeof kRates[0]); ++i) {
    if (kRates[i] == sample_rate) return i;
  }
  return 4;
}

AACEncoder::~AACEncoder() = default;

std::unique_ptr<AACEncoder> AACEncoder::create(const AacSettings& settings, int flags,
                                               int* error_code) {
  if (error_code != nullptr) *error_code = 0;
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) return Fail(-21, "failed to find encoder by name 'aac'", error_code);

  std::unique_ptr<AACEncoder> self(new AACEncoder());
  self->enc_.reset(avcodec_alloc_context3(codec));
  if (self->enc_ == nullptr) return Fail(-22, "failed to alloc context for 'aac'", error_code);

  const AVSampleFormat in_format = FormatByName(settings.sample_format);
  if (in_format == AV_SAMPLE_FMT_NONE) {
    return Fail(-23, "unsuported audio format, support:(s16, flt32p, flt32)", error_code);
  }
  if (!self->resample_.init(in_format, settings.sample_rate, settings.channels,
                            AV_SAMPLE_FMT_FLTP, settings.sample_rate, settings.channels)) {
    return Fail(-24, "audio resample init() failed ...", error_code);
  }

  AVCodecContext* c = self->enc_.get();
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->bit_rate = static_cast<int64_t>(settings.bitrate) * 1000;
  av_channel_layout_default(&c->ch_layout, settings.channels);
  c->sample_rate = settings.sample_rate;
  c->frame_size = kFrameSize;
  c->time_base = AVRational{1, settings.sample_rate};
  c->profile = FF_PROFILE_AAC_LOW;
  if (flags & kGlobalHeader) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  const int r = avcodec_open2(c, codec, nullptr);
  if (r < 0) {
    ZEVA_LOG(kLogError, "avcodec_open2 'aac': %s", av_error_text(r));
    return Fail(-25, "open audio codec failed ...", error_code);
  }

  self->in_frame_ = NewFrame();
  self->pkt_ = NewPacket();
  if (self->in_frame_ == nullptr || self->pkt_ == nullptr) {
    return Fail(-26, "out of memory", error_code);
  }
  AVFrame* in = self->in_frame_.get();
  in->format = in_format;
  in->sample_rate = settings.sample_rate;
  av_channel_layout_default(&in->ch_layout, settings.channels);
  self->in_planes_ = av_sample_fmt_is_planar(in_format) ? settings.channels : 1;
  self->settings_ = settings;
  return self;
}

bool AACEncoder::encode(uint8_t* const* planes, int nb_samples, int64_t /*usec*/,
                        const std::function<bool(const uint8_t*, int, int64_t)>& sink) {
  if (ended_) return false;
  AVCodecContext* c = enc_.get();
  const int frame_size = c->frame_size > 0 ? c->frame_size : kFrameSize;

  if (nb_samples < 1) {
    // End of stream: what the FIFO holds becomes a short last frame (the
    // encoder pads it), then the encoder gives up its delayed frames.
    ended_ = true;
    bool ok = true;
    while (ok && resample_.size() > 0) {
      const int n = resample_.size() < frame_size ? resample_.size() : frame_size;
      AVFrame* f = resample_.read(n);
      ok = f != nullptr && send_and_receive(f, sink);
    }
    ok = ok && send_and_receive(nullptr, sink);
    return sink(nullptr, 0, 0) && ok;
  }

  if (planes == nullptr || in_planes_ > kMaxHostPlanes) {
    ZEVA_LOG(kLogError, "AACEncoder: %s", planes ? "more planes than a call can carry"
                                                  : "no sample planes");
    return false;
  }
  AVFrame* in = in_frame_.get();
  for (int i = 0; i < in_planes_; ++i) in->data[i] = planes[i];
  in->extended_data = in->data;
  in->nb_samples = nb_samples;
  const bool pushed = resample_.push(in);
  for (int i = 0; i < in_planes_; ++i) in->data[i] = nullptr;
  if (!pushed) return false;

  while (resample_.size() >= frame_size) {
    AVFrame* f = resample_.read(frame_size);
    if (f == nullptr || !send_and_receive(f, sink)) return false;
  }
  return true;
}

bool AACEncoder::send_and_receive(const AVFrame* frame, const Sink& sink) {
  AVCodecContext* c = enc_.get();
  int r = avcodec_send_frame(c, frame);
  if (r < 0) {
    ZEVA_LOG(kLogError, "AACEncoder: send frame: %s", av_error_text(r));
    return false;
  }
  AVPacket* pkt = pkt_.get();
  for (;;) {
    r = avcodec_receive_packet(c, pkt);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return true;  // wants input / drained
    if (r < 0) {
      ZEVA_LOG(kLogError, "AACEncoder: receive packet: %s", av_error_text(r));
      return false;
    }
    adts_.clear();
    write_adts_header(pkt->size);
    adts_.insert(adts_.end(), pkt->data, pkt->data + pkt->size);
    av_packet_unref(pkt);
    const int64_t pts = samples_sent_ * 1000000 / settings_.sample_rate;
    samples_sent_ += c->frame_size;
    if (!sink(adts_.data(), static_cast<int>(adts_.size()), pts)) return false;
  }
}

void AACEncoder::write_adts_header(int payload_len) {
  // ISO/IEC 13818-7 fixed and variable header, MPEG-4, no CRC.
  const int len = payload_len + kAdtsHeaderLen;  // 13 bits
  const int profile = enc_->profile & 0x3;        // audio object type - 1
  const int sf = AdtsSamplingIndex(settings_.sample_rate);
  const int ch = settings_.channels & 0x7;
  const uint8_t h[kAdtsHeaderLen] = {
      0xFF,
      0xF1,
      static_cast<uint8_t>((profile << 6) | (sf << 2) | (ch >> 2)),
      static_cast<uint8_t>(((ch & 0x3) << 6) | ((len >> 11) & 0x3)),
      static_cast<uint8_t>((len >> 3) & 0xFF),
      static_cast<uint8_t>(((len & 0x7) << 5) | 0x1F),  // buffer fullness 0x7FF ...
      0xFC,                                              // ... and one raw data block
  };
  adts_.insert(adts_.end(), h, h + kAdtsHeaderLen);
}

}  // namespace zeva
