// Packet recording through the public interface, against the ffmpeg CLI where it has a peer.
//
//   packet_remux_rate/_packets  60 s of 1280x720 30 fps H.264 (Annex B, no B-frames, 5 Mb/s)
//       and 48 kHz stereo ADTS AAC pushed through ZEVA2_* into an MP4 at full speed, against
//       `ffmpeg -framerate 30 -i video.h264 -i audio.aac -c copy out.mp4`: input MB and packets
//       per second, ZEVA2_start to ZEVA2_stop returning for us, process start to exit for ffmpeg.
//   packet_remux_rss  peak resident memory of each side, each in a process of its own.
//   packet_delay_median/_p99  the first 20 s pushed in real time: from the host's write call
//       of a packet to its writer thread handing it to FFmpeg, traced through the library's
//       per-packet debug lines. No peer does this: the "peer" printed is the aim.
//   rtmp_delay_packet_median/_p99  the same delay for 60 s pushed in real time to a local
//       nginx RTMP server (FLV over loopback).
//
// Best of 3 runs each. A child's peak memory starts at its parent's, so this process stays
// small: a child splits the streams once, storing packet offsets beside the cached media, and
// our child reads each packet just before writing it, as a host holds one packet at a time.
// A full-speed host may outrun the library: a write blocks while the input queue is full, and
// a packet with no room within 50 ms is dropped with a log line. The bench fails then, and when
// ffprobe does not find every packet in our file.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <zeva/zeva.h>

#include "delay_probe.h"
#include "packet/es_splitter.h"
#include "support/rtmp_server.h"

