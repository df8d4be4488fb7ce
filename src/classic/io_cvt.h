// Turns what the host hands in (raw PCM, raw pictures, silence requests,
// ready frames) into frames in the encoders' own formats, and passes them on
// to the muxer.
#ifndef ZEVA_CLASSIC_IO_CVT_H
#define ZEVA_CLASSIC_IO_CVT_H

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/av_ptr.h"
#include "zeva/movie_info.h"

struct AVRational;

namespace ZV {
class NxResample;
class NxRescale;
}  // namespace ZV

namespace zeva {

class MovieCapture2;

// Created by the capture once its output is open; used by the capture's
// host thread only. Host bytes are wrapped in place, never copied: the
// converters read them and write into the encoders' own frames.
class IOCvt {
 public:
  // `capture` (not null) must outlive this. Configures what it can at once.
  explicit IOCvt(MovieCapture2* capture);
  virtual ~IOCvt();
  IOCvt(const IOCvt&) = delete;
  IOCvt& operator=(const IOCvt&) = delete;

  // Each returns true when at least one converted frame reached the muxer.
  // PCM is laid out as the settings' sample format says; time stamps are
  // movie time in microseconds.
  bool write_pcm(const uint8_t* data, int bytes, int64_t pts_us);
  // Zeros of `duration_us` starting at `pts_us`; false for a negative duration.
  bool write_silence(int64_t duration_us, int64_t pts_us);
  bool write_audio_frame(AVFrame* frame, const AVRational* tb);
  // One picture in the settings' source format and size, first line `stride`.
  bool write_image(const uint8_t* data, int size, int64_t pts_us, int stride);
  bool write_video_frame(AVFrame* frame, const AVRational* tb);

  int64_t audio_samples() const { return audio_samples_; }
  int64_t video_frames() const { return video_frames_; }

 protected:
  virtual bool convert(bool is_video, AVFrame* frame, const AVRational* tb);
  virtual bool emit(bool is_video, AVFrame* frame, const AVRational* tb);

 private:
  bool EnsureInfo();
  bool ConfigureAudio();
  bool ConfigureVideo();
  bool WrapPcm(const uint8_t* data, int bytes, int64_t pts_us);

  MovieCapture2* capture_;
  std::unique_ptr<ZV::NxResample> resampler_;
  std::unique_ptr<ZV::NxRescale> rescaler_;
  FramePtr pcm_frame_;    // aims at the host's PCM or the silence buffer
  FramePtr image_frame_;  // aims at the host's picture
  std::unique_ptr<MovieInfo> info_;
  int64_t audio_samples_ = 0;
  int64_t video_frames_ = 0;
  std::vector<uint8_t> silence_;
};

}  // namespace zeva

#endif  // ZEVA_CLASSIC_IO_CVT_H
