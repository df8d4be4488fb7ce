// A host of the classic interface for tests that see only <zeva/zeva.h>:
// settings, the status callback and a feeder of pictures and PCM.
#ifndef ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H
#define ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H

#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

namespace zeva::test {

// Every report of the status callback, which may come from library threads.
class Status {
 public:
  struct Report {
    int code = -1000;  // -1000: nothing reported
    std::string message;
    std::thread::id thread;
  };
  static void Callback(int code, const char* message, void* user) {
    auto* self = static_cast<Status*>(user);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->reports_.push_back({code, message != nullptr ? message : "", std::this_thread::get_id()});
    self->cv_.notify_all();
  }
  // Waits up to `seconds` for a report (with `failure`, for a failure); then
  // the first failure, else the first report.
  Report Wait(double seconds = 0, bool failure = false) {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
      return std::any_of(reports_.begin(), reports_.end(),
                         [&](const Report& r) { return !failure || r.code != 0; });
    });
    for (const Report& r : reports_)
      if (r.code != 0) return r;
    return reports_.empty() ? Report{} : reports_[0];
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mu_);
    return reports_.size();
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<Report> reports_;
};

inline MovieInfo Settings(const std::string& url, int w = 320, int h = 240) {
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
  info.audio_bitrate = 128;
  info.src_sample_rate = 44100;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_S16;
  info.video_bitrate = 2000;
  info.width = info.src_width = w;
  info.height = info.src_height = h;
  info.fps = 30;
  info.gop_size = 60;
  info.src_pix_fmt = AV_PIX_FMT_BGRA;
  info.pix_fmt = AV_PIX_FMT_YUV420P;
  info.colorspace = 2;
  info.preset = QL_ULTRAFAST;
  info.tune = TL_ZEROLATENCY;
  return info;
}

// A host recording faster than real time: its stamps are the library's clock
// at start plus media time, plus the real time it spent paused.
class Host {
 public:
  // Starts recording; with `async` the start runs on the library's thread
  // (wait for it with status().Wait()).
  explicit Host(const MovieInfo& info, MovieInfo* effective = nullptr, bool async = false)
      : info_(info) {
    h_ = ZEVA_start(info, &Status::Callback, &status_, effective, async);
    base_ = ZEVA_current_sys_usec();
    const bool yuv = info.src_pix_fmt == AV_PIX_FMT_YUV420P;
    stride_ = info.src_width * (yuv ? 1 : 4);
    picture_.resize(size_t(stride_) * info.src_height * (yuv ? 2 : 1));
  }
  ~Host() { ZEVA_stop(&h_); }
  void* handle() const { return h_; }
  Status& status() { return status_; }
  // Stops recording (once; the destructor does it otherwise).
  void Stop() { ZEVA_stop(&h_); }

  // Feeds pictures and 10 ms PCM chunks, in time order, from the media time
  // reached so far up to `until_s`; with `silent`, pictures only and then one
  // null PCM call that fills the gap with silence.
  void FeedUntil(double until_s, bool silent = false) {
    const int64_t until_us = static_cast<int64_t>(until_s * 1e6);
    while (true) {
      const int64_t next_video = frames_ * 1000000 / info_.fps;
      const int64_t next_audio = samples_ * 1000000 / info_.src_sample_rate;
      if (std::min(next_video, silent ? until_us : next_audio) >= until_us) break;
      if (silent || next_video <= next_audio) {
        for (size_t i = 0; i < picture_.size(); i += 64) picture_[i] = uint8_t(i / 64 + 3 * frames_);
        accepted_video_ += ZEVA_write_video_bgra(h_, picture_.data(), int(picture_.size()),
                                                 Stamp(next_video), stride_);
        ++frames_;
        continue;
      }
      const int n = info_.src_sample_rate / 100;
      pcm_.resize(size_t(n) * 2);
      for (int i = 0; i < n; ++i) {
        const double t = double(samples_ + i) / info_.src_sample_rate;
        pcm_[2 * i] = pcm_[2 * i + 1] = int16_t(6000 * std::sin(2 * M_PI * 440.0 * t));
      }
      ZEVA_write_audio_pcm(h_, pcm_.data(), int(pcm_.size() * sizeof(int16_t)), Stamp(next_audio));
      samples_ += n;
    }
    if (silent) {
      samples_ = until_us * info_.src_sample_rate / 1000000;
      ZEVA_write_audio_pcm(h_, nullptr, 0, Stamp(until_us));
    }
  }
  // Pause for `real_ms` of real time while the media clock moves on by the
  // same (measured) amount, as a live host's would.
  void PauseFor(int real_ms) {
    const int64_t t0 = ZEVA_current_sys_usec();
    ASSERT_TRUE(ZEVA_pause(h_));
    EXPECT_TRUE(ZEVA_is_paused(h_));
    EXPECT_FALSE(ZEVA_write_video_bgra(h_, picture_.data(), int(picture_.size()),
                                       ZEVA_current_sys_usec(), stride_));  // refused while paused
    std::this_thread::sleep_for(std::chrono::milliseconds(real_ms));  // the host's pause
    ASSERT_TRUE(ZEVA_resume(h_));
    paused_us_ += ZEVA_current_sys_usec() - t0;
  }
  int accepted_video() const { return accepted_video_; }
  int64_t fed_samples() const { return samples_; }

 private:
  int64_t Stamp(int64_t media_us) const { return base_ + media_us + paused_us_; }

  MovieInfo info_;
  Status status_;
  void* h_ = nullptr;
  int64_t base_ = 0, paused_us_ = 0, frames_ = 0, samples_ = 0;
  int stride_ = 0, accepted_video_ = 0;
  std::vector<uint8_t> picture_;
  std::vector<int16_t> pcm_;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_CLASSIC_HOST_H
