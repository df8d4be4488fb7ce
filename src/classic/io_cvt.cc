#include "classic/io_cvt.h"

#include <cstdlib>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/samplefmt.h>
}

#include "classic/movie_capture2.h"
#include "convert/nx_resample.h"
#include "convert/nx_rescale.h"
#include "encode/movie_muxer.h"
#include "log/logger.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

const AVRational kMicros{1, 1000000};

}  // namespace

IOCvt::IOCvt(MovieCapture2* capture) : capture_(capture) {
  if (capture_ == nullptr) std::exit(1);
  // Whatever cannot be configured yet is retried on the next input.
  (void)ConfigureAudio();
  (void)ConfigureVideo();
}

IOCvt::~IOCvt() {
  ZEVA_LOG(kLogInfo, "Begin ...");
  if (resampler_) {
    resampler_.reset();
    ZEVA_LOG(kLogInfo, "delete nxr ok!");
  }
  if (rescaler_) {
    rescaler_.reset();
    ZEVA_LOG(kLogInfo, "delete nxs ok!");
  }
  if (pcm_frame_) {
    pcm_frame_.reset();
    ZEVA_LOG(kLogInfo, "free pcm");
  }
  if (image_frame_) {
    image_frame_.reset();
    ZEVA_LOG(kLogInfo, "free bgra");
  }
  ZEVA_LOG(kLogInfo, "OK");
}

bool IOCvt::EnsureInfo() {
  if (info_) return true;
  bool started = false;
  const MovieInfo info = capture_->get_mInfo(&started);
  if (!started) return false;
  info_ = std::make_unique<MovieInfo>(info);
  return true;
}

bool IOCvt::ConfigureAudio() {
  if (resampler_) return true;
  if (!EnsureInfo()) return false;
  if (!pcm_frame_) {
    pcm_frame_ = NewFrame();
    if (!pcm_frame_) return false;
    pcm_frame_->format = info_->sample_fmt;
    pcm_frame_->sample_rate = info_->src_sample_rate;
    av_channel_layout_default(&pcm_frame_->ch_layout, info_->channels);
  }
  AVFrame* dst = capture_->has_audio() ? capture_->audio_stream().frame.get() : nullptr;
  if (dst == nullptr) {
    ZEVA_LOG(kLogError, "=== No audio dst_frame ..");
    return false;
  }
  auto resampler = std::make_unique<ZV::NxResample>();
  if (resampler->config(dst, pcm_frame_.get(), AVRational{1, info_->sample_rate}) < 0) {
    ZEVA_LOG(kLogError, "=== config NxResample failed ..");
    return false;
  }
  resampler_ = std::move(resampler);
  return true;
}

bool IOCvt::ConfigureVideo() {
  if (rescaler_) return true;
  if (!EnsureInfo()) return false;
  AVFrame* dst = capture_->has_video() ? capture_->video_stream().frame.get() : nullptr;
  if (dst == nullptr) {
    ZEVA_LOG(kLogError, "=== No video dst_frame ..");
    return false;
  }
  FramePtr description = NewFrame();
  if (!description) return false;
  description->width = info_->src_width;
  description->height = info_->src_height;
  description->format = info_->src_pix_fmt;
  auto rescaler = std::make_unique<ZV::NxRescale>();
  if (rescaler->config(dst, description.get(), AVRational{1, info_->fps}) < 0) {
    ZEVA_LOG(kLogError, "=== config NxRescale failed ..");
    return false;
  }
  rescaler_ = std::move(rescaler);
  return true;
}

bool IOCvt::WrapPcm(const uint8_t* data, int bytes, int64_t pts_us) {
  const auto fmt = static_cast<AVSampleFormat>(info_->sample_fmt);
  const int bytes_per_sample = av_get_bytes_per_sample(fmt);
  if (bytes_per_sample <= 0 || info_->channels <= 0 || bytes < 0) return false;
  const int samples = bytes / bytes_per_sample / info_->channels;
  pcm_frame_->nb_samples = samples;
  pcm_frame_->pts = pts_us;
  if (av_samples_fill_arrays(pcm_frame_->data, pcm_frame_->linesize, data, info_->channels,
                             samples, fmt, 1) < 0) {
    return false;
  }
  pcm_frame_->extended_data = pcm_frame_->data;
  audio_samples_ += samples;
  return convert(false, pcm_frame_.get(), &kMicros);
}

