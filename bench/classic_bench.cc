// Classic recording against the ffmpeg CLI, through the public interface only.
//
//   classic_record_fps       30 s of 1280x720 BGRA at 30 fps with 44.1 kHz
//                            stereo s16 PCM, fed from memory through
//                            ZEVA_write_video_bgra / ZEVA_write_audio_pcm into
//                            an MP4 (libx264 ultrafast, 4000 kb/s average bit
//                            rate, yuv420p, key frame every 2 s; AAC 128 kb/s
//                            at 48 kHz), against `ffmpeg` encoding the same
//                            pictures and sound from raw files with the same
//                            settings. Frames per second of wall time, start
//                            to finished file on our side, process start to
//                            exit on ffmpeg's.
//   classic_record_peak_rss  peak resident memory of each side, each in a
//                            process of its own.
//   rtmp_delay_classic_median/_p99  the same pictures and sound streamed for
//                            60 s in real time (tune zerolatency) to a local
//                            nginx RTMP server: from a write call to the
//                            writer thread handing the packet encoded from
//                            it to FFmpeg. No peer: the "peer" is the aim.
//
// The pictures are a 2 s loop of 60 distinct frames played 15 times: the
// source in memory is 221 MB instead of 3.3 GB, and ffmpeg reads the same
// loop from its file with -stream_loop. The ultrafast preset keeps a single
// reference frame, so a picture seen two seconds earlier is as costly to
// encode as a new one.
//
// Peak memory: Linux starts a child's peak at the size of its parent when
// it forks (through exec as well), and the in-memory source would count as
// ours in this process. So both peaks come from children forked while this
// process is still small: the raw files are drawn one frame at a time, our
// child draws the same frames on the fly, and the timed run's source is
// loaded from the raw files only after both children have ended.
// The whole run takes about 25 s on two cores, and the delay run 60 s more.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <zeva/zeva.h>

#include "delay_probe.h"
#include "support/rtmp_server.h"