namespace {

using zeva::bench::Clock;
using zeva::bench::Ms;
using zeva::bench::Percentile;
constexpr int kFps = 30, kSampleRate = 48000, kSeconds = 60, kRuns = 3;
constexpr int kLiveSeconds = 60;  // of the RTMP delay run; the media last kSeconds
constexpr int64_t kDelayUntilUs = 20000000, kSteadyFromUs = 2000000;

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Media {
  struct Item { int64_t at_us; int stream; size_t index; };  // stream 0 video, 1 audio
  std::string dir;
  std::vector<zeva::EsSpan> spans[2];
  std::vector<Item> schedule;  // both streams in timestamp order
  size_t bytes = 0, max_size = 0;
  std::string path(int s) const { return dir + (s == 0 ? "/video.h264" : "/audio.aac"); }
};

// The child's exit status (128 when killed); its resource use into `usage` (may be null).
int Wait(pid_t pid, struct rusage* usage) {
  int status = 0;
  while (wait4(pid, &status, 0, usage) < 0 && errno == EINTR) continue;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

int Exec(std::vector<const char*> argv, struct rusage* usage = nullptr) {
  argv.push_back(nullptr);
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[0], const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  return pid < 0 ? -1 : Wait(pid, usage);
}

// Encodes the streams once into the cache directory and stores each stream's packet offsets
// there (split in a child), then builds the schedule.
bool Prepare(Media* m) {
  const std::string ready = m->dir + "/ready", t = std::to_string(kSeconds);
  const std::string v = m->path(0), a = m->path(1);
  if (access(ready.c_str(), F_OK) != 0) {
    mkdir(m->dir.c_str(), 0755);
    if (Exec({"ffmpeg", "-nostdin", "-v", "error", "-y", "-f", "lavfi", "-i",
              "testsrc2=size=1280x720:rate=30", "-f", "lavfi", "-i",
              "sine=frequency=440:sample_rate=48000", "-t", t.c_str(), "-c:v", "libx264",
              "-preset", "veryfast", "-bf", "0", "-g", "60", "-b:v", "5M", "-maxrate", "5M",
              "-bufsize", "10M", "-pix_fmt", "yuv420p", "-f", "h264", v.c_str(), "-t", t.c_str(),
              "-c:a", "aac", "-ac", "2", "-b:a", "128k", "-f", "adts", a.c_str()}) != 0) {
      return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
      bool ok = true;
      for (int s = 0; s < 2; ++s) {
        const std::string data = Slurp(m->path(s));
        const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
        const auto spans = s == 0 ? zeva::SplitAnnexB(bytes, data.size())
                                  : zeva::SplitAdts(bytes, data.size());
        std::ofstream out(m->path(s) + ".idx", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(spans.data()), spans.size() * sizeof spans[0]);
        ok = ok && !spans.empty() && out.good();
      }
      _exit(ok && std::ofstream(ready).good() ? 0 : 1);
    }
    if (pid < 0 || Wait(pid, nullptr) != 0) return false;
  }
  for (int s = 0; s < 2; ++s) {
    const std::string raw = Slurp(m->path(s) + ".idx");
    m->spans[s].resize(raw.size() / sizeof(zeva::EsSpan));
    std::memcpy(m->spans[s].data(), raw.data(), m->spans[s].size() * sizeof(zeva::EsSpan));
    for (size_t i = 0; i < m->spans[s].size(); ++i) {
      const int64_t at = s == 0 ? int64_t(i) * 1000000 / kFps
                                : int64_t(i) * 1024 * 1000000 / kSampleRate;
      m->schedule.push_back({at, s, i});
      m->bytes += m->spans[s][i].size;
      m->max_size = std::max(m->max_size, m->spans[s][i].size);
    }
  }
  // Video first on equal timestamps, as zeva push does.
  std::stable_sort(m->schedule.begin(), m->schedule.end(),
                   [](const Media::Item& x, const Media::Item& y) { return x.at_us < y.at_us; });
  return !m->spans[0].empty() && !m->spans[1].empty();
}

void OnStatus(int code, const char* message, void* user) {
  if (code == 0) return;  // "start success"
  std::fprintf(stderr, "bench: recording failed: %s (code %d)\n", message ? message : "", code);
  static_cast<std::atomic<bool>*>(user)->store(true);
}

// The stream being written: its sort queue's lines name it only once the worker opened it.
std::atomic<int> g_writing{-1};

struct PushResult { int ok = 0; double seconds = 0; int64_t count[2] = {0, 0}; };

// The host: pushes the schedule up to `until_us` into `out`, paced by the timestamps when
// `realtime`, noting in `written` (if given) when each write call starts.
PushResult Push(const Media& m, const std::string& out, int64_t until_us, bool realtime,
                std::vector<Clock::time_point>* written = nullptr) {
  PushResult r;
  const int fd[2] = {open(m.path(0).c_str(), O_RDONLY), open(m.path(1).c_str(), O_RDONLY)};
  std::vector<uint8_t> buffer(m.max_size);
  MovieInfo2 info{};
  std::snprintf(info.url, sizeof info.url, "%s", out.c_str());
  info.vcodec = info.acodec = 1;
  std::atomic<bool> failed{fd[0] < 0 || fd[1] < 0};
  const Clock::time_point t0 = Clock::now();
  void* h = ZEVA2_start(info, OnStatus, &failed);
  const int64_t base_us = ZEVA_current_sys_usec();
  for (const Media::Item& it : m.schedule) {
    if (h == nullptr || failed.load() || it.at_us >= until_us) break;
    if (realtime) std::this_thread::sleep_until(t0 + std::chrono::microseconds(it.at_us));
    const zeva::EsSpan& s = m.spans[it.stream][it.index];
    if (pread(fd[it.stream], buffer.data(), s.size, off_t(s.offset)) != ssize_t(s.size)) break;
    if (written != nullptr) written->push_back(Clock::now());
    g_writing = it.stream;
    const bool ok = it.stream == 0
        ? ZEVA2_write_video_packet(h, buffer.data(), int(s.size), base_us + it.at_us)
        : ZEVA2_write_audio_packet(h, buffer.data(), int(s.size), base_us + it.at_us);
    g_writing = -1;
    r.count[it.stream] += ok;
  }
  ZEVA2_stop(&h);
  r.seconds = Ms(Clock::now() - t0) / 1000;
  r.ok = !failed.load();
  for (int f : fd) close(f);
  return r;
}

struct Best {  // of a side's runs: the shortest time and the lowest peak
  double seconds = 1e9, peak_mib = 1e9;
  void Keep(double s, const struct rusage& usage) {
    seconds = std::min(seconds, s);
    peak_mib = std::min(peak_mib, usage.ru_maxrss / 1024.0);  // ru_maxrss is in KiB
  }
};

// ffprobe's "codec_type,packets" line of each stream in `path`.
std::string Probe(const std::string& path) {
  std::string text;
  FILE* p = popen(("ffprobe -v error -count_packets -show_entries "
                   "stream=codec_type,nb_read_packets -of csv=p=0 '" + path + "'").c_str(), "r");
  for (int c; p != nullptr && (c = std::fgetc(p)) != EOF;) text += char(c);
  if (p != nullptr) pclose(p);
  return text;
}

// One full-speed run of ours in a child logging to `log`; the outcome comes back through a
// pipe, the peak memory through wait4. Every packet must be in the file.
bool RunOurs(const Media& m, const std::string& out, const std::string& log, Best* best) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (log_fd >= 0) dup2(log_fd, STDERR_FILENO);  // FFmpeg's stream dumps as well
    ZEVA_Log_On2(stderr, 2);
    const PushResult r = Push(m, out, INT64_MAX, false);
    _exit(write(fds[1], &r, sizeof r) == sizeof r && r.ok ? 0 : 1);
  }
  close(fds[1]);
  PushResult r;
  struct rusage usage {};
  const bool ran = pid > 0 && Wait(pid, &usage) == 0 && read(fds[0], &r, sizeof r) == sizeof r;
  close(fds[0]);
  const std::string want = "video," + std::to_string(m.spans[0].size()) + "\naudio," +
                           std::to_string(m.spans[1].size()) + "\n";
  const std::string probed = Probe(out);
  const bool dropped = Slurp(log).find("drop front-node") != std::string::npos;
  if (!ran || dropped || probed != want || r.count[0] + r.count[1] != int64_t(m.schedule.size())) {
    std::fprintf(stderr, "bench: our run failed%s: %" PRId64 " + %" PRId64 " packets accepted, "
                 "file has [%s], wanted [%s]; log: %s\n", dropped ? " (packets dropped)" : "",
                 r.count[0], r.count[1], probed.c_str(), want.c_str(), log.c_str());
    return false;
  }
  best->Keep(r.seconds, usage);
  return true;
}