bool IOCvt::write_pcm(const uint8_t* data, int bytes, int64_t pts_us) {
  if (!ConfigureAudio()) return false;
  return WrapPcm(data, bytes, pts_us);
}

bool IOCvt::write_silence(int64_t duration_us, int64_t pts_us) {
  if (!ConfigureAudio()) return false;
  const int64_t per_second = int64_t{info_->channels} * info_->src_sample_rate *
                             av_get_bytes_per_sample(static_cast<AVSampleFormat>(info_->sample_fmt));
  const int64_t bytes = per_second * static_cast<int32_t>(duration_us) / 1000000;
  if (bytes < 0 || bytes > INT32_MAX) {
    ZEVA_LOG(kLogError, "--- silence of %lld us refused", static_cast<long long>(duration_us));
    return false;
  }
  if (silence_.size() < static_cast<size_t>(bytes)) silence_.resize(static_cast<size_t>(bytes), 0);
  return WrapPcm(silence_.data(), static_cast<int>(bytes), pts_us);
}

bool IOCvt::write_audio_frame(AVFrame* frame, const AVRational* tb) {
  if (!ConfigureAudio()) return false;
  audio_samples_ += frame->nb_samples;
  return convert(false, frame, tb);
}

bool IOCvt::write_image(const uint8_t* data, int, int64_t pts_us, int stride) {
  if (!ConfigureVideo()) return false;
  if (!image_frame_ || image_frame_->linesize[0] != stride) {
    image_frame_ = NewFrame();
    if (!image_frame_) return false;
    image_frame_->width = info_->src_width;
    image_frame_->height = info_->src_height;
    image_frame_->format = info_->src_pix_fmt;
    av_image_fill_linesizes(image_frame_->linesize, static_cast<AVPixelFormat>(info_->src_pix_fmt),
                            info_->src_width);
    image_frame_->linesize[0] = stride;
  }
  const int r = av_image_fill_pointers(image_frame_->data,
                                       static_cast<AVPixelFormat>(info_->src_pix_fmt),
                                       info_->src_height, const_cast<uint8_t*>(data),
                                       image_frame_->linesize);
  if (r < 0) {
    ZEVA_LOG(kLogError, "###---> image fill error: %s", av_error_text(r));
    return false;
  }
  image_frame_->pts = pts_us;
  ++video_frames_;
  return convert(true, image_frame_.get(), &kMicros);
}

bool IOCvt::write_video_frame(AVFrame* frame, const AVRational* tb) {
  if (!ConfigureVideo()) return false;
  ++video_frames_;
  return convert(true, frame, tb);
}

bool IOCvt::convert(bool is_video, AVFrame* frame, const AVRational* tb) {
  if (is_video) {
    if (!rescaler_) return false;
    AVFrame* out = rescaler_->rescale(frame, tb);
    if (out == nullptr) return false;
    const AVRational out_tb{1, info_->fps};
    return emit(true, out, &out_tb);
  }
  if (!resampler_) return false;
  AVFrame* out = resampler_->resample(frame, tb);
  if (out == nullptr) return false;  // buffered until a whole encoder frame
  const AVRational out_tb{1, info_->sample_rate};
  bool result = false;
  while (out != nullptr) {
    result = emit(false, out, &out_tb);
    out = resampler_->resample(nullptr, tb);
  }
  return result;
}

bool IOCvt::emit(bool is_video, AVFrame* frame, const AVRational* tb) {
  if (capture_ == nullptr) return true;
  MovieMuxer* muxer = capture_;
  if (is_video) {
    (void)muxer->write_video_frame(frame, tb);
  } else {
    (void)muxer->write_audio_frame(frame, tb);
  }
  return true;
}

}  // namespace zeva
