// zeva: records a generated moving picture and a tone through the library's
// classic interface, faster than real time.
//
// Pictures and sound are made here and stamped on a synthetic clock that
// starts at the library's clock and advances by exact frame and sample
// durations, so recording takes only as long as encoding does.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <zeva/zeva.h>

#include "push.h"

namespace {

// FFmpeg 5.1 (libavutil 57) enumeration values. MovieInfo stores them as
// plain ints, and this program does not include FFmpeg's headers.
constexpr int kPixFmtYuv420p = 0;          // AV_PIX_FMT_YUV420P
constexpr int kPixFmtBgra = 28;            // AV_PIX_FMT_BGRA
constexpr int kSampleFmtS16 = 1;           // AV_SAMPLE_FMT_S16
constexpr int kColorspaceUnspecified = 2;  // AVCOL_SPC_UNSPECIFIED: encoder default

constexpr int kSrcSampleRate = 44100;
constexpr int kChannels = 2;
constexpr int kChunkSamples = kSrcSampleRate / 100;  // 10 ms of PCM per call
constexpr size_t kMaxAlso = 3;                       // other_urls: three URLs, then null
constexpr size_t kMaxPath = sizeof(MovieInfo::url);  // url and moov_url, NUL included

// The options of each command, shared by its own help and by zeva --help.
#define ZEVA_RECORD_OPTIONS                                                    \
  "  --seconds N    length of the recording in seconds (default 5)\n"        \
  "  --size WxH     picture size, even numbers (default 1280x720)\n"         \
  "  --fps F        frames per second (default 30)\n"                        \
  "  --index PATH   write the crash-safe index of .mp4 outputs to PATH\n"    \
  "  --also URL     record to URL as well (up to 3 times)\n"                  \
  "  --timeout SEC  give up on a silent rtmp:// or rtsp:// server after SEC\n" \
  "                 seconds (default 10; 0 waits for ever, Ctrl-C still ends)\n"
#define ZEVA_HELP_OPTION "  -h, --help     show this help\n"

constexpr const char kRecordUsage[] =
    "usage: zeva record OUT [options]\n\n"
    "Records a generated moving picture and a tone into OUT (a file such as\n"
    "demo.mp4, or an rtmp:// or rtsp:// URL), faster than real time.\n\n"
    "options:\n" ZEVA_RECORD_OPTIONS ZEVA_HELP_OPTION;

constexpr const char kRepairUsage[] =
    "usage: zeva repair BROKEN INDEX OUT\n\n"
    "Rebuilds a playable OUT from a recording that ended without its trailer\n"
    "(BROKEN, an .mp4) and the index written beside it (INDEX). The container\n"
    "of OUT follows its name.\n\n"
    "options:\n" ZEVA_HELP_OPTION;

constexpr const char kUsage[] =
    "usage: zeva record OUT [options]\n"
    "       zeva repair BROKEN INDEX OUT\n"
    "       zeva push VIDEO.h264 AUDIO.aac OUT [options]\n"
    "       zeva --version | --help\n\n"
    "record: records a generated moving picture and a tone into OUT (a file\n"
    "such as demo.mp4, or an rtmp:// or rtsp:// URL), faster than real time.\n"
    ZEVA_RECORD_OPTIONS "\n"
    "repair: rebuilds a playable OUT from a recording that ended without its\n"
    "trailer (BROKEN, an .mp4) and the index written beside it (INDEX).\n\n"
    "push: records an H.264 and an AAC elementary stream through the packet\n"
    "interface ('zeva push --help' lists its options).\n\n"
    "options:\n"
    "  -h, --help     show this help; 'zeva COMMAND --help' shows one command's\n"
    "  --version      print the version of ZEVALib the program was built with\n";

struct Options {
  std::string out;
  double seconds = 5.0;
  int width = 1280, height = 720, fps = 30;
  std::string index;
  std::vector<std::string> also;  // outlive the recording: other_urls points into them
  int timeout_sec = 10;
};

// The main thread sleeps in poll() on this pipe while the start runs; the
// status callback and the signal handlers wake it by writing a byte.
int g_wake[2] = {-1, -1};

void Wake() {
  const char byte = 1;
  (void)!write(g_wake[1], &byte, 1);  // non-blocking: a full pipe wakes anyway
}

// Filled by the status callback, which may run on a thread of the library;
// the recording loop polls `failed`. The first failure is kept.
struct Status {
  std::atomic<bool> started{false};
  std::atomic<bool> failed{false};
  std::mutex mu;
  int code = 0;
  std::string message;
};

void OnStatus(int code, const char* message, void* user) {
  auto* status = static_cast<Status*>(user);
  if (code == 0) {  // "start OK"
    status->started.store(true);
  } else {
    std::lock_guard<std::mutex> lock(status->mu);
    if (!status->failed.load()) {
      status->code = code;
      status->message = message != nullptr ? message : "";
      status->failed.store(true);
    }
  }
  Wake();
}

volatile std::sig_atomic_t g_interrupted = 0;  // the signal's number

// The first Ctrl-C or SIGTERM ends the recording cleanly, so the movie gets
// its trailer, even while a server keeps the start waiting; a second one
// ends the program at once.
void OnInterrupt(int sig) {
  g_interrupted = sig;
  std::signal(sig, SIG_DFL);
  Wake();
}

// Waits until the start has succeeded or failed, or a signal came.
void WaitForStart(const Status& status) {
  while (!status.started.load() && !status.failed.load() && g_interrupted == 0) {
    pollfd p{g_wake[0], POLLIN, 0};
    if (poll(&p, 1, -1) > 0) {
      char buf[64];
      while (read(g_wake[0], buf, sizeof buf) > 0) {
      }
    }
  }
}

bool ParseInt(const std::string& s, int lo, int hi, int* out) {
  char* end = nullptr;
  const long v = std::strtol(s.c_str(), &end, 10);
  if (end == s.c_str() || *end != '\0' || v < lo || v > hi) return false;
  *out = static_cast<int>(v);
  return true;
}

// "WxH" with even sides, as 4:2:0 pictures need.
bool ParseSize(const std::string& s, int* w, int* h) {
  const size_t x = s.find('x');
  return x != std::string::npos && ParseInt(s.substr(0, x), 16, 8192, w) &&
         ParseInt(s.substr(x + 1), 16, 8192, h) && *w % 2 == 0 && *h % 2 == 0;
}

// Applies one "--name value" option; returns an error text or "".
std::string ApplyOption(const std::string& name, const std::string& value, Options* o) {
  if (name == "--seconds") {
    char* end = nullptr;
    o->seconds = std::strtod(value.c_str(), &end);
    if (end == value.c_str() || *end != '\0' || !(o->seconds > 0 && o->seconds <= 86400)) {
      return "bad --seconds: " + value;
    }
  } else if (name == "--size") {
    if (!ParseSize(value, &o->width, &o->height)) return "bad --size: " + value;
  } else if (name == "--fps") {
    if (!ParseInt(value, 1, 240, &o->fps)) return "bad --fps: " + value;
  } else if (name == "--index") {
    if (value.empty() || value.size() >= kMaxPath) return "bad --index: " + value;
    o->index = value;
  } else if (name == "--timeout") {
    if (!ParseInt(value, 0, 3600, &o->timeout_sec)) return "bad --timeout: " + value;
  } else if (name == "--also") {
    if (value.empty() || o->also.size() == kMaxAlso) return "at most 3 non-empty --also URLs";
    o->also.push_back(value);
  } else {
    return "unknown option " + name;
  }
  return "";
}

// Parses the arguments after "record" into `o`; returns an error text or "".
std::string ParseRecord(int argc, char** argv, Options* o) {
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.size() > 1 && arg[0] == '-') {
      if (i + 1 == argc) return "option " + arg + " needs a value";
      const std::string error = ApplyOption(arg, argv[++i], o);
      if (!error.empty()) return error;
    } else if (o->out.empty()) {
      o->out = arg;
    } else {
      return "more than one output: " + arg;
    }
  }
  if (o->out.empty()) return "no output given";
  return o->out.size() < kMaxPath ? "" : "output name too long";
}