bool RunFfmpeg(const Media& m, const std::string& out, Best* best) {
  const Clock::time_point t0 = Clock::now();
  struct rusage usage {};
  const std::string v = m.path(0), a = m.path(1);
  const int status = Exec({"ffmpeg", "-nostdin", "-v", "error", "-y", "-framerate", "30", "-i",
                           v.c_str(), "-i", a.c_str(), "-c", "copy", out.c_str()}, &usage);
  if (status == 0) best->Keep(Ms(Clock::now() - t0) / 1000, usage);
  return status == 0;
}

// The delay run, in this process, into `out` up to `until_us`; prints the figures NAME_median
// and NAME_p99 and where the time goes.
bool RunDelay(const Media& m, const std::string& out, int64_t until_us, const std::string& name) {
  // Per stream, by timestamp: write call, sort queue release, demuxer output.
  std::map<int64_t, Clock::time_point> at[3][2];
  zeva::bench::DelayProbe probe([&at](const char* msg, Clock::time_point now) {
    char kind[16] = "";
    long long ts = 0;
    if (std::sscanf(msg, "push_data() : %15[a-z0-9], pts=%lld", kind, &ts) == 2) {
      at[1][g_writing >= 0 ? g_writing.load() : kind[0] == 'a'][ts] = now;
    } else if (std::sscanf(msg, "[%15[a-z0-9]] --- get pts from que: pkt_pts=%lld", kind,
                           &ts) == 2) {
      at[2][kind[0] == 'a'][ts] = now;
    }
  });
  std::vector<Clock::time_point> written;
  const PushResult r = Push(m, out, until_us, true, &written);
  for (size_t i = 0; i < written.size(); ++i) {
    at[0][m.schedule[i].stream][m.schedule[i].at_us] = written[i];
  }
  // The n-th packet a stream hands over is its n-th written; the timestamps (smoothed by the
  // library, rescaled by the muxer) must agree.
  std::vector<double> total, steady, stage[3][2];
  for (int s = 0; s < 2; ++s) {
    const auto& handed = probe.handed(s);
    bool traced = handed.size() == at[0][s].size();
    auto host = at[0][s].begin();
    for (size_t i = 0; traced && i < handed.size(); ++i, ++host) {
      const int64_t t = host->first;
      traced = std::llabs(handed[i].dts_us - t) <= 2000 && at[1][s].count(t) && at[2][s].count(t);
      if (!traced) break;
      const Clock::time_point when[4] = {host->second, at[1][s][t], at[2][s][t], handed[i].at};
      for (int k = 0; k < 3; ++k) stage[k][s].push_back(Ms(when[k + 1] - when[k]));
      total.push_back(Ms(handed[i].at - host->second));
      if (t >= kSteadyFromUs) steady.push_back(total.back());
    }
    if (!traced) {
      std::fprintf(stderr, "bench: %s: stream %d: %zu packets written, %zu handed over, not all "
                   "traced\n", name.c_str(), s, at[0][s].size(), handed.size());
      return false;
    }
  }
  zeva::bench::PrintDelay(name, total);
  for (int s = 0; s < 2; ++s) {
    std::printf("# %s %s medians: sort queue %.1f ms, demuxer %.1f ms, writer %.1f ms\n",
                name.c_str(), s == 0 ? "video" : "audio", Percentile(stage[0][s], 0.5),
                Percentile(stage[1][s], 0.5), Percentile(stage[2][s], 0.5));
  }
  std::printf("# %s from 2 s on: median %.1f ms, p99 %.1f ms; at the start up to %.1f ms\n",
              name.c_str(), Percentile(steady, 0.5), Percentile(steady, 0.99),
              Percentile(total, 1.0));
  std::fflush(stdout);
  return r.ok != 0;
}

