#include "packet/ff_resample.h"

#include <algorithm>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "log/logger.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

// Room the FIFO starts with; av_audio_fifo_write grows it on demand.
constexpr int kFifoStartSamples = 4096;
// Smallest output buffer offered to the resampler while draining its delay.
constexpr int kDrainChunk = 1024;

bool ValidFormat(int format) {
  return av_get_sample_fmt_name(static_cast<AVSampleFormat>(format)) != nullptr;
}

// Gives `frame` a format, rate and copy of `layout`, with no buffers.
bool Describe(AVFrame* frame, int format, int rate, const AVChannelLayout& layout) {
  frame->format = format;
  frame->sample_rate = rate;
  return av_channel_layout_copy(&frame->ch_layout, &layout) >= 0;
}

}  // namespace

bool FFResample::init(int in_format, int in_rate, int in_channels, int out_format, int out_rate,
                      int out_channels) {
  if (in_channels < 1 || out_channels < 1) {
    ZEVA_LOG(kLogError, "resample init: bad channel count %d -> %d", in_channels, out_channels);
    return false;
  }
  AVChannelLayout in_layout{};
  AVChannelLayout out_layout{};
  av_channel_layout_default(&in_layout, in_channels);
  av_channel_layout_default(&out_layout, out_channels);
  return init(in_format, in_rate, in_layout, out_format, out_rate, out_layout);
}

bool FFResample::init(int in_format, int in_rate, const AVChannelLayout& in_layout, int out_format,
                      int out_rate, const AVChannelLayout& out_layout) {
  if (!ValidFormat(in_format) || !ValidFormat(out_format) || in_rate <= 0 || out_rate <= 0 ||
      !av_channel_layout_check(&in_layout) || !av_channel_layout_check(&out_layout)) {
    ZEVA_LOG(kLogError, "resample init: bad arguments (format %d -> %d, rate %d -> %d)",
             in_format, out_format, in_rate, out_rate);
    return false;
  }
  // FFmpeg 5.1 takes the layouts through non-const pointers; it only reads them.
  AVChannelLayout out_copy{};
  AVChannelLayout in_copy{};
  int r = av_channel_layout_copy(&out_copy, &out_layout);
  if (r >= 0) r = av_channel_layout_copy(&in_copy, &in_layout);
  SwrContext* raw = nullptr;
  if (r >= 0) {
    r = swr_alloc_set_opts2(&raw, &out_copy, static_cast<AVSampleFormat>(out_format), out_rate,
                            &in_copy, static_cast<AVSampleFormat>(in_format), in_rate, 0,
                            nullptr);
  }
  av_channel_layout_uninit(&out_copy);
  av_channel_layout_uninit(&in_copy);
  swr_.reset(raw);
  if (r >= 0) r = swr_init(swr_.get());
  if (r < 0) {
    ZEVA_LOG(kLogError, "resample init: %s", av_error_text(r));
    swr_.reset();
    return false;
  }
  fifo_.reset(av_audio_fifo_alloc(static_cast<AVSampleFormat>(out_format), out_layout.nb_channels,
                                  kFifoStartSamples));
  in_frame_ = NewFrame();
  out_frame_ = NewFrame();
  if (fifo_ == nullptr || in_frame_ == nullptr || out_frame_ == nullptr ||
      !Describe(in_frame_.get(), in_format, in_rate, in_layout) ||
      !Describe(out_frame_.get(), out_format, out_rate, out_layout)) {
    ZEVA_LOG(kLogError, "resample init: out of memory");
    swr_.reset();
    return false;
  }
  in_rate_ = in_rate;
  out_format_ = out_format;
  out_rate_ = out_rate;
  out_channels_ = out_layout.nb_channels;
  in_capacity_ = out_capacity_ = 0;
  return true;
}

AVFrame* FFResample::get_frame(bool for_output, int nb_samples) {
  AVFrame* f = for_output ? out_frame_.get() : in_frame_.get();
  int& capacity = for_output ? out_capacity_ : in_capacity_;
  if (f == nullptr || nb_samples < 1) return nullptr;
  if (f->buf[0] != nullptr && capacity >= nb_samples && av_frame_is_writable(f)) {
    f->nb_samples = nb_samples;
    return f;
  }
  // av_frame_unref forgets the description; keep it across.
  const int format = f->format;
  const int rate = f->sample_rate;
  AVChannelLayout layout{};
  int r = av_channel_layout_copy(&layout, &f->ch_layout);
  av_frame_unref(f);
  capacity = 0;
  if (r >= 0) {
    f->format = format;
    f->sample_rate = rate;
    f->ch_layout = layout;  // the frame owns it now
    f->nb_samples = nb_samples;
    r = av_frame_get_buffer(f, 0);
  }
  if (r < 0) {
    ZEVA_LOG(kLogError, "get buffer error: %s\n", av_error_text(r));
    return nullptr;
  }
  capacity = nb_samples;
  return f;
}

bool FFResample::push(const AVFrame* frame) {
  if (frame == nullptr || swr_ == nullptr) return false;
  // Everything the resampler holds back plus this frame, at the output rate.
  const int64_t room64 = av_rescale_rnd(swr_get_delay(swr_.get(), in_rate_) + frame->nb_samples,
                                        out_rate_, in_rate_, AV_ROUND_UP);
  const int room = static_cast<int>(std::max<int64_t>(room64, 1));
  AVFrame* out = get_frame(true, room);
  if (out == nullptr) return false;
  const int n = swr_convert(swr_.get(), out->extended_data, room,
                            const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
  if (n < 0) {
    ZEVA_LOG(kLogError, "resample convert: %s", av_error_text(n));
    return false;
  }
  if (n > 0 && av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(out->extended_data), n) <
                   n) {
    ZEVA_LOG(kLogError, "resample: fifo write of %d samples failed", n);
    return false;
  }
  return true;
}

bool FFResample::drain() {
  if (swr_ == nullptr) return false;
  for (;;) {
    const int64_t held = av_rescale_rnd(swr_get_delay(swr_.get(), in_rate_), out_rate_, in_rate_,
                                        AV_ROUND_UP);
    const int room = static_cast<int>(std::max<int64_t>(held, kDrainChunk));
    AVFrame* out = get_frame(true, room);
    if (out == nullptr) return false;
    const int n = swr_convert(swr_.get(), out->extended_data, room, nullptr, 0);
    if (n < 0) {
      ZEVA_LOG(kLogError, "resample drain: %s", av_error_text(n));
      return false;
    }
    if (n == 0) return true;
    if (av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(out->extended_data), n) < n) {
      ZEVA_LOG(kLogError, "resample: fifo write of %d samples failed", n);
      return false;
    }
  }
}

int FFResample::size() const { return fifo_ ? av_audio_fifo_size(fifo_.get()) : 0; }

AVFrame* FFResample::read(int nb_samples) {
  if (fifo_ == nullptr || nb_samples < 1 || nb_samples > size()) return nullptr;
  AVFrame* out = get_frame(true, nb_samples);
  if (out == nullptr) return nullptr;
  const int r = av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(out->extended_data),
                                   nb_samples);
  if (r < nb_samples) {
    ZEVA_LOG(kLogError, "resample: fifo read: %s", r < 0 ? av_error_text(r) : "short read");
    return nullptr;
  }
  out->pts = AV_NOPTS_VALUE;
  return out;
}

}  // namespace zeva