MovieInfo BuildInfo(const Options& o) {
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", o.out.c_str());
  std::snprintf(info.moov_url, sizeof info.moov_url, "%s", o.index.c_str());
  for (size_t i = 0; i < o.also.size(); ++i) info.other_urls[i] = o.also[i].c_str();
  info.audio_bitrate = 128;
  info.src_sample_rate = kSrcSampleRate;
  info.sample_rate = 48000;
  info.channels = kChannels;
  info.sample_fmt = kSampleFmtS16;
  info.rc_mode = 0;  // average bit rate
  info.video_bitrate = 4000;
  info.width = info.src_width = o.width;
  info.height = info.src_height = o.height;
  info.fps = o.fps;
  info.gop_size = 2 * o.fps;
  info.src_pix_fmt = kPixFmtBgra;
  info.pix_fmt = kPixFmtYuv420p;
  info.colorspace = kColorspaceUnspecified;
  info.preset = QL_ULTRAFAST;
  info.profile = PL_BASELINE;
  info.tune = TL_ZEROLATENCY;
  info.timeout_sec = o.timeout_sec;
  return info;
}

// `pos` folded back and forth into [0, range].
int Bounce(int64_t pos, int range) {
  const int64_t p = pos % (2 * range);
  return static_cast<int>(p < range ? p : 2 * range - p);
}

