// Muxing cost of the crash-safe index, and remux speed against the ffmpeg CLI.
//
//   index_overhead  100k pre-encoded packets from memory into an MP4 through
//                   the writing component, with and without the index
//   index_allocs    heap allocations made while writing those packets
//   remux_index_overhead  a file remuxed into MP4 (demux included), with and
//                   without the index
//   remux_mp4_index an H.264+AAC file remuxed into MP4 with its index (demux
//                   included) against `ffmpeg -c copy` of the same file
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "index/snapshot.h"
#include "output/packet_writer.h"
#include "bench_media.h"
#include "support/encoded_media.h"

// Every allocation of the process, FFmpeg's included, passes through here.
static std::atomic<long> g_allocs{0};
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
void* malloc(size_t n) { g_allocs.fetch_add(1, std::memory_order_relaxed); return __libc_malloc(n); }
void* calloc(size_t n, size_t s) { g_allocs.fetch_add(1, std::memory_order_relaxed); return __libc_calloc(n, s); }
void* realloc(void* p, size_t n) { g_allocs.fetch_add(1, std::memory_order_relaxed); return __libc_realloc(p, n); }
void free(void* p) { __libc_free(p); }
int posix_memalign(void** out, size_t align, size_t n) {
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  *out = __libc_memalign(align, n);
  return *out ? 0 : ENOMEM;
}
void* aligned_alloc(size_t align, size_t n) { g_allocs.fetch_add(1, std::memory_order_relaxed); return __libc_memalign(align, n); }
void* memalign(size_t align, size_t n) { g_allocs.fetch_add(1, std::memory_order_relaxed); return __libc_memalign(align, n); }
}

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kPackets = 100000;

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

struct MuxRun {
  double seconds = 0;
  long allocs = 0;
  int64_t bytes = 0;
};

MuxRun MuxToMp4(const zeva::test::EncodedMedia& m, const std::vector<zeva::PacketPtr>& pkts,
                const std::string& path, const char* index) {
  MuxRun run;
  AVFormatContext* raw = nullptr;
  avformat_alloc_output_context2(&raw, nullptr, nullptr, path.c_str());
  zeva::OutputFormatPtr oc(raw);
  zeva::test::AddStreams(oc.get(), m);
  if (avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) std::abort();
  zeva::Snapshot snapshot;
  zeva::PacketWriter writer(oc.get());
  if (index != nullptr && snapshot.open(index) && snapshot.attach(oc.get())) writer.set_snapshot(&snapshot);
  if (writer.WriteHeader(nullptr) < 0) std::abort();
  // Packets are cloned ahead of time so that the loop measures writing only.
  std::vector<zeva::PacketPtr> copies;
  copies.reserve(pkts.size());
  for (const auto& p : pkts) {
    copies.emplace_back(av_packet_clone(p.get()));
    av_packet_rescale_ts(copies.back().get(), m.streams[p->stream_index].time_base,
                         oc->streams[p->stream_index]->time_base);
  }
  const long a0 = g_allocs.load();
  const auto t0 = Clock::now();
  for (auto& p : copies) {
    if (writer.Write(std::move(p)) < 0) std::abort();
  }
  if (writer.WriteTrailer() < 0) std::abort();
  run.seconds = Seconds(t0, Clock::now());
  run.allocs = g_allocs.load() - a0;
  run.bytes = avio_size(oc->pb);
  return run;
}

// Remuxes `in` into `out` (MP4, with an index unless `index` is null) as a
// host would: demux + write.
double Remux(const std::string& in, const std::string& out, const char* index) {
  const auto t0 = Clock::now();
  AVFormatContext* ic = nullptr;
  if (avformat_open_input(&ic, in.c_str(), nullptr, nullptr) < 0) std::abort();
  zeva::InputFormatPtr input(ic);
  avformat_find_stream_info(ic, nullptr);
  AVFormatContext* raw = nullptr;
  avformat_alloc_output_context2(&raw, nullptr, nullptr, out.c_str());
  zeva::OutputFormatPtr oc(raw);
  for (unsigned i = 0; i < ic->nb_streams; ++i) {
    AVStream* st = avformat_new_stream(oc.get(), nullptr);
    avcodec_parameters_copy(st->codecpar, ic->streams[i]->codecpar);
    st->codecpar->codec_tag = 0;
    st->time_base = ic->streams[i]->time_base;
  }
  if (avio_open(&oc->pb, out.c_str(), AVIO_FLAG_WRITE) < 0) std::abort();
  zeva::Snapshot snapshot;
  zeva::PacketWriter writer(oc.get());
  if (index != nullptr && snapshot.open(index) && snapshot.attach(oc.get())) writer.set_snapshot(&snapshot);
  if (writer.WriteHeader(nullptr) < 0) std::abort();
  for (;;) {
    zeva::PacketPtr p = zeva::NewPacket();
    if (av_read_frame(ic, p.get()) < 0) break;
    av_packet_rescale_ts(p.get(), ic->streams[p->stream_index]->time_base,
                         oc->streams[p->stream_index]->time_base);
    p->pos = -1;
    if (writer.Write(std::move(p)) < 0) std::abort();
  }
  if (writer.WriteTrailer() < 0) std::abort();
  return Seconds(t0, Clock::now());
}

