// Repair speed against `cp` of the same broken file.
//
//   repair  a crashed 720p MP4 recording of over 200 MB (written with its
//           index, then abandoned without a trailer) rebuilt into a finished
//           MP4, against copying the broken file with cp
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

#include "bench_media.h"
#include "index/snapshot.h"
#include "output/packet_writer.h"
#include "zeva/log.h"
#include "zeva/repair.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// Writes `packets` with an index, as a recording does, and leaves the file
// without its trailer, as a crash does.
void WriteBrokenRecording(const zeva::test::EncodedMedia& media,
                          const std::vector<zeva::PacketPtr>& packets, const std::string& path,
                          const std::string& index) {
  AVFormatContext* raw = nullptr;
  avformat_alloc_output_context2(&raw, nullptr, nullptr, path.c_str());
  zeva::OutputFormatPtr oc(raw);
  zeva::test::AddStreams(oc.get(), media);
  if (avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) std::abort();
  zeva::Snapshot snapshot;
  zeva::PacketWriter writer(oc.get());
  if (!snapshot.open(index.c_str()) || !snapshot.attach(oc.get())) std::abort();
  writer.set_snapshot(&snapshot);
  if (writer.WriteHeader(nullptr) < 0) std::abort();
  for (const auto& p : packets) {
    zeva::PacketPtr c(av_packet_clone(p.get()));
    av_packet_rescale_ts(c.get(), media.streams[c->stream_index].time_base,
                         oc->streams[c->stream_index]->time_base);
    if (writer.Write(std::move(c)) < 0) std::abort();
  }
  if (writer.Flush() < 0) std::abort();
  avio_flush(oc->pb);  // no trailer: the writer dies here
}

}  // namespace

int main() {
  av_log_set_level(AV_LOG_QUIET);
  ZEVA_Log_Level(-1);  // the repair's own progress lines are not part of the figure
  const std::string dir = zeva::test::MakeTempDir("repair-bench");
  zeva::test::MediaOptions o;
  o.seconds = 4;
  o.width = 1280;
  o.height = 720;
  o.video_bitrate = 8000000;  // a desktop recording's size: over 200 MB in the repeated packets
  const zeva::test::EncodedMedia media = zeva::test::EncodeTestMedia(o);
  const std::string broken = dir + "/broken.mp4", index = dir + "/broken.moov";
  WriteBrokenRecording(media, zeva::bench::RepeatPackets(media, 40000), broken, index);
  const double mb = static_cast<double>(std::filesystem::file_size(broken)) / 1e6;
  if (mb < 200) std::fprintf(stderr, "warning: broken file is only %.0f MB\n", mb);

  // The repair prints its progress on standard output; keep it off ours.
  std::fflush(stdout);
  const int saved = dup(1);
  std::freopen("/dev/null", "w", stdout);
  double ours = 1e9, peer = 1e9;
  for (int i = 0; i < 3; ++i) {
    auto t0 = Clock::now();
    if (!ZEVA_StartRepair_sync(broken.c_str(), index.c_str(), (dir + "/repaired.mp4").c_str(),
                               nullptr, nullptr)) {
      std::abort();
    }
    ours = std::min(ours, Seconds(t0, Clock::now()));
    t0 = Clock::now();
    if (std::system(("cp '" + broken + "' '" + dir + "/copy.mp4'").c_str()) != 0) std::abort();
    peer = std::min(peer, Seconds(t0, Clock::now()));
  }
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::printf("bench repair: %.0f MB/s vs %.0f MB/s (cp of the %.0f MB broken file) = %.2f x\n",
              mb / ours, mb / peer, mb, peer / ours);
  std::filesystem::remove_all(dir);
  return 0;
}
