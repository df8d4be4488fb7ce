// The exported packet recording interface: plain functions around an opaque
// handle (an AVMux). Nothing may throw across them, so each one ends in a
// catch that logs and returns the function's neutral value.
#include <cinttypes>
#include <cstddef>
#include <memory>
#include <new>

#include "log/api_guard.h"
#include "log/logger.h"
#include "packet/av_mux.h"
#include "zeva/packet.h"

namespace {

// MovieInfo2 crosses the interface by reference and is copied whole, so
// hosts built against an earlier header depend on its layout.
static_assert(sizeof(void*) == 8, "MovieInfo2's layout is defined for 64-bit targets");
static_assert(offsetof(MovieInfo2, moov) == 512);
static_assert(offsetof(MovieInfo2, meta) == 1024);
static_assert(offsetof(MovieInfo2, others) == 1280);
static_assert(offsetof(MovieInfo2, vcodec) == 1312);
static_assert(offsetof(MovieInfo2, acodec) == 1316);
static_assert(offsetof(MovieInfo2, sample_rate) == 1320);
static_assert(offsetof(MovieInfo2, channels) == 1324);
static_assert(offsetof(MovieInfo2, sample_format) == 1328);
static_assert(offsetof(MovieInfo2, bitrate) == 1336);
static_assert(offsetof(MovieInfo2, pps) == 1344);
static_assert(offsetof(MovieInfo2, sps) == 1352);
static_assert(offsetof(MovieInfo2, pps_len) == 1360);
static_assert(offsetof(MovieInfo2, sps_len) == 1364);
static_assert(offsetof(MovieInfo2, extradata) == 1368);
static_assert(offsetof(MovieInfo2, extradata_len) == 1376);
static_assert(offsetof(MovieInfo2, keep_recording_on_output_error) == 1380);
static_assert(offsetof(MovieInfo2, timeout_sec) == 1384);
static_assert(offsetof(MovieInfo2, reserved) == 1388);
static_assert(sizeof(MovieInfo2) == 1536);

using zeva::AVMux;

template <typename T, typename Fn>
T Guard(void* h, T neutral, const char* what, Fn fn) {
  return zeva::GuardHandle<AVMux>(h, neutral, what, fn);
}

}  // namespace

void* ZEVA2_start(const MovieInfo2& info, ZEVA2_StatusCallback status_cb, void* user) {
  try {
    auto mux = std::make_unique<AVMux>(info, status_cb, user);
    if (!mux->start(info)) return nullptr;
    return mux.release();
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA2_start: %s", e.what());
  }
  return nullptr;
}

void ZEVA2_stop(void** handle) {
  if (handle == nullptr || *handle == nullptr) {
    ZEVA_LOG(zeva::kLogInfo, "Muxer already Stopped.");
    return;
  }
  auto* mux = static_cast<AVMux*>(*handle);
  *handle = nullptr;
  ZEVA_LOG(zeva::kLogInfo,
           "Muxer Stop() ing... (%p);  total_video_npkt=%" PRId64 ", total_audio_npkt=%" PRId64,
           static_cast<void*>(mux), mux->total_video_packets(), mux->total_audio_packets());
  try {
    mux->stop();
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA2_stop: %s", e.what());
  }
  delete mux;
  ZEVA_LOG(zeva::kLogInfo, "delete muxer finished");
}

bool ZEVA2_pause(void* handle) {
  return Guard(handle, false, "ZEVA2_pause", [](AVMux* m) { return m->pause(); });
}

bool ZEVA2_resume(void* handle) {
  return Guard(handle, false, "ZEVA2_resume", [](AVMux* m) { return m->resume(); });
}

bool ZEVA2_is_paused(void* handle) {
  return Guard(handle, false, "ZEVA2_is_paused", [](AVMux* m) { return m->is_paused(); });
}

int64_t ZEVA2_movie_time(void* handle) {
  return Guard(handle, int64_t{-1}, "ZEVA2_movie_time", [](AVMux* m) { return m->movie_time(); });
}

bool ZEVA2_write_video_packet(void* handle, void* data, int nbytes, int64_t usec) {
  if (handle == nullptr) {
    ZEVA_LOG(zeva::kLogDebug, "[write h264] nbytes=%d, usec=%" PRId64 "  (%s)", nbytes, usec,
             "muxer is null");
    return false;
  }
  return Guard(handle, false, "ZEVA2_write_video_packet", [&](AVMux* m) {
    return m->write_video_packet(static_cast<const uint8_t*>(data), nbytes, usec);
  });
}

bool ZEVA2_write_audio_packet(void* handle, void* data, int nbytes, int64_t usec) {
  if (handle == nullptr) {
    ZEVA_LOG(zeva::kLogDebug, "[write aac] nbytes=%d, usec=%" PRId64 "  (%s)", nbytes, usec,
             "muxer is null");
    return false;
  }
  return Guard(handle, false, "ZEVA2_write_audio_packet", [&](AVMux* m) {
    return m->write_audio_packet(static_cast<const uint8_t*>(data), nbytes, usec);
  });
}

bool ZEVA2_write_audio_pcm(void* handle, uint8_t* const* planes, int nb_samples, int64_t usec) {
  if (handle == nullptr) {
    ZEVA_LOG(zeva::kLogDebug, "[write pcm] nbytenb_sampless=%d, usec=%" PRId64 "  (%s)",
             nb_samples, usec, "muxer is null");
    return false;
  }
  return Guard(handle, false, "ZEVA2_write_audio_pcm", [&](AVMux* m) {
    return m->write_audio_pcm(planes, nb_samples, usec);
  });
}