double RunFfmpegCopy(const std::string& in, const std::string& out) {
  const auto t0 = Clock::now();
  const std::string cmd = "ffmpeg -v error -y -i '" + in + "' -c copy '" + out + "'";
  if (std::system(cmd.c_str()) != 0) std::abort();
  return Seconds(t0, Clock::now());
}

}  // namespace

int main() {
  av_log_set_level(AV_LOG_ERROR);
  const std::string dir = zeva::test::MakeTempDir("bench");
  // 720p at about 4 Mb/s with 128 kb/s AAC: the packet sizes of a desktop recording.
  zeva::test::MediaOptions o;
  o.seconds = 4;
  o.width = 1280;
  o.height = 720;
  const zeva::test::EncodedMedia media = zeva::test::EncodeTestMedia(o);
  const std::vector<zeva::PacketPtr> pkts = zeva::bench::RepeatPackets(media, kPackets);

  // Alternate the two variants so that drift of the machine hits both alike.
  MuxRun best_plain, best_index;
  best_plain.seconds = best_index.seconds = 1e9;
  for (int i = 0; i < 3; ++i) {
    MuxRun plain = MuxToMp4(media, pkts, dir + "/plain.mp4", nullptr);
    MuxRun index = MuxToMp4(media, pkts, dir + "/index.mp4", (dir + "/index.moov").c_str());
    if (plain.seconds < best_plain.seconds) best_plain = plain;
    if (index.seconds < best_index.seconds) best_index = index;
  }
  std::printf("bench index_overhead: %.1f ms vs %.1f ms (same %zu packets, no index) = %.3f x\n",
              best_index.seconds * 1e3, best_plain.seconds * 1e3, kPackets,
              best_index.seconds / best_plain.seconds);
  std::printf("bench index_allocs: %ld allocs vs %ld allocs (no index) = %.3f x (%+.4f allocs/packet)\n",
              best_index.allocs, best_plain.allocs,
              static_cast<double>(best_index.allocs) / std::max(1L, best_plain.allocs),
              static_cast<double>(best_index.allocs - best_plain.allocs) / kPackets);

  // The remux peer reads the same packets from a file, so ours does too.
  const std::string source = dir + "/source.mkv";
  {
    AVFormatContext* raw = nullptr;
    avformat_alloc_output_context2(&raw, nullptr, nullptr, source.c_str());
    zeva::OutputFormatPtr oc(raw);
    zeva::test::AddStreams(oc.get(), media);
    if (avio_open(&oc->pb, source.c_str(), AVIO_FLAG_WRITE) < 0 || avformat_write_header(oc.get(), nullptr) < 0) std::abort();
    for (const auto& p : pkts) {
      zeva::PacketPtr c(av_packet_clone(p.get()));
      av_packet_rescale_ts(c.get(), media.streams[c->stream_index].time_base, oc->streams[c->stream_index]->time_base);
      av_write_frame(oc.get(), c.get());
    }
    av_write_trailer(oc.get());
  }
  const double mb = static_cast<double>(std::filesystem::file_size(source)) / 1e6;
  double ours = 1e9, plain = 1e9, peer = 1e9;
  for (int i = 0; i < 3; ++i) {
    ours = std::min(ours, Remux(source, dir + "/ours.mp4", (dir + "/ours.moov").c_str()));
    plain = std::min(plain, Remux(source, dir + "/plain.mp4", nullptr));
    peer = std::min(peer, RunFfmpegCopy(source, dir + "/peer.mp4"));
  }
  std::printf("bench remux_index_overhead: %.1f ms vs %.1f ms (same remux, no index) = %.3f x\n",
              ours * 1e3, plain * 1e3, ours / plain);
  std::printf("bench remux_mp4_index: %.0f MB/s vs %.0f MB/s (ffmpeg -c copy, no index) = %.2f x\n",
              mb / ours, mb / peer, peer / ours);
  std::printf("bench remux_mp4_index_packets: %.0f pkt/s vs %.0f pkt/s (ffmpeg -c copy) = %.2f x\n",
              kPackets / ours, kPackets / peer, peer / ours);
  std::filesystem::remove_all(dir);
  return 0;
}
