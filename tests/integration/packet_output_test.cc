// The packet path's outputs from the inside: the crash-safe index of a
// packet recording against ffprobe, how soon outputs open, recordings killed
// mid-write and repaired, and the Opus transcoding of stream outputs.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <thread>

extern "C" {
#include <libavformat/avformat.h>
}

#include "packet/aac_to_opus.h"
#include "packet/output_context.h"
#include "support/encoded_media.h"
#include "support/es_media.h"
#include "support/index_check.h"
#include "support/probe.h"
#include "zeva/zeva.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using zeva::test::DecodeErrors;
using zeva::test::EsMedia;
using zeva::test::Probe;
using zeva::test::ProbeResult;

class PacketOutput : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(media().error, "");
    dir_ = zeva::test::MakeTempDir("packet-out");
  }
  void TearDown() override {
    if (HasFailure()) {
      std::cout << "files kept in " << dir_ << "\n";
    } else {
      fs::remove_all(dir_);
    }
  }
  static const EsMedia& media() { return zeva::test::TestStreams(4.0, 30); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string dir_;
};

// Pushed at real-time pace, the outputs and the index exist about a second
// after the first key frame (not after a long stream analysis), and the
// finished index agrees with ffprobe packet by packet.
TEST_F(PacketOutput, IndexOpensPromptlyAndMatchesTheMovie) {
  MovieInfo2 info{};
  std::snprintf(info.url, sizeof info.url, "%s", Path("rec.mp4").c_str());
  std::snprintf(info.moov, sizeof info.moov, "%s", Path("rec.idx").c_str());
  info.vcodec = info.acodec = 1;
  void* h = ZEVA2_start(info, nullptr, nullptr);
  ASSERT_NE(h, nullptr);
  const EsMedia& m = media();
  const auto start = std::chrono::steady_clock::now();
  const int64_t t0 = ZEVA_current_sys_usec();
  double opened_after = -1;
  for (size_t v = 0, a = 0; v < m.video.size() || a < m.audio.size();) {
    const bool video = v < m.video.size() && (a == m.audio.size() || m.video[v].pts_us <= m.audio[a].pts_us);
    const zeva::test::EsPacket& p = video ? m.video[v++] : m.audio[a++];
    std::this_thread::sleep_until(start + std::chrono::microseconds(p.pts_us));
    std::vector<uint8_t> d = p.data;
    (video ? ZEVA2_write_video_packet : ZEVA2_write_audio_packet)(h, d.data(), int(d.size()),
                                                                   t0 + p.pts_us);
    if (opened_after < 0 && zeva::test::ReadIndexFile(Path("rec.idx")).stream_lines.size() == 2) {
      opened_after = double(p.pts_us) / 1e6;
    }
  }
  ZEVA2_stop(&h);
  std::cout << "index open after " << opened_after << " s of media\n";
  EXPECT_GE(opened_after, 0);
  EXPECT_LE(opened_after, 1.0);
  zeva::test::ExpectIndexMatchesProbe(Path("rec.mp4"), Path("rec.idx"), true);
}

// `zeva push --realtime` killed at random moments: the repair rebuilds a
// movie that decodes cleanly and holds every packet the index recorded.
TEST_F(PacketOutput, KilledPushIsRepairedFromItsIndex) {
  unsigned seed = std::random_device{}();
  if (const char* env = std::getenv("ZEVA_CRASH_SEED")) seed = unsigned(std::strtoul(env, nullptr, 10));
  std::cout << "ZEVA_CRASH_SEED=" << seed << std::endl;
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> kill_after_ms(1500, 3500);
  for (int round = 0; round < 3; ++round) {
    const int ms = kill_after_ms(rng);
    SCOPED_TRACE("killed after " + std::to_string(ms) + " ms");
    const std::string broken = Path("b" + std::to_string(round) + ".mp4");
    const std::string index = broken + ".idx", out = broken + ".repaired.mp4";
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      execl(ZEVA_TOOL, ZEVA_TOOL, "push", media().h264_path.c_str(), media().aac_path.c_str(),
            broken.c_str(), "--index", index.c_str(), "--realtime", static_cast<char*>(nullptr));
      _exit(127);
    }
    std::this_thread::sleep_for(milliseconds(ms));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "ended before it was killed";

    const auto file_size = int64_t(fs::file_size(broken));
    size_t indexed = 0;
    for (const auto& p : zeva::test::ReadIndexFile(index).packets) indexed += p.position + p.size <= file_size;
    ASSERT_TRUE(ZEVA_StartRepair_sync(broken.c_str(), index.c_str(), out.c_str(), nullptr, nullptr));
    const ProbeResult r = Probe(out);
    ASSERT_TRUE(r.ok) << r.errors;
    EXPECT_GE(r.packets.size(), indexed);
    EXPECT_GT(indexed, 0u);
    EXPECT_EQ(DecodeErrors(out), "");
    std::cout << "killed after " << ms << " ms: " << r.packets.size() << " packets rebuilt, "
              << indexed << " indexed\n";
  }
}

// Stream outputs carry Opus at 48 kHz: the AAC input re-encoded on the way,
// here into a local container that takes Opus.
TEST_F(PacketOutput, AacIsTranscodedToOpus) {
  AVFormatContext* raw = nullptr;
  ASSERT_EQ(avformat_open_input(&raw, media().aac_path.c_str(), nullptr, nullptr), 0);
  zeva::InputFormatPtr in(raw);
  ASSERT_GE(avformat_find_stream_info(in.get(), nullptr), 0);
  zeva::OutputList outputs;
  outputs.push_back(std::make_unique<zeva::OutputContext>());
  outputs[0]->transcode_audio_to_opus();
  const zeva::Status s =
      outputs[0]->open(nullptr, in->streams[0], Path("opus.mkv").c_str(), nullptr, nullptr, 0, nullptr);
  ASSERT_TRUE(s.ok) << s.message;
  zeva::PacketPtr pkt = zeva::NewPacket();
  const AVRational micros{1, 1000000};
  while (av_read_frame(in.get(), pkt.get()) >= 0) {
    av_packet_rescale_ts(pkt.get(), in->streams[0]->time_base, micros);
    ASSERT_EQ(zeva::route(pkt.get(), micros, "aac", outputs, false), 0);
    av_packet_unref(pkt.get());
  }
  outputs[0]->transcoder()->transcode(nullptr, micros, [&](AVPacket* p, const AVRational& tb) {
    return outputs[0]->enqueue(p, tb, outputs[0]->audio_index());
  });
  outputs[0]->close();
  const ProbeResult r = Probe(Path("opus.mkv"));
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 1u);
  EXPECT_EQ(r.streams[0].codec_name, "opus");
  EXPECT_EQ(r.streams[0].sample_rate, 48000);
  EXPECT_NEAR(r.duration, 4.0, 0.1);
  EXPECT_EQ(DecodeErrors(Path("opus.mkv")), "");
}

}  // namespace