// Frame `n`: a colour gradient drifting with time and a white box bouncing
// off the edges, so every frame differs and the motion is easy to follow.
void DrawPicture(int64_t n, int w, int h, uint8_t* bgra) {
  for (int y = 0; y < h; ++y) {
    uint8_t* px = bgra + static_cast<size_t>(y) * w * 4;
    const int g = Bounce(y * 255 / h + n, 255);
    for (int x = 0; x < w; ++x, px += 4) {
      const int xs = x * 255 / w;
      px[0] = static_cast<uint8_t>(Bounce(xs + 2 * n, 255));
      px[1] = static_cast<uint8_t>(g);
      px[2] = static_cast<uint8_t>((255 - xs + g) / 2);
      px[3] = 255;
    }
  }
  const int side = std::min(w, h) / 5;
  const int bx = Bounce(n * 7, w - side), by = Bounce(n * 5, h - side);
  for (int y = by; y < by + side; ++y) {
    std::memset(bgra + (static_cast<size_t>(y) * w + bx) * 4, 255, static_cast<size_t>(side) * 4);
  }
}

// `count` stereo samples from `first`: 440 Hz left, 660 Hz right, -12 dBFS.
void FillTone(int64_t first, int count, int16_t* pcm) {
  constexpr double kTwoPi = 6.283185307179586;
  for (int i = 0; i < count; ++i) {
    const double t = static_cast<double>(first + i) / kSrcSampleRate;
    pcm[2 * i] = static_cast<int16_t>(8192 * std::sin(kTwoPi * 440 * t));
    pcm[2 * i + 1] = static_cast<int16_t>(8192 * std::sin(kTwoPi * 660 * t));
  }
}

struct Fed {
  int64_t frames = 0;    // pictures offered
  int64_t accepted = 0;  // pictures that reached the encoder
  int64_t samples = 0;   // PCM sample frames offered
};

