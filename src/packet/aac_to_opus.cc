#include "packet/aac_to_opus.h"

#include <cstdarg>
#include <cstdio>

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

constexpr int kOpusRate = 48000;
constexpr int64_t kOpusBitRate = 64000;

Status InitError(int code, const char* fmt, ...) ZEVA_PRINTF_LIKE(2, 3);
Status InitError(int code, const char* fmt, ...) {
  char text[256];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  ZEVA_LOG(kLogError, "%s", text);
  return Status::Error(code, text);
}

}  // namespace

AacToOpus::~AacToOpus() = default;

Status AacToOpus::init(const AVCodecParameters* par) {
  const AVCodec* decoder = par ? avcodec_find_decoder(par->codec_id) : nullptr;
  if (decoder == nullptr) {
    return InitError(-1, "AAC decoder not found (id=%d).", par ? static_cast<int>(par->codec_id) : 0);
  }
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_OPUS);
  if (encoder == nullptr) return InitError(-2, "Opus encoder not found. (libopus required)");

  Status st = [&]() -> Status {
    dec_.reset(avcodec_alloc_context3(decoder));
    enc_.reset(avcodec_alloc_context3(encoder));
    frame_ = NewFrame();
    pkt_ = NewPacket();
    if (dec_ == nullptr || enc_ == nullptr || frame_ == nullptr || pkt_ == nullptr) {
      return InitError(-6, "AacToOpus: out of memory");
    }
    int r = avcodec_parameters_to_context(dec_.get(), par);
    if (r >= 0) r = avcodec_open2(dec_.get(), decoder, nullptr);
    if (r < 0) return InitError(-3, "Failed to open AAC decoder: %s", av_error_text(r));

    AVCodecContext* e = enc_.get();
    e->sample_rate = kOpusRate;
    av_channel_layout_uninit(&e->ch_layout);
    e->ch_layout = AV_CHANNEL_LAYOUT_STEREO;
    e->bit_rate = kOpusBitRate;
    e->sample_fmt = AV_SAMPLE_FMT_FLT;
    e->time_base = kTimeBase;
    r = avcodec_open2(e, encoder, nullptr);
    if (r < 0) return InitError(-4, "Failed to open Opus encoder: %s", av_error_text(r));

    // A decoder that reports only a channel count gets that count's default order.
    AVChannelLayout in_layout{};
    if (dec_->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&in_layout, dec_->ch_layout.nb_channels);
    } else if (av_channel_layout_copy(&in_layout, &dec_->ch_layout) < 0) {
      return InitError(-6, "AacToOpus: out of memory");
    }
    const bool ok = resample_.init(dec_->sample_fmt, dec_->sample_rate, in_layout,
                                   AV_SAMPLE_FMT_FLT, kOpusRate, e->ch_layout);
    av_channel_layout_uninit(&in_layout);
    if (!ok) return InitError(-5, "Failed to initialize resample");
    return Status::Ok();
  }();
  if (!st.ok) {
    dec_.reset();
    enc_.reset();
    return st;
  }
  ZEVA_LOG(kLogDebug, "[SUCCESS] Transcoder initialized (AAC -> Opus, rate: %d Hz)", kOpusRate);
  return st;
}

bool AacToOpus::transcode(const AVPacket* packet, const AVRational& /*time_base*/,
                          const std::function<bool(AVPacket*, const AVRational&)>& emit) {
  if (dec_ == nullptr || enc_ == nullptr) return false;
  int r = avcodec_send_packet(dec_.get(), packet);
  if (r < 0) {
    ZEVA_LOG(kLogError, "send 'aac-dec' packet failed: (%d) %s", r, av_error_text(r));
    return false;
  }
  AVFrame* frame = frame_.get();
  for (;;) {
    r = avcodec_receive_frame(dec_.get(), frame);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) break;  // wants input / drained
    if (r < 0) {
      ZEVA_LOG(kLogError, "receive 'aac-dec' frame failed: (%d) %s", r, av_error_text(r));
      return false;
    }
    // The resampler was set up for the stream's parameters; a decoder that
    // changes them mid-stream is not followed.
    const bool pushed = frame->sample_rate == dec_->sample_rate &&
                        frame->ch_layout.nb_channels == dec_->ch_layout.nb_channels &&
                        resample_.push(frame);
    av_frame_unref(frame);
    if (!pushed) {
      ZEVA_LOG(kLogError, "resample: push() failed ..");
      return false;
    }
  }
  if (packet == nullptr && !resample_.drain()) {
    ZEVA_LOG(kLogError, "resample: push() failed ..");
    return false;
  }
  return encode_fifo(packet == nullptr, emit);
}

bool AacToOpus::encode_fifo(bool flush, const Emit& emit) {
  const int frame_size = enc_->frame_size;
  while (resample_.size() >= frame_size) {
    AVFrame* f = resample_.read(frame_size);
    if (f == nullptr || !send_frame(f, emit)) return false;
  }
  if (!flush) return true;
  const int rest = resample_.size();
  if (rest > 0) {
    AVFrame* last = nullptr;
    if (enc_->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) {
      last = resample_.read(rest);
    } else {
      // A full frame with silence behind the remainder: the buffer is
      // silenced at full size, then read() fills its start in place.
      last = resample_.get_frame(true, frame_size);
      if (last != nullptr) {
        av_samples_set_silence(last->extended_data, 0, frame_size, last->ch_layout.nb_channels,
                               static_cast<AVSampleFormat>(last->format));
      }
      last = last ? resample_.read(rest) : nullptr;
      if (last != nullptr) last->nb_samples = frame_size;
    }
    if (last == nullptr || !send_frame(last, emit)) return false;
  }
  return send_frame(nullptr, emit);
}

bool AacToOpus::send_frame(AVFrame* frame, const Emit& emit) {
  AVCodecContext* e = enc_.get();
  if (frame != nullptr) {
    frame->pts = samples_sent_;
    samples_sent_ += frame->nb_samples;
  }
  int r = avcodec_send_frame(e, frame);
  if (r < 0) {
    ZEVA_LOG(kLogError, "send 'opus-enc' packet failed: (%d) %s", r, av_error_text(r));
    return false;
  }
  AVPacket* pkt = pkt_.get();
  for (;;) {
    r = avcodec_receive_packet(e, pkt);
    if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return true;  // wants input / drained
    if (r < 0) {
      ZEVA_LOG(kLogError, "receive 'opus-enc' packet failed: (%d) %s", r, av_error_text(r));
      return false;
    }
    pkt->stream_index = -1;
    const bool ok = emit(pkt, kTimeBase);
    av_packet_unref(pkt);
    if (!ok) {
      ZEVA_LOG(kLogError, "opus_pkt callback error, break");
      return false;
    }
  }
}

}  // namespace zeva
