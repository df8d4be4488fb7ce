#include "classic/movie_capture2.h"

#include <cinttypes>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
}

#include "classic/io_cvt.h"
#include "log/logger.h"
#include "output/zv_av_writer.h"

namespace zeva {
namespace {

const AVRational kMicros{1, 1000000};

}  // namespace

MovieCapture2::MovieCapture2(ZV::ZV_AVWriter* writer, const Clock* clock)
    : MovieMuxer(writer), clock_(clock) {}

MovieCapture2::~MovieCapture2() {
  // The converter holds clones of the encoders' frames: it goes first.
  ZEVA_LOG(kLogInfo, "before delete iocvt");
  iocvt_.reset();
  ZEVA_LOG(kLogInfo, "delete iocvt OK");
}

void MovieCapture2::OnStatus(int code, const char* message, void* context) {
  auto* self = static_cast<MovieCapture2*>(context);
  ZEVA_LOG(kLogError, "### statu cb [id=%d]: %s", code, message);
  if (code == 0) self->start_ok_ = true;
  if (self->host_cb_ != nullptr) self->host_cb_(code, message, self->host_user_);
}

void MovieCapture2::start(const MovieInfo* info, StatusCallback cb, void* user, bool async) {
  ZEVA_LOG(kLogDebug, "m_start_pts=%" PRId64, start_pts_);
  start_ok_ = false;
  last_audio_pts_ = last_video_pts_ = 0;
  host_cb_ = cb;
  host_user_ = user;
  writer()->set_error_callback(&MovieCapture2::OnStatus, this);
  MovieMuxer::start(*info, &MovieCapture2::OnStatus, this, async);
}

bool MovieCapture2::Accept(Intake kind, int64_t pts_us, int bytes, int64_t* rel_us) {
  if (start_pts_ < 0) start_pts_ = pts_us;  // even a refused first frame anchors the time line
  if (!start_ok_) {
    ZEVA_LOG(kLogInfo, "--start_ok == false");
    return false;
  }
  if (pause_time_ > 0) return false;
  if (kind == Intake::kPcm || kind == Intake::kBgra) {
    ZEVA_LOG(kLogDebug, "nb=%d, pts=%lld", bytes, static_cast<long long>(pts_us));
  }
  const int64_t rel = pts_us - drift_ - start_pts_;
  if (kind == Intake::kPcm || kind == Intake::kAudioFrame) {
    last_audio_pts_ = rel;
  } else {
    last_video_pts_ = rel;
  }
  *rel_us = rel;
  return Converter() != nullptr;
}

IOCvt* MovieCapture2::Converter() {
  if (!iocvt_) iocvt_ = std::make_unique<IOCvt>(this);
  return iocvt_.get();
}

bool MovieCapture2::write_pcm(const uint8_t* data, int bytes, int64_t pts_us) {
  const int64_t prev = last_audio_pts_;
  int64_t rel;
  if (!Accept(Intake::kPcm, pts_us, bytes, &rel)) return false;
  if (data != nullptr) return iocvt_->write_pcm(data, bytes, rel);
  ZEVA_LOG(kLogDebug, "[fill silence] ----> pts=%lf(sec), dur=%lf(sec)", prev / 1000000.0,
           (rel - prev) / 1000000.0);
  return iocvt_->write_silence(rel - prev, prev);
}

bool MovieCapture2::write_bgra(const uint8_t* data, int size, int64_t pts_us, int stride) {
  int64_t rel;
  if (!Accept(Intake::kBgra, pts_us, size, &rel)) return false;
  return iocvt_->write_image(data, size, rel, stride);
}

bool MovieCapture2::write_audio_frame(AVFrame* frame, const AVRational* tb) {
  if (frame == nullptr || tb == nullptr) return false;
  int64_t rel;
  if (!Accept(Intake::kAudioFrame, av_rescale_q(frame->pts, *tb, kMicros), 0, &rel)) return false;
  frame->pts = rel;
  return iocvt_->write_audio_frame(frame, &kMicros);
}

bool MovieCapture2::write_video_frame(AVFrame* frame, const AVRational* tb) {
  if (frame == nullptr || tb == nullptr) return false;
  int64_t rel;
  if (!Accept(Intake::kVideoFrame, av_rescale_q(frame->pts, *tb, kMicros), 0, &rel)) return false;
  frame->pts = rel;
  return iocvt_->write_video_frame(frame, &kMicros);
}

bool MovieCapture2::pause() {
  if (!start_ok_) return false;
  pause_time_ = clock_->NowUs();
  return true;
}

bool MovieCapture2::resume() {
  if (!start_ok_ || pause_time_ < 1) return false;
  const int64_t now = clock_->NowUs();
  qel::err_print(stderr, "*** pause_time=%" PRId64 ",  resume_time=%" PRId64 ",  drift=%" PRId64 "\n",
                 pause_time_, now, now - pause_time_);
  std::fflush(stderr);
  drift_ += now - pause_time_;
  pause_time_ = 0;
  return true;
}

int64_t MovieCapture2::movie_time() const {
  if (last_video_pts_ > 0) return last_video_pts_;
  return last_audio_pts_ < 0 ? 0 : last_audio_pts_;
}

MovieInfo MovieCapture2::get_mInfo(bool* started) const {
  if (started != nullptr) *started = start_ok_;
  return effective();
}

void MovieCapture2::stop() {
  start_ok_ = false;
  MovieMuxer::stop();
}

}  // namespace zeva