// Feeds pictures and 10 ms PCM chunks in time-stamp order until the wanted
// length is reached, the library reports a failure or the user interrupts.
// On a terminal, one self-overwriting progress line, ten times a second.
Fed Feed(void* h, int fps, const Options& o, const Status& status) {
  const int64_t want_frames = std::max<int64_t>(1, std::llround(o.seconds * fps));
  const int64_t want_samples = std::llround(o.seconds * kSrcSampleRate);
  const int64_t t0 = ZEVA_current_sys_usec();
  std::vector<uint8_t> picture(static_cast<size_t>(o.width) * o.height * 4);
  std::vector<int16_t> pcm(kChunkSamples * kChannels);
  const bool tty = isatty(STDERR_FILENO) == 1;
  auto next_progress = std::chrono::steady_clock::now();
  Fed fed;
  while (!status.failed.load() && g_interrupted == 0) {
    const bool video_left = fed.frames < want_frames, audio_left = fed.samples < want_samples;
    if (!video_left && !audio_left) break;
    const int64_t v_us = fed.frames * 1000000 / fps;
    const int64_t a_us = fed.samples * 1000000 / kSrcSampleRate;
    if (video_left && (!audio_left || v_us <= a_us)) {
      DrawPicture(fed.frames, o.width, o.height, picture.data());
      fed.accepted += ZEVA_write_video_bgra(h, picture.data(), static_cast<int>(picture.size()),
                                            t0 + v_us, o.width * 4);
      ++fed.frames;
    } else {
      const int n = static_cast<int>(std::min<int64_t>(kChunkSamples, want_samples - fed.samples));
      FillTone(fed.samples, n, pcm.data());
      ZEVA_write_audio_pcm(h, pcm.data(), n * kChannels * 2, t0 + a_us);
      fed.samples += n;
    }
    if (tty && std::chrono::steady_clock::now() >= next_progress) {
      next_progress = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
      std::fprintf(stderr, "\rrecording %.1f/%.1f s", static_cast<double>(v_us) / 1e6, o.seconds);
    }
  }
  if (tty) std::fprintf(stderr, "\r\033[K");
  return fed;
}

int Record(const Options& o) {
  if (pipe2(g_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::perror("zeva: pipe");
    return 1;
  }
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGTERM, OnInterrupt);
  std::signal(SIGPIPE, SIG_IGN);  // a dropped stream connection is a write error, not death
  Status status;
  MovieInfo used{};
  const auto wall0 = std::chrono::steady_clock::now();
  // Started on the library's thread, so that a signal can end a start that
  // a server holds: the stop below interrupts it.
  void* h = ZEVA_start(BuildInfo(o), OnStatus, &status, &used, /*async=*/true);
  if (h != nullptr) WaitForStart(status);
  const bool started = status.started.load() && !status.failed.load() && ZEVA_get_mInfo(h, &used);
  const int fps = used.fps > 0 ? used.fps : o.fps;
  const Fed fed = started ? Feed(h, fps, o, status) : Fed{};
  ZEVA_stop(&h);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall0;

  if (status.failed.load()) {
    std::lock_guard<std::mutex> lock(status.mu);
    // Reports name the output they concern, except the main output's
    // failure to open (code 11), whose text is fixed.
    if (status.code == 11) {
      std::fprintf(stderr, "zeva: %s: %s (code %d)\n", o.out.c_str(), status.message.c_str(),
                   status.code);
    } else {
      std::fprintf(stderr, "zeva: %s (code %d)\n", status.message.c_str(), status.code);
    }
    return 1;
  }
  if (g_interrupted != 0 && !started) {
    std::fprintf(stderr, "zeva: interrupted while starting\n");
    return 128 + g_interrupted;
  }
  if (!started) {
    std::fprintf(stderr, "zeva: could not start recording to %s\n", o.out.c_str());
    return 1;
  }
  if (g_interrupted != 0) std::fprintf(stderr, "zeva: interrupted\n");
  const double seconds = std::max(static_cast<double>(fed.frames) / fps,
                                  static_cast<double>(fed.samples) / kSrcSampleRate);
  std::printf("zeva: wrote %s (%.2f s, %lld frames, %dx%d@%d, %d Hz audio) in %.2f s\n",
              o.out.c_str(), seconds, static_cast<long long>(fed.accepted), used.width,
              used.height, fps, used.sample_rate, wall.count());
  return g_interrupted != 0 ? 128 + g_interrupted : 0;
}

