#include "convert/nx_resample.h"

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "log/logger.h"
#include "platform/av_error.h"

namespace ZV {
namespace {

constexpr AVRational kMicros{1, 1000000};
constexpr int64_t kDriftUs = 500000;

// Half a second in the time base of the first resampler that checks for
// drift; shared by every resampler of the process. Written once, by whichever
// thread gets there first; all writers store the same kind of value.
std::atomic<int64_t> g_drift_threshold{0};

uint64_t MaskOf(const AVChannelLayout& l) {
  return l.order == AV_CHANNEL_ORDER_NATIVE ? l.u.mask : 0;
}

}  // namespace

NxResample::NxResample() : swr_(swr_alloc()) {}

NxResample::~NxResample() {
  swr_.reset();
  qel::err_print(stderr, "delete nxr.s ok!\n");
  std::fflush(stderr);
  out_frame_.reset();
  qel::err_print(stderr, "delete out_frame ok!\n");
  std::fflush(stderr);
}

int NxResample::config(AVFrame* dst, AVFrame* src, AVRational tb) {
  if (dst == nullptr || swr_ == nullptr) return -1;
  out_frame_.reset(av_frame_clone(dst));
  if (out_frame_ == nullptr) return -1;
  time_base_ = tb;
  if (set_options(dst, src) < 0) return -1;
  const int r = swr_init(swr_.get());
  if (r < 0) return r;
  fifo_.reset(av_audio_fifo_alloc(static_cast<AVSampleFormat>(out_sample_fmt_), out_channels_, 1));
  if (fifo_ == nullptr) {
    av_log(nullptr, AV_LOG_ERROR, "alloc audio fifo error!,%s\n",
           zeva::av_error_text(AVERROR(errno)));
    return -1;
  }
  return r;
}

int NxResample::set_options(const AVFrame* dst, const AVFrame* src) {
  SwrContext* s = swr_.get();
  swr_close(s);
  int r = 0;
  if (src != nullptr) {
    if (r >= 0) r = av_opt_set_chlayout(s, "in_chlayout", &src->ch_layout, 0);
    if (r >= 0) r = av_opt_set_int(s, "isf", src->format, 0);
    if (r >= 0) r = av_opt_set_int(s, "isr", src->sample_rate, 0);
  }
  if (dst != nullptr) {
    if (r >= 0) r = av_opt_set_chlayout(s, "out_chlayout", &dst->ch_layout, 0);
    if (r >= 0) r = av_opt_set_int(s, "osf", dst->format, 0);
    if (r >= 0) r = av_opt_set_int(s, "osr", dst->sample_rate, 0);
  }
  if (r < 0) {
    av_log(s, AV_LOG_ERROR, "Failed to set option\n");
    return AVERROR(EINVAL);
  }
  if (src != nullptr) {
    in_ch_layout_ = MaskOf(src->ch_layout);
    in_sample_rate_ = src->sample_rate;
    in_sample_fmt_ = src->format;
    in_channels_ = src->ch_layout.nb_channels;
    in_bytes_per_sample_ = av_get_bytes_per_sample(static_cast<AVSampleFormat>(src->format));
    in_bytes_per_second_ = in_channels_ * in_sample_rate_ * in_bytes_per_sample_;
  }
  if (dst != nullptr) {
    out_ch_layout_ = MaskOf(dst->ch_layout);
    out_sample_rate_ = dst->sample_rate;
    out_sample_fmt_ = dst->format;
    out_nb_samples_ = dst->nb_samples;
    out_planar_ = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(dst->format));
    out_channels_ = dst->ch_layout.nb_channels;
  }
  return 0;
}

AVFrame* NxResample::resample(AVFrame* in, const AVRational* in_tb) {
  if (swr_ == nullptr || swr_is_initialized(swr_.get()) <= 0 || fifo_ == nullptr) {
    qel::err_print(stderr, "=== resample:  swr_init = false\n");
    std::fflush(stderr);
    return nullptr;
  }
  AVAudioFifo* fifo = fifo_.get();
  AVFrame* out = out_frame_.get();

  if (in != nullptr) {
    // One scratch frame per call: swr_convert_frame sizes its buffers.
    zeva::FramePtr scratch = zeva::NewFrame();
    if (scratch == nullptr) return nullptr;
    if (av_channel_layout_copy(&scratch->ch_layout, &out->ch_layout) < 0) return nullptr;
    scratch->format = out->format;
    scratch->sample_rate = out->sample_rate;
    if (swr_convert_frame(swr_.get(), scratch.get(), in) != 0) return nullptr;

    const int want = av_audio_fifo_size(fifo) + scratch->nb_samples;
    if (av_audio_fifo_realloc(fifo, want) < 0) {
      ZEVA_LOG(zeva::kLogError, "--- audio fifo realloc failed: sz = %d", want);
      return nullptr;
    }
    if (av_audio_fifo_write(fifo, reinterpret_cast<void**>(scratch->extended_data),
                            scratch->nb_samples) < scratch->nb_samples) {
      return nullptr;
    }
  }

  if (av_audio_fifo_size(fifo) < out->nb_samples) return nullptr;
  const int r = av_audio_fifo_read(fifo, reinterpret_cast<void**>(out->extended_data),
                                   out->nb_samples);
  if (r < 0) {
    av_log(nullptr, AV_LOG_INFO, "@@ audio fifo read error: %s\n", zeva::av_error_text(r));
    return nullptr;
  }

  // Re-anchor on the input time stamps when they drift from the sample count
  // (the host dropped or stalled audio). Draining never re-anchors.
  if (in != nullptr) {
    if (g_drift_threshold.load(std::memory_order_relaxed) == 0) {
      g_drift_threshold.store(av_rescale_q(kDriftUs, kMicros, time_base_),
                              std::memory_order_relaxed);
    }
    const int64_t this_pts = av_rescale_q(in->pts, *in_tb, time_base_);
    // The distance is taken in 32 bits: a jump of a multiple of 2^32 units
    // (about a day at 48 kHz) wraps and goes unnoticed.
    const uint32_t diff = static_cast<uint32_t>(this_pts) - static_cast<uint32_t>(processed_);
    const uint32_t mag = static_cast<int32_t>(diff) < 0 ? 0u - diff : diff;
    if (static_cast<int64_t>(static_cast<int32_t>(mag)) >=
        g_drift_threshold.load(std::memory_order_relaxed)) {
      ZEVA_LOG(zeva::kLogError,
               "@@@ [check] correct au pts ----> processd_samples=%" PRId64
               "(%lfsec), this_pts=%" PRId64 "(%lfsec)",
               processed_, av_rescale_q(processed_, time_base_, *in_tb) / 1000000.0, this_pts,
               in->pts / 1000000.0);
      std::fflush(stderr);
      processed_ = this_pts;
    }
  }

  out->pts = processed_;
  processed_ += out->nb_samples;
  return out;
}

}  // namespace ZV
