// The exported classic recording interface: plain functions around an opaque
// handle (a MovieCapture2). Nothing may throw across them, so each one ends
// in a catch that logs and returns the function's neutral value.
#include <memory>
#include <new>

extern "C" {
#include <libavutil/mathematics.h>
}

#include "classic/movie_capture2.h"
#include "encode/audio_enc.h"
#include "encode/video_enc.h"
#include "log/api_guard.h"
#include "log/logger.h"
#include "output/zv_av_writer.h"
#include "zeva/classic.h"

namespace {

using zeva::MovieCapture2;

MovieCapture2* Capture(void* h) { return static_cast<MovieCapture2*>(h); }

template <typename T, typename Fn>
T Guard(void* h, T neutral, const char* what, Fn fn) {
  return zeva::GuardHandle<MovieCapture2>(h, neutral, what, fn);
}

}  // namespace

void* ZEVA_start(const MovieInfo& info, ZEVA_StatusCallback cb, void* user, MovieInfo* effective,
                 bool async) {
  try {
    std::unique_ptr<ZV::ZV_AVWriter> writer(new (std::nothrow) ZV::ZV_AVWriter(60, 1000, info.url));
    // The capture's memory is allocated before the writer is handed over, so
    // a failure here cannot lose it.
    auto* capture = new MovieCapture2(writer.release());
    const MovieInfo copy = info;
    capture->start(&copy, cb, user, async);
    if (effective != nullptr) *effective = capture->get_mInfo(nullptr);
    return capture;
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA_start: %s", e.what());
  }
  return nullptr;
}

void ZEVA_stop(void** handle) {
  ZEVA_LOG(zeva::kLogInfo, "--- before stop");
  if (handle == nullptr || *handle == nullptr) return;
  MovieCapture2* capture = Capture(*handle);
  *handle = nullptr;
  try {
    capture->stop();
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA_stop: %s", e.what());
  }
  delete capture;
  ZEVA_LOG(zeva::kLogInfo, "--- stop OK");
}

bool ZEVA_pause(void* h) {
  return Guard(h, false, "ZEVA_pause", [](MovieCapture2* c) { return c->pause(); });
}

bool ZEVA_resume(void* h) {
  return Guard(h, false, "ZEVA_resume", [](MovieCapture2* c) { return c->resume(); });
}

bool ZEVA_is_paused(void* h) {
  return Guard(h, false, "ZEVA_is_paused", [](MovieCapture2* c) { return c->is_paused(); });
}

int64_t ZEVA_movie_time(void* h) {
  return Guard(h, int64_t{0}, "ZEVA_movie_time", [](MovieCapture2* c) { return c->movie_time(); });
}

int64_t ZEVA_last_usec_pts(void* h) {
  return Guard(h, int64_t{0}, "ZEVA_last_usec_pts", [](MovieCapture2* c) -> int64_t {
    if (c->has_audio() && c->last_audio_us() >= 0) return c->last_audio_us();
    if (c->has_video()) return c->last_video_us();
    return -1;
  });
}

int64_t ZEVA_current_sys_usec() { return zeva::sys_usec(); }

bool ZEVA_write_video_bgra(void* h, void* data, int size, int64_t pts_us, int stride) {
  return Guard(h, false, "ZEVA_write_video_bgra", [&](MovieCapture2* c) {
    if (c->get_mInfo(nullptr).disable_video) {
      qel::err_print(stderr, "--- disable video, ignore bgra frame\n");
      std::fflush(stderr);
      return false;
    }
    return c->write_bgra(static_cast<const uint8_t*>(data), size, pts_us, stride);
  });
}

bool ZEVA_write_audio_pcm(void* h, void* data, int bytes, int64_t pts_us) {
  return Guard(h, false, "ZEVA_write_audio_pcm", [&](MovieCapture2* c) {
    if (c->get_mInfo(nullptr).disable_audio) {
      qel::err_print(stderr, "--- disable audio, ignore pcm frame\n");
      std::fflush(stderr);
      return false;
    }
    return c->write_pcm(static_cast<const uint8_t*>(data), bytes, pts_us);
  });
}

bool ZEVA_write_video_frame(void* h, AVFrame* frame, const AVRational& tb) {
  return Guard(h, false, "ZEVA_write_video_frame",
               [&](MovieCapture2* c) { return c->write_video_frame(frame, &tb); });
}

bool ZEVA_write_audio_frame(void* h, AVFrame* frame, const AVRational& tb) {
  return Guard(h, false, "ZEVA_write_audio_frame",
               [&](MovieCapture2* c) { return c->write_audio_frame(frame, &tb); });
}

AVFrame* ZEVA_video_dst_frame(void* h) {
  return Guard(h, static_cast<AVFrame*>(nullptr), "ZEVA_video_dst_frame",
               [](MovieCapture2* c) { return c->video_stream().frame.get(); });
}

AVFrame* ZEVA_audio_dst_frame(void* h) {
  return Guard(h, static_cast<AVFrame*>(nullptr), "ZEVA_audio_dst_frame",
               [](MovieCapture2* c) { return c->audio_stream().frame.get(); });
}

bool ZEVA_add_video_filter(void* h, FilterBase* f) {
  return Guard(h, false, "ZEVA_add_video_filter", [&](MovieCapture2* c) {
    if (c->video_enc() != nullptr) c->video_enc()->set_filter(f);
    return true;
  });
}

bool ZEVA_add_audio_filter(void* h, FilterBase* f) {
  return Guard(h, false, "ZEVA_add_audio_filter", [&](MovieCapture2* c) {
    if (c->audio_enc() != nullptr) c->audio_enc()->set_filter(f);
    return true;
  });
}

AVFrame* ZEVA_generate_testing_vFrame(void* h, const AVRational& tb) {
  return Guard(h, static_cast<AVFrame*>(nullptr), "ZEVA_generate_testing_vFrame",
               [&](MovieCapture2* c) -> AVFrame* {
                 if (c->video_enc() == nullptr) return nullptr;
                 return c->video_enc()->generate_test_frame(&c->video_stream(), tb);
               });
}

AVFrame* ZEVA_generate_testing_aFrame(void* h, const AVRational& tb) {
  return Guard(h, static_cast<AVFrame*>(nullptr), "ZEVA_generate_testing_aFrame",
               [&](MovieCapture2* c) -> AVFrame* {
                 if (c->audio_enc() == nullptr) return nullptr;
                 return c->audio_enc()->generate_test_frame(&c->audio_stream(), tb);
               });
}

bool ZEVA_get_mInfo(void* h, MovieInfo* out) {
  return Guard(h, false, "ZEVA_get_mInfo", [&](MovieCapture2* c) {
    bool started = false;
    const MovieInfo info = c->get_mInfo(&started);
    if (out != nullptr) *out = info;
    return started;
  });
}
