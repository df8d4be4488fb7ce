// A host of the classic interface for tests that see only <zeva/zeva.h>:
// settings, the status callback and a feeder of pictures and PCM.
#ifndef ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H
#define ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H

#include <zeva/zeva.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

namespace zeva::test {

// The status callback's first report and first failure, which may come from
// library threads.
class Status {
 public:
  struct Report {
    int code = -1000;  // -1000: nothing reported
    std::string message;
  };
  static void Callback(int code, const char* message, void* user) {
    auto* self = static_cast<Status*>(user);
    std::lock_guard<std::mutex> lock(self->mu_);
    const Report r{code, message != nullptr ? message : ""};
    if (self->first_.code == -1000) self->first_ = r;
    if (code != 0 && self->failure_.code == -1000) self->failure_ = r;
    self->cv_.notify_all();
  }
  // Waits up to `seconds` for a report (with `failure`, for a failure); then
  // the first failure, else the first report.
  Report Wait(double seconds = 0, bool failure = false) {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, std::chrono::duration<double>(seconds),
                 [&] { return (failure ? failure_ : first_).code != -1000; });
    return failure_.code != -1000 ? failure_ : first_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  Report first_, failure_;
};

inline MovieInfo Settings(const std::string& url) {
  MovieInfo info{};
  url.copy(info.url, sizeof info.url - 1);
  info.src_sample_rate = 44100;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_S16;
  info.width = info.src_width = 320;
  info.height = info.src_height = 240;
  info.fps = 30;
  info.src_pix_fmt = AV_PIX_FMT_BGRA;
  info.pix_fmt = AV_PIX_FMT_YUV420P;
  info.colorspace = 2;
  info.preset = QL_ULTRAFAST;
  return info;
}

// A host recording faster than real time: its stamps are the library's clock
// at start plus media time, plus the real time it spent paused. With `async`
// the start runs on the library's thread (wait for it with status().Wait()).
class Host {
 public:
  explicit Host(const MovieInfo& info, MovieInfo* effective = nullptr, bool async = false)
      : info_(info), h_(ZEVA_start(info, &Status::Callback, &status_, effective, async)) {}
  ~Host() { Stop(); }
  void* handle() const { return h_; }
  Status& status() { return status_; }
  void Stop() { ZEVA_stop(&h_); }

  // Feeds pictures and 10 ms of silent PCM at a time, in time order, up to
  // `until_s` of media time.
  void FeedUntil(double until_s) {
    const int64_t until_us = static_cast<int64_t>(until_s * 1e6);
    std::vector<int16_t> pcm(size_t(info_.src_sample_rate / 100) * 2);
    while (true) {
      const int64_t next_video = frames_ * 1000000 / info_.fps;
      const int64_t next_audio = samples_ * 1000000 / info_.src_sample_rate;
      if (std::min(next_video, next_audio) >= until_us) break;
      if (next_video <= next_audio) {
        accepted_video_ += ZEVA_write_video_bgra(h_, picture_.data(), int(picture_.size()),
                                                 Stamp(next_video), stride_);
        ++frames_;
      } else {
        ZEVA_write_audio_pcm(h_, pcm.data(), int(pcm.size() * sizeof(int16_t)), Stamp(next_audio));
        samples_ += info_.src_sample_rate / 100;
      }
    }
  }
  // Pause for `real_ms` of real time while the media clock moves on by the
  // same (measured) amount, as a live host's would.
  void PauseFor(int real_ms) {
    const int64_t t0 = ZEVA_current_sys_usec();
    ZEVA_pause(h_);
    std::this_thread::sleep_for(std::chrono::milliseconds(real_ms));
    ZEVA_resume(h_);
    paused_us_ += ZEVA_current_sys_usec() - t0;
  }
  int accepted_video() const { return accepted_video_; }

 private:
  int64_t Stamp(int64_t media_us) const { return base_ + media_us + paused_us_; }

  MovieInfo info_;
  Status status_;
  void* h_ = nullptr;
  int64_t base_ = ZEVA_current_sys_usec(), paused_us_ = 0, frames_ = 0, samples_ = 0;
  int stride_ = info_.src_width * (info_.src_pix_fmt == AV_PIX_FMT_YUV420P ? 1 : 4);
  int accepted_video_ = 0;
  std::vector<uint8_t> picture_ = std::vector<uint8_t>(size_t(stride_) * info_.src_height * 2, 128);
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H
