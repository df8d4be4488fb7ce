// The object behind a classic recording handle: the movie muxer plus one time
// line for both streams, pause and resume, silence on request, and a gate
// that refuses frames until the output is open.
#ifndef ZEVA_CLASSIC_MOVIE_CAPTURE2_H
#define ZEVA_CLASSIC_MOVIE_CAPTURE2_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "encode/movie_muxer.h"
#include "platform/clock.h"

namespace ZV {
class ZV_AVWriter;
}

namespace zeva {

class IOCvt;

// Host time stamps are microseconds of `clock` (the library's system clock
// for hosts); inside, every time stamp is microseconds since the first one
// offered, with pauses removed: the movie time. Host thread for everything
// but the status forwarding, which may run on a library thread.
class MovieCapture2 : public MovieMuxer {
 public:
  // Takes ownership of `writer` (may be null). `clock` must outlive this.
  explicit MovieCapture2(ZV::ZV_AVWriter* writer, const Clock* clock = &SystemClock::Get());
  ~MovieCapture2() override;

  // Starts the muxer; `cb` receives every status (code 0 "start OK" once
  // frames are accepted) from the muxer and from the writers.
  void start(const MovieInfo* info, StatusCallback cb, void* user, bool async);

  // The four intakes. Each returns true when a converted frame reached the
  // muxer; false when refused (not started, paused) or only buffered. Null
  // PCM `data` asks for silence from the previous audio time up to `pts_us`.
  bool write_pcm(const uint8_t* data, int bytes, int64_t pts_us);
  bool write_bgra(const uint8_t* data, int size, int64_t pts_us, int stride);
  // `frame->pts` in `tb` (host clock); rewritten to the movie time in µs.
  bool write_audio_frame(AVFrame* frame, const AVRational* tb);
  bool write_video_frame(AVFrame* frame, const AVRational* tb);

  // False until the output is open. Pausing again restamps the pause.
  bool pause();
  // False unless paused; cuts the paused time out of the time line.
  bool resume();
  bool is_paused() const { return pause_time_ > 0; }

  // The latest accepted video time, else audio time, else 0.
  int64_t movie_time() const;

  // The working settings; `*started` (when not null) tells whether the
  // output is open.
  MovieInfo get_mInfo(bool* started) const;

  // Refuses further frames, then flushes and closes everything.
  void stop();

  int64_t sys_usec() const { return clock_->NowUs(); }

 private:
  enum class Intake { kPcm, kBgra, kAudioFrame, kVideoFrame };
  // The shared steps of every intake: false when refused, else the movie
  // time of `pts_us` in `*rel_us` and the converter ready.
  bool Accept(Intake kind, int64_t pts_us, int bytes, int64_t* rel_us);
  IOCvt* Converter();
  static void OnStatus(int code, const char* message, void* context);

  const Clock* clock_;
  std::atomic<bool> start_ok_{false};
  int64_t start_pts_ = -1;
  int64_t pause_time_ = 0;
  int64_t drift_ = 0;
  int64_t last_audio_pts_ = 0;
  int64_t last_video_pts_ = 0;
  std::unique_ptr<IOCvt> iocvt_;
  StatusCallback host_cb_ = nullptr;
  void* host_user_ = nullptr;
};

}  // namespace zeva

#endif  // ZEVA_CLASSIC_MOVIE_CAPTURE2_H