// The delay run to a local RTMP server (nginx), in a directory of its own under `dir`.
bool RunRtmpDelay(const Media& m, const std::string& dir) {
  mkdir(dir.c_str(), 0755);
  zeva::test::RtmpServer server(dir);
  if (!server.ok()) {
    std::fprintf(stderr, "bench: the RTMP server did not start (scripts/bootstrap installs it)\n");
    return false;
  }
  return RunDelay(m, server.Url("packet"), int64_t(kLiveSeconds) * 1000000, "rtmp_delay_packet");
}

}  // namespace

int main(int, char** argv) {
  ZEVA_Log_Level(1);  // failures come through the status callback
  Media m;
  m.dir = std::string(argv[0]) + "_media";  // beside the binary, kept between runs
  char scratch[] = "/tmp/zeva_bench_packet_XXXXXX";
  if (!Prepare(&m) || mkdtemp(scratch) == nullptr) {
    std::fprintf(stderr, "bench: preparing the media in %s failed\n", m.dir.c_str());
    return 1;
  }
  const std::string dir = std::string(scratch) + "/";
  Best ours, peer;
  bool ok = true;
  for (int i = 0; i < kRuns && ok; ++i) {
    ok = RunOurs(m, dir + "ours.mp4", dir + "ours.log", &ours) &&
         RunFfmpeg(m, dir + "ffmpeg.mp4", &peer);
  }
  if (ok) {
    const double mb = m.bytes / 1e6, packets = double(m.schedule.size());
    const double ratio = peer.seconds / ours.seconds;
    std::printf("bench packet_remux_rate: %.1f MB/s vs %.1f MB/s (ffmpeg CLI) = %.2f x\n",
                mb / ours.seconds, mb / peer.seconds, ratio);
    std::printf("bench packet_remux_packets: %.0f packets/s vs %.0f packets/s (ffmpeg CLI) = "
                "%.2f x\n", packets / ours.seconds, packets / peer.seconds, ratio);
    std::printf("bench packet_remux_rss: %.1f MiB vs %.1f MiB (ffmpeg CLI) = %.2f x\n",
                ours.peak_mib, peer.peak_mib, ours.peak_mib / peer.peak_mib);
    std::fflush(stdout);
    ok = RunDelay(m, dir + "delay.mp4", kDelayUntilUs, "packet_delay") &&
         RunRtmpDelay(m, dir + "rtmp");
  }
  if (!ok) return 1;  // the scratch directory stays for a look
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return 0;
}