namespace {

// FFmpeg 5.1 (libavutil 57) enumeration values; MovieInfo stores them as
// plain ints and this program does not include FFmpeg's headers.
constexpr int kPixFmtYuv420p = 0;          // AV_PIX_FMT_YUV420P
constexpr int kPixFmtBgra = 28;            // AV_PIX_FMT_BGRA
constexpr int kSampleFmtS16 = 1;           // AV_SAMPLE_FMT_S16
constexpr int kColorspaceUnspecified = 2;  // AVCOL_SPC_UNSPECIFIED

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kFps = 30;
constexpr int kSeconds = 30;
constexpr int kLiveSeconds = 60;  // of the RTMP delay run
constexpr int kFrames = kFps * kSeconds;
constexpr int kLoopFrames = 2 * kFps;
constexpr size_t kFrameBytes = static_cast<size_t>(kWidth) * kHeight * 4;
constexpr int kSampleRate = 44100;
constexpr int kChannels = 2;
constexpr int64_t kSamples = static_cast<int64_t>(kSampleRate) * kSeconds;
constexpr int kChunkSamples = kSampleRate / 100;  // 10 ms per call, as a capturing host does

using zeva::bench::Clock;
// Picture `n` of the recording, and `count` samples of PCM from sample `first`.
// The library's write calls take non-const pointers but only read them.
using PictureSource = std::function<uint8_t*(int n)>;
using PcmSource = std::function<int16_t*(int64_t first, int count)>;

double Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Frame `n` of the loop: a gradient that drifts from frame to frame.
void DrawFrame(int n, uint8_t* bgra) {
  for (int y = 0; y < kHeight; ++y) {
    uint8_t* px = bgra + static_cast<size_t>(y) * kWidth * 4;
    for (int x = 0; x < kWidth; ++x, px += 4) {
      px[0] = static_cast<uint8_t>(x / 5 + 4 * n);
      px[1] = static_cast<uint8_t>(y / 3 + 2 * n);
      px[2] = static_cast<uint8_t>((x + y) / 8 + n);
      px[3] = 255;
    }
  }
}

// 440 Hz left and 660 Hz right, from sample `first` on.
void FillTone(int64_t first, int64_t count, int16_t* pcm) {
  constexpr double kTwoPi = 6.283185307179586;
  for (int64_t i = 0; i < count; ++i) {
    const double t = static_cast<double>(first + i) / kSampleRate;
    pcm[2 * i] = static_cast<int16_t>(8192 * std::sin(kTwoPi * 440 * t));
    pcm[2 * i + 1] = static_cast<int16_t>(8192 * std::sin(kTwoPi * 660 * t));
  }
}

MovieInfo BenchInfo(const std::string& out) {
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", out.c_str());
  info.audio_bitrate = 128;
  info.src_sample_rate = kSampleRate;
  info.sample_rate = 48000;
  info.channels = kChannels;
  info.sample_fmt = kSampleFmtS16;
  info.rc_mode = 0;  // average bit rate, as ffmpeg's -b:v
  info.video_bitrate = 4000;
  info.width = info.src_width = kWidth;
  info.height = info.src_height = kHeight;
  info.fps = kFps;
  info.gop_size = 2 * kFps;
  info.src_pix_fmt = kPixFmtBgra;
  info.pix_fmt = kPixFmtYuv420p;
  info.colorspace = kColorspaceUnspecified;
  info.preset = QL_ULTRAFAST;
  info.profile = PL_BASELINE;  // what ultrafast produces anyway; ffmpeg is told the same
  info.tune = TL_NONE;         // as ffmpeg, which is given no tune
  return info;
}

void OnStatus(int code, const char* message, void* user) {
  if (code == 0) return;  // "start OK"
  std::fprintf(stderr, "bench: recording failed: %s (code %d)\n", message ? message : "", code);
  static_cast<std::atomic<bool>*>(user)->store(true);
}

// Records `seconds` into `info.url` the way a capturing host does: pictures
// and 10 ms PCM chunks in time-stamp order, stamped on a synthetic clock from
// the library's own. With `written` (two vectors: video, audio) it paces the calls in real
// time and notes when each call starts; without, it writes at full speed.
// Returns the wall seconds from start to the finished output, or -1 after a
// failure.
double RecordWithLibrary(const MovieInfo& info, const PictureSource& picture,
                         const PcmSource& pcm, int seconds = kSeconds,
                         std::vector<Clock::time_point>* written = nullptr) {
  std::atomic<bool> failed{false};
  const Clock::time_point t0 = Clock::now();
  void* h = ZEVA_start(info, OnStatus, &failed, nullptr, /*async=*/false);
  MovieInfo used{};
  const bool started = ZEVA_get_mInfo(h, &used);
  const int64_t base_us = ZEVA_current_sys_usec();
  const Clock::time_point paced_from = Clock::now();
  const int total_frames = kFps * seconds;
  const int64_t total_samples = static_cast<int64_t>(kSampleRate) * seconds;
  int frames = 0, accepted = 0;
  int64_t samples = 0;
  while (started && !failed.load() && (frames < total_frames || samples < total_samples)) {
    const int64_t v_us = static_cast<int64_t>(frames) * 1000000 / kFps;
    const int64_t a_us = samples * 1000000 / kSampleRate;
    const bool video = frames < total_frames && (samples == total_samples || v_us <= a_us);
    if (written != nullptr) {
      std::this_thread::sleep_until(paced_from + std::chrono::microseconds(video ? v_us : a_us));
      written[video ? 0 : 1].push_back(Clock::now());
    }
    if (video) {
      accepted += ZEVA_write_video_bgra(h, picture(frames), static_cast<int>(kFrameBytes),
                                        base_us + v_us, kWidth * 4);
      ++frames;
    } else {
      const int n = static_cast<int>(std::min<int64_t>(kChunkSamples, total_samples - samples));
      ZEVA_write_audio_pcm(h, pcm(samples, n), n * kChannels * 2, base_us + a_us);
      samples += n;
    }
  }
  ZEVA_stop(&h);
  const double wall = Since(t0);
  if (!started || failed.load() || accepted != total_frames) {
    std::fprintf(stderr, "bench: %s: started=%d, %d of %d pictures accepted\n", info.url,
                 started, accepted, total_frames);
    return -1;
  }
  return wall;
}

// Streams kLiveSeconds in real time to a local nginx RTMP server in `dir`
// and prints the delay from each write call to the writer's hand-over of
// the packet encoded from it. Packets are matched to calls by time stamp:
// the library counts from the first call's stamp, video in frames of the
// encoder's 1/fps time base and audio in samples of the AAC encoder, and
// the writer logs both in microseconds (rounded to FLV's milliseconds). An
// audio packet belongs to the call that supplied its first sample; the
// encoder's priming packet, stamped before 0, to none.
bool RunRtmpDelay(const std::string& dir, const PictureSource& picture, const PcmSource& pcm) {
  mkdir(dir.c_str(), 0755);
  zeva::test::RtmpServer server(dir);
  if (!server.ok()) {
    std::fprintf(stderr, "bench: the RTMP server did not start (scripts/bootstrap installs it)\n");
    return false;
  }
  MovieInfo info = BenchInfo(server.Url("classic"));
  info.tune = TL_ZEROLATENCY;  // as zeva record streams: no look-ahead in the encoder
  info.timeout_sec = 10;
  std::vector<Clock::time_point> written[2];
  zeva::bench::DelayProbe probe;
  if (RecordWithLibrary(info, picture, pcm, kLiveSeconds, written) < 0) return false;
  std::vector<double> delays, per_stream[2];
  const int64_t unit_us[2] = {1000000 / kFps, 1000000 * kChunkSamples / kSampleRate};
  for (int s = 0; s < 2; ++s) {
    // Calls are met in order: each picture once, a 10 ms chunk at most once
    // (half of them start no 1024-sample packet).
    size_t expected = 0;
    for (const auto& p : probe.handed(s)) {
      if (p.dts_us < 0) continue;
      const size_t call = static_cast<size_t>(
          s == 0 ? (p.dts_us + unit_us[0] / 2) / unit_us[0] : p.dts_us / unit_us[1]);
      if (call >= written[s].size() || call < expected) {
        std::fprintf(stderr, "bench: stream %d: packet at %lld us matches no write call\n", s,
                     static_cast<long long>(p.dts_us));
        return false;
      }
      expected = s == 0 ? call + 1 : call;
      per_stream[s].push_back(zeva::bench::Ms(p.at - written[s][call]));
      delays.push_back(per_stream[s].back());
    }
  }
  if (per_stream[0].size() != written[0].size()) {
    std::fprintf(stderr, "bench: %zu pictures written, %zu packets handed over\n",
                 written[0].size(), per_stream[0].size());
    return false;
  }
  zeva::bench::PrintDelay("rtmp_delay_classic", delays);
  std::printf("# rtmp_delay_classic medians: video %.1f ms, audio %.1f ms (%zu packets)\n",
              zeva::bench::Percentile(per_stream[0], 0.5),
              zeva::bench::Percentile(per_stream[1], 0.5), per_stream[1].size());
  return true;
}

struct ChildRun {
  bool ok = false;
  double seconds = 0;
  double peak_mib = 0;
};

// Waits for `pid`, started at `t0`, and reads its own peak resident memory.
ChildRun WaitChild(pid_t pid, Clock::time_point t0, const char* what) {
  int status = 0;
  struct rusage usage = {};
  pid_t r;
  while ((r = wait4(pid, &status, 0, &usage)) < 0 && errno == EINTR) {
  }
  ChildRun run;
  run.seconds = Since(t0);
  run.peak_mib = static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB
  run.ok = r == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!run.ok) std::fprintf(stderr, "bench: %s failed (wait status %d)\n", what, status);
  return run;
}