// Progress bar and outcome of a repair; the callback runs on this thread.
struct RepairState {
  int code = 0;
  std::string message;
  double progress = 0;
  bool tty = false;
  std::string summary;  // the library's closing line: what was rebuilt and skipped
};

void OnRepairProgress(double progress, int code, const char* message, void* user) {
  auto* st = static_cast<RepairState*>(user);
  st->progress = progress;
  if (code != 0) {
    st->code = code;
    st->message = message;
  }
  if (st->tty) {
    const int filled = static_cast<int>(progress * 40);
    std::fprintf(stderr, "\rrepairing [%s%s] %3.0f%%", std::string(filled, '#').c_str(),
                 std::string(40 - filled, ' ').c_str(), progress * 100);
  }
}

int Repair(const char* broken, const char* index, const char* out) {
  RepairState state;
  state.tty = isatty(STDERR_FILENO) == 1;
  // The closing log line tells which index lines could not be used (the
  // damaged tail of a crashed recording); errors go to standard error.
  ZEVA_Set_Log_Callback([&state](const char*, int level, const char*, int, const char* msg) {
    const std::string text(msg);
    if (text.rfind(">> 执行完成", 0) == 0) {
      state.summary = text;
    } else if (level <= 1) {
      std::fprintf(stderr, "zeva: %s\n", msg);
    }
  });
  const auto t0 = std::chrono::steady_clock::now();
  const bool ok = ZEVA_StartRepair_sync(broken, index, out, OnRepairProgress, &state);
  ZEVA_Set_Log_Callback(nullptr);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - t0;
  if (state.tty) std::fprintf(stderr, "\r\033[K");
  if (!ok) {
    std::fprintf(stderr, "zeva: repair failed: %s (code %d)\n",
                 state.message.empty() ? "unknown error" : state.message.c_str(), state.code);
    return 1;
  }
  std::printf("zeva: repaired %s into %s in %.2f s (%.0f%% of the index used)\n", broken, out,
              wall.count(), state.progress * 100);
  if (!state.summary.empty()) std::printf("zeva: %s\n", state.summary.c_str());
  return 0;
}

// A usage error: one line on standard error and exit status 2.
int UsageError(const std::string& text) {
  std::fprintf(stderr, "zeva: %s (see 'zeva --help')\n", text.c_str());
  return 2;
}

bool IsHelp(const char* arg) {
  return std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  const bool help = argc > 2 && std::any_of(argv + 2, argv + argc, IsHelp);
  if (command.empty()) return UsageError("no command given");
  if (IsHelp(argv[1])) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (command == "--version") {
    std::printf("zeva %s\n", ZEVA_VERSION_STRING);
    return 0;
  }
  if (command == "repair") {
    if (help) {
      std::fputs(kRepairUsage, stdout);
      return 0;
    }
    for (int i = 2; i < argc; ++i) {
      if (argv[i][0] == '-' && argv[i][1] != '\0') {
        return UsageError(std::string("unknown option ") + argv[i]);
      }
    }
    if (argc != 5) return UsageError("repair takes BROKEN INDEX OUT");
    return Repair(argv[2], argv[3], argv[4]);
  }
  if (command == "push") {
    if (help) {
      std::fputs(zeva_tool::kPushUsage, stdout);
      return 0;
    }
    return zeva_tool::Push(argc, argv);
  }
  if (command[0] == '-') return UsageError("unknown option " + command);
  if (command != "record") return UsageError("unknown command '" + command + "'");
  if (help) {
    std::fputs(kRecordUsage, stdout);
    return 0;
  }
  Options options;
  const std::string error = ParseRecord(argc, argv, &options);
  if (!error.empty()) return UsageError(error);
  return Record(options);
}
