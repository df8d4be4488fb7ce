// zeva push: records an H.264 elementary stream and an ADTS AAC stream
// through the packet interface, as a host with its own encoders would: one
// access unit or AAC frame per call, stamped on the host's clock.
#include "push.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <zeva/zeva.h>

#include "packet/es_splitter.h"

namespace zeva_tool {
namespace {

constexpr size_t kMaxOthers = 4;

struct PushOptions {
  std::string video, audio, out, index;
  std::vector<std::string> also;
  int fps = 30;
  int timeout_sec = 10;
  bool realtime = false;
};

struct PushStatus {
  std::mutex mu;
  int code = 0;
  std::string message;
  bool failed = false;
};

void OnPushStatus(int code, const char* message, void* user) {
  if (code == 0) return;  // "start success"
  auto* st = static_cast<PushStatus*>(user);
  std::lock_guard<std::mutex> lock(st->mu);
  std::fprintf(stderr, "zeva: %s (code %d)\n", message != nullptr ? message : "", code);
  if (!st->failed) {
    st->failed = true;
    st->code = code;
    st->message = message != nullptr ? message : "";
  }
}

bool ReadAll(const std::string& path, std::vector<uint8_t>* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

std::string ParsePush(int argc, char** argv, PushOptions* o) {
  std::vector<std::string> positional;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--realtime") {
      o->realtime = true;
      continue;
    }
    if (arg.size() > 1 && arg[0] == '-') {
      if (i + 1 == argc) return "option " + arg + " needs a value";
      const std::string value = argv[++i];
      char* end = nullptr;
      const long n = std::strtol(value.c_str(), &end, 10);
      const bool is_int = end != value.c_str() && *end == '\0';
      if (arg == "--also") {
        if (value.empty() || o->also.size() == kMaxOthers) return "at most 4 non-empty --also URLs";
        o->also.push_back(value);
      } else if (arg == "--index") {
        if (value.empty() || value.size() >= sizeof(MovieInfo2::moov)) return "bad --index: " + value;
        o->index = value;
      } else if (arg == "--fps") {
        if (!is_int || n < 1 || n > 240) return "bad --fps: " + value;
        o->fps = static_cast<int>(n);
      } else if (arg == "--timeout") {
        if (!is_int || n < 0 || n > 3600) return "bad --timeout: " + value;
        o->timeout_sec = static_cast<int>(n);
      } else {
        return "unknown option " + arg;
      }
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() != 3) return "push takes VIDEO.h264 AUDIO.aac OUT";
  o->video = positional[0];
  o->audio = positional[1];
  o->out = positional[2];
  return o->out.size() < sizeof(MovieInfo2::url) ? "" : "output name too long";
}

// The sampling rate an ADTS header declares; every frame holds 1024 samples.
int AdtsSampleRate(const uint8_t* header) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  const int index = (header[2] >> 2) & 0x0f;
  return index < 13 ? kRates[index] : 44100;
}

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int sig) {
  g_stop = sig;
  std::signal(sig, SIG_DFL);  // a second signal ends the program at once
}

}  // namespace

int Push(int argc, char** argv) {
  PushOptions o;
  const std::string error = ParsePush(argc, argv, &o);
  if (!error.empty()) {
    std::fprintf(stderr, "zeva: %s (see 'zeva --help')\n", error.c_str());
    return 2;
  }
  std::vector<uint8_t> video, audio;
  if (!ReadAll(o.video, &video) || !ReadAll(o.audio, &audio)) {
    std::fprintf(stderr, "zeva: cannot read %s or %s\n", o.video.c_str(), o.audio.c_str());
    return 1;
  }
  const std::vector<zeva::EsSpan> units = zeva::SplitAnnexB(video.data(), video.size());
  const std::vector<zeva::EsSpan> frames = zeva::SplitAdts(audio.data(), audio.size());
  if (units.empty() && frames.empty()) {
    std::fprintf(stderr, "zeva: no H.264 access unit and no ADTS frame found\n");
    return 1;
  }

  MovieInfo2 info{};
  std::snprintf(info.url, sizeof info.url, "%s", o.out.c_str());
  std::snprintf(info.moov, sizeof info.moov, "%s", o.index.c_str());
  for (size_t i = 0; i < o.also.size(); ++i) info.others[i] = o.also[i].c_str();
  info.vcodec = units.empty() ? 0 : 1;
  info.acodec = frames.empty() ? 0 : 1;
  info.timeout_sec = o.timeout_sec;

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);
  PushStatus status;
  const auto wall0 = std::chrono::steady_clock::now();
  void* h = ZEVA2_start(info, OnPushStatus, &status);
  if (h == nullptr) return 1;

  // Both streams in timestamp order on one clock that starts now.
  const int64_t t0 = ZEVA_current_sys_usec();
  const bool tty = isatty(STDERR_FILENO) == 1;
  size_t v = 0, a = 0;
  int64_t audio_us = 0;
  int64_t bytes = 0;
  int64_t last_shown = -1;
  while (g_stop == 0) {
    {
      std::lock_guard<std::mutex> lock(status.mu);
      if (status.failed) break;
    }
    const int64_t video_us = static_cast<int64_t>(v) * 1000000 / o.fps;
    const bool video_next = v < units.size() && (a >= frames.size() || video_us <= audio_us);
    if (!video_next && a >= frames.size()) break;
    const int64_t at = video_next ? video_us : audio_us;
    if (o.realtime) {
      const int64_t wait = t0 + at - ZEVA_current_sys_usec();
      if (wait > 0) std::this_thread::sleep_for(std::chrono::microseconds(wait));
    }
    if (video_next) {
      const zeva::EsSpan& u = units[v++];
      ZEVA2_write_video_packet(h, video.data() + u.offset, static_cast<int>(u.size), t0 + at);
      bytes += static_cast<int64_t>(u.size);
    } else {
      const zeva::EsSpan& f = frames[a++];
      uint8_t* frame = audio.data() + f.offset;
      ZEVA2_write_audio_packet(h, frame, static_cast<int>(f.size), t0 + at);
      bytes += static_cast<int64_t>(f.size);
      audio_us = static_cast<int64_t>(a) * 1024 * 1000000 / AdtsSampleRate(frame);
    }
    if (tty && at / 100000 != last_shown) {
      last_shown = at / 100000;
      std::fprintf(stderr, "\rpushing %.1f s", static_cast<double>(at) / 1e6);
    }
  }
  if (tty) std::fprintf(stderr, "\r\033[K");
  ZEVA2_stop(&h);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall0;
  if (status.failed) return 1;
  if (g_stop != 0) std::fprintf(stderr, "zeva: interrupted\n");
  std::printf("zeva: pushed %zu video and %zu audio packets (%.1f MB) into %s in %.2f s\n", v, a,
              static_cast<double>(bytes) / 1e6, o.out.c_str(), wall.count());
  return g_stop != 0 ? 128 + g_stop : 0;
}

}  // namespace zeva_tool
