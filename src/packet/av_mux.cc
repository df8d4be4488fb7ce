#include "packet/av_mux.h"

#include <cinttypes>
#include <mutex>

extern "C" {
#include <libavformat/avformat.h>
}

#include "log/logger.h"
#include "output/network_io.h"
#include "output/output_url.h"
#include "packet/aac_encoder.h"
#include "packet/aac_to_opus.h"
#include "packet/annexb_filter.h"

namespace zeva {
namespace {

bool IsUnset(int64_t begin) { return begin == -1 || begin == -2; }

}  // namespace

AVMux::AVMux(const MovieInfo2& info, ZEVA2_StatusCallback status_cb, void* user,
             const Clock& clock)
    : clock_(clock),
      info_(info),
      status_cb_(status_cb),
      user_(user),
      keep_on_error_(info.keep_recording_on_output_error != 0) {
  info_.url[sizeof(info_.url) - 1] = '\0';
  info_.moov[sizeof(info_.moov) - 1] = '\0';
  info_.meta[sizeof(info_.meta) - 1] = '\0';
  urls_.emplace_back(info_.url);
  for (const char* other : info.others) {
    if (other != nullptr) urls_.emplace_back(other);
  }
  // The record's pointers are the host's; nothing below reads them later.
  for (const char*& other : info_.others) other = nullptr;
  info_.sample_format = nullptr;
  info_.sps = info_.pps = info_.extradata = nullptr;
}

AVMux::~AVMux() {
  ZEVA_LOG(kLogInfo, "~ AVMux()");
  stop();
  ZEVA_LOG(kLogInfo, "clear(): begin");
  input_.clear();
  outputs_.clear();
  ZEVA_LOG(kLogInfo, "clear(): end");
}

bool AVMux::start(const MovieInfo2& info) {
  ZEVA_LOG(kLogDebug, "------[movie_info]------------");
  ZEVA_LOG(kLogDebug, "url: %s", info_.url);
  ZEVA_LOG(kLogDebug, "moov: %s", info_.moov);
  for (size_t i = 1; i < urls_.size(); ++i) {
    ZEVA_LOG(kLogDebug, "others[%d]: %s", static_cast<int>(i - 1), urls_[i].c_str());
  }
  const bool aac = info.acodec == 1 || info.acodec == 2;
  ZEVA_LOG(kLogDebug, "external acodec: %s", aac ? "aac" : "(null)");
  ZEVA_LOG(kLogDebug, "external vcodec: %s", info.vcodec == 1 ? "h264" : "(null)");

  if (info.acodec == 2) {
    const AacSettings settings{info.sample_rate, info.channels, info.sample_format, info.bitrate};
    aac_encoder_ = AACEncoder::create(settings, AACEncoder::kGlobalHeader);
    if (!aac_encoder_) {
      ZEVA_LOG(kLogError, "create AACEncoder failed ...");
      pop_status(-10, "create AACEncoder failed");
      return false;
    }
  }
  if (info.extradata_len != 0 || info.sps_len != 0) {
    const ParameterSets sets{info.sps, info.sps_len, info.pps, info.pps_len,
                                   info.extradata, info.extradata_len};
    annexb_ = h264::AnnexBFilter::create(sets);
    if (!annexb_) {
      ZEVA_LOG(kLogError, "create AnnexB-filter failed ...");
      pop_status(-11, "create AnnexB-filter failed");
      return false;
    }
  }
  input_.name_inputs(aac ? "aac" : nullptr, info.vcodec == 1 ? "h264" : nullptr);
  worker_ = std::thread(&AVMux::WorkerMain, this);
  return true;
}

void AVMux::pop_status(int code, const char* msg, bool keep_going) {
  ZEVA_LOG(kLogError, "pop_status: [code=%d] *** msg=%s", code, msg);
  if (code != 0 && !keep_going) aborted_ = true;
  if (status_cb_ != nullptr) status_cb_(code, msg, user_);
}

int64_t AVMux::Rebase(int64_t usec, std::atomic<int64_t>& begin, std::atomic<int64_t>& time) {
  if (IsUnset(begin.load())) begin = usec;
  const int64_t t = usec - (begin.load() + pause_drift_.load());
  if (t > 0) time = t;
  return t;
}

bool AVMux::pause() {
  pause_start_ = clock_.NowUs();
  return true;
}

bool AVMux::resume() {
  const int64_t start = pause_start_.load();
  if (start <= 0) return false;
  pause_drift_ += clock_.NowUs() - start;
  pause_start_ = 0;
  return true;
}

int64_t AVMux::movie_time() const {
  const int64_t video = video_time_.load();
  return video > 0 ? video : audio_time_.load();
}

bool AVMux::write_video_packet(const uint8_t* data, int nbytes, int64_t usec) {
  if (aborted_) {
    ZEVA_LOG(kLogDebug, "[write h264] nbytes=%d, usec=%" PRId64 "  (%s)", nbytes, usec, "aborted");
    return false;
  }
  if (info_.vcodec != 1) return false;
  ++total_video_npkt_;
  const int64_t t = Rebase(usec, video_begin_, video_time_);
  ZEVA_LOG(kLogDebug,
           "Write-Video() : in_pts=%" PRId64 ",  begin=%" PRId64 ", pause_drift=%" PRId64
           ", --> usec=%" PRId64,
           usec, video_begin_.load(), pause_drift_.load(), t);
  if (!annexb_ || data == nullptr || nbytes < 1) return input_.video.push_data(data, nbytes, t);
  return annexb_->filter(data, nbytes, t, [this](const uint8_t* d, int n, int64_t pts) {
    input_.video.push_data(d, n, pts);
    return true;
  });
}

bool AVMux::write_audio_packet(const uint8_t* data, int nbytes, int64_t usec) {
  if (aborted_) {
    ZEVA_LOG(kLogDebug, "[write aac] nbytes=%d, usec=%" PRId64 "  (%s)", nbytes, usec, "aborted");
    return false;
  }
  if (info_.acodec != 1 && info_.acodec != 2) return false;
  ++total_audio_npkt_;
  const int64_t t = Rebase(usec, audio_begin_, audio_time_);
  // The begin shown is video's; the computation above uses audio's.
  ZEVA_LOG(kLogDebug,
           "Write-Audio() : in_pts=%" PRId64 ",  begin=%" PRId64 ", pause_drift=%" PRId64
           ", --> usec=%" PRId64,
           usec, video_begin_.load(), pause_drift_.load(), t);
  if (aac_encoder_) {
    ZEVA_LOG(3, "Warnning: input AAC packet, dose not need AACEncoder...");
    return false;
  }
  return input_.audio.push_data(data, nbytes, t);
}

bool AVMux::write_audio_pcm(uint8_t* const* planes, int nb_samples, int64_t usec) {
  if (aborted_) {
    ZEVA_LOG(kLogDebug, "[write pcm] nbytenb_sampless=%d, usec=%" PRId64 "  (%s)", nb_samples,
             usec, "aborted");
    return false;
  }
  if (info_.acodec != 1 && info_.acodec != 2) return false;
  ++total_audio_npkt_;
  if (is_paused()) return false;  // PCM written during a pause is dropped
  const int64_t t = Rebase(usec, audio_begin_, audio_time_);
  if (!aac_encoder_) {
    ZEVA_LOG(kLogError, "input pcm, aac==nullptr, must exist AACEncoder ...");
    return false;
  }
  return aac_encoder_->encode(planes, nb_samples, t,
                              [this](const uint8_t* d, int n, int64_t pts) {
                                return input_.audio.push_data(d, n, pts);
                              });
}

void AVMux::stop() {
  if (!worker_.joinable()) return;
  ZEVA_LOG(kLogInfo, "flush video pkt queue ...");
  input_.video.push_data(nullptr, 0, 0);
  ZEVA_LOG(kLogInfo, "flush audio pkt queue ...");
  if (aac_encoder_) {
    aac_encoder_->encode(nullptr, 0, 0, [this](const uint8_t* d, int n, int64_t pts) {
      return input_.audio.push_data(d, n, pts);
    });
  } else {
    input_.audio.push_data(nullptr, 0, 0);
  }
  aborted_ = true;
  ZEVA_LOG(kLogInfo, "abort pkt queues ...");
  input_.que_abort();
  ZEVA_LOG(kLogInfo, "release muxer later ing... (%p)", static_cast<void*>(this));
  worker_.join();
}

void AVMux::WorkerMain() {
  bool network = false;
  for (const std::string& url : urls_) network = network || IsNetworkUrl(url.c_str());
  if (network) {
    static std::once_flag once;
    std::call_once(once, [] { avformat_network_init(); });
  }
  pop_status(0, "start success");
  const bool aac = info_.acodec == 1 || info_.acodec == 2;
  const Status in = input_.open_inputs(aac ? "aac" : nullptr, info_.vcodec == 1 ? "h264" : nullptr);
  if (!in.ok) {
    pop_status(in.code, in.message.c_str());
  } else if (OpenOutputs()) {
    input_.run_demux(&AVMux::Deliver, this);
    for (auto& out : outputs_) {
      if (AacToOpus* transcoder = out->transcoder()) {
        OutputContext* o = out.get();
        transcoder->transcode(nullptr, AVRational{1, 1000000},
                              [o](AVPacket* p, const AVRational& tb) {
                                return o->enqueue(p, tb, o->audio_index());
                              });
      }
      out->close();
    }
  }
  ZEVA_LOG(kLogInfo, "thread finished");
  aborted_ = true;
}

bool AVMux::OpenOutputs() {
  const AVStream* video = input_.video_ic() != nullptr && input_.video_ic()->nb_streams > 0
                              ? input_.video_ic()->streams[0]
                              : nullptr;
  const AVStream* audio = input_.audio_ic() != nullptr && input_.audio_ic()->nb_streams > 0
                              ? input_.audio_ic()->streams[0]
                              : nullptr;
  bool index_placed = info_.moov[0] == '\0';  // nothing to place without a path
  for (const std::string& url : urls_) {
    const char* snapshot = nullptr;
    if (!index_placed && url.size() >= 4 && EndsWithNoCase(url.c_str(), ".mp4")) {
      snapshot = info_.moov;
      index_placed = true;
    }
    auto out = std::make_unique<OutputContext>();
    const Status s = out->open(video, audio, url.c_str(), snapshot, info_.meta, info_.timeout_sec,
                               [this](int code, const std::string& message) {
                                 pop_status(code, message.c_str(), keep_on_error_);
                               });
    if (!s.ok) {
      out.reset();
      pop_status(s.code, s.message.c_str(), keep_on_error_);
      if (!keep_on_error_) return false;
      continue;
    }
    outputs_.push_back(std::move(out));
  }
  if (outputs_.empty()) {
    pop_status(-33, "no valid output url");
    return false;
  }
  return true;
}

int AVMux::Deliver(AVPacket* packet, const AVRational& time_base, const char* name,
                   void* user) {
  auto* self = static_cast<AVMux*>(user);
  return route(packet, time_base, name, self->outputs_, self->keep_on_error_);
}

}  // namespace zeva