// Our side in a process of its own, drawing each picture and chunk as it goes.
ChildRun RecordInChild(const std::string& out) {
  std::fflush(nullptr);
  const Clock::time_point t0 = Clock::now();
  const pid_t pid = fork();
  if (pid < 0) return ChildRun{};
  if (pid == 0) {
    std::vector<uint8_t> frame(kFrameBytes);
    std::vector<int16_t> chunk(static_cast<size_t>(kChunkSamples) * kChannels);
    const double seconds = RecordWithLibrary(
        BenchInfo(out),
        [&](int n) {
          DrawFrame(n % kLoopFrames, frame.data());
          return frame.data();
        },
        [&](int64_t first, int count) {
          FillTone(first, count, chunk.data());
          return chunk.data();
        });
    std::fflush(nullptr);
    _exit(seconds < 0 ? 1 : 0);
  }
  return WaitChild(pid, t0, "library run in a child");
}

ChildRun RunFfmpeg(const std::string& dir) {
  const std::string loops = std::to_string(kFrames / kLoopFrames - 1);
  const std::string size = std::to_string(kWidth) + "x" + std::to_string(kHeight);
  const std::string fps = std::to_string(kFps), gop = std::to_string(2 * kFps);
  const std::string rate = std::to_string(kSampleRate), channels = std::to_string(kChannels);
  const std::string video = dir + "/video.raw", audio = dir + "/audio.raw";
  const std::string out = dir + "/ffmpeg.mp4";
  std::vector<const char*> argv = {
      "ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-y",
      "-stream_loop", loops.c_str(), "-f", "rawvideo", "-pix_fmt", "bgra", "-s", size.c_str(),
      "-framerate", fps.c_str(), "-i", video.c_str(),
      "-f", "s16le", "-ar", rate.c_str(), "-ac", channels.c_str(), "-i", audio.c_str(),
      "-c:v", "libx264", "-preset", "ultrafast", "-profile:v", "baseline",
      "-b:v", "4M", "-g", gop.c_str(), "-pix_fmt", "yuv420p",
      "-c:a", "aac", "-b:a", "128k", "-ar", "48000", out.c_str(), nullptr};
  std::fflush(nullptr);
  const Clock::time_point t0 = Clock::now();
  const pid_t pid = fork();
  if (pid < 0) return ChildRun{};
  if (pid == 0) {
    execvp("ffmpeg", const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  return WaitChild(pid, t0, "ffmpeg");
}

// Draws the loop of pictures and the whole tone into the raw files that
// ffmpeg reads, one frame at a time.
bool WriteSource(const std::string& dir) {
  FILE* video = std::fopen((dir + "/video.raw").c_str(), "wb");
  FILE* audio = std::fopen((dir + "/audio.raw").c_str(), "wb");
  bool ok = video != nullptr && audio != nullptr;
  std::vector<uint8_t> frame(kFrameBytes);
  for (int n = 0; ok && n < kLoopFrames; ++n) {
    DrawFrame(n, frame.data());
    ok = std::fwrite(frame.data(), 1, frame.size(), video) == frame.size();
  }
  std::vector<int16_t> pcm(static_cast<size_t>(kSamples) * kChannels);
  FillTone(0, kSamples, pcm.data());
  ok = ok && std::fwrite(pcm.data(), sizeof(int16_t), pcm.size(), audio) == pcm.size();
  if (video != nullptr && std::fclose(video) != 0) ok = false;
  if (audio != nullptr && std::fclose(audio) != 0) ok = false;
  return ok;
}

template <typename T>
bool ReadFile(const std::string& path, size_t count, std::vector<T>* out) {
  out->resize(count);
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  const bool ok = std::fread(out->data(), sizeof(T), count, f) == count;
  std::fclose(f);
  return ok;
}

// A scratch directory under $TMPDIR or /tmp, removed with what the run wrote.
struct ScratchDir {
  std::string path;
  ScratchDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                          "/zeva_bench_classic_XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
};

}  // namespace

int main() {
  const Clock::time_point bench_t0 = Clock::now();
  // Failures arrive through the status callback; the library's routine
  // start and stop lines would only bury the figures.
  ZEVA_Log_Level(1);
  ScratchDir dir;
  if (dir.path.empty()) {
    std::perror("bench: mkdtemp");
    return 1;
  }

  if (!WriteSource(dir.path)) {
    std::perror("bench: writing the raw source");
    return 1;
  }
  const ChildRun ours_mem = RecordInChild(dir.path + "/ours_rss.mp4");
  const ChildRun ffmpeg = RunFfmpeg(dir.path);

  std::vector<uint8_t> frames;
  std::vector<int16_t> pcm;
  if (!ReadFile(dir.path + "/video.raw", kLoopFrames * kFrameBytes, &frames) ||
      !ReadFile(dir.path + "/audio.raw", static_cast<size_t>(kSamples) * kChannels, &pcm)) {
    std::perror("bench: reading the raw source");
    return 1;
  }
  const PictureSource loop = [&](int n) {
    return frames.data() + (n % kLoopFrames) * kFrameBytes;
  };
  // Longer runs repeat the tone: kSamples is a whole number of chunks.
  const PcmSource tone = [&](int64_t first, int) {
    return pcm.data() + first % kSamples * kChannels;
  };
  const double ours_s = RecordWithLibrary(BenchInfo(dir.path + "/ours.mp4"), loop, tone);
  if (!ours_mem.ok || ours_s < 0 || !ffmpeg.ok) return 1;

  const double ours_fps = kFrames / ours_s, ffmpeg_fps = kFrames / ffmpeg.seconds;
  std::printf("bench classic_record_fps: %.1f fps vs %.1f fps (ffmpeg CLI) = %.2f x\n", ours_fps,
              ffmpeg_fps, ours_fps / ffmpeg_fps);
  std::printf("bench classic_record_peak_rss: %.1f MiB vs %.1f MiB (ffmpeg CLI) = %.2f x\n",
              ours_mem.peak_mib, ffmpeg.peak_mib, ours_mem.peak_mib / ffmpeg.peak_mib);
  std::fflush(stdout);
  const double total_s = Since(bench_t0);
  if (total_s > 60) std::fprintf(stderr, "bench: classic_record took %.0f s of 60 s\n", total_s);
  return RunRtmpDelay(dir.path + "/rtmp", loop, tone) ? 0 : 1;
}
