// The packet path's crash-safe index: how soon it opens, and that it
// agrees with ffprobe about the finished movie.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/es_media.h"
#include "support/index_check.h"
#include "zeva/zeva.h"

namespace {


class PacketOutput : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return dir_ / name; }
  const zeva::test::TempDir dir_;
};

// Pushed at real-time pace, the outputs and the index exist about a second
// after the first key frame (not after a long stream analysis); the rest is
// pushed at once, and the finished index agrees with ffprobe packet by packet.
TEST_F(PacketOutput, IndexOpensPromptlyAndMatchesTheMovie) {
  const auto& m = zeva::test::TestStreams();
  ASSERT_EQ(m.error, "");
  MovieInfo2 info{};
  std::snprintf(info.url, sizeof info.url, "%s", Path("rec.mp4").c_str());
  std::snprintf(info.moov, sizeof info.moov, "%s", Path("rec.idx").c_str());
  info.vcodec = info.acodec = 1;
  void* h = ZEVA2_start(info, nullptr, nullptr);
  ASSERT_NE(h, nullptr);
  const auto start = std::chrono::steady_clock::now();
  const int64_t t0 = ZEVA_current_sys_usec();
  double opened_after = -1;
  for (size_t v = 0, a = 0; v < m.video.size() || a < m.audio.size();) {
    const bool video = v < m.video.size() && (a == m.audio.size() || m.video[v].pts_us <= m.audio[a].pts_us);
    const zeva::test::EsPacket& p = video ? m.video[v++] : m.audio[a++];
    if (opened_after < 0) std::this_thread::sleep_until(start + std::chrono::microseconds(p.pts_us));
    std::vector<uint8_t> d = p.data;
    (video ? ZEVA2_write_video_packet : ZEVA2_write_audio_packet)(h, d.data(), int(d.size()), t0 + p.pts_us);
    if (opened_after < 0 && zeva::test::ReadIndexFile(Path("rec.idx")).stream_lines.size() == 2) {
      opened_after = double(p.pts_us) / 1e6;
    }
  }
  ZEVA2_stop(&h);
  EXPECT_GE(opened_after, 0);
  EXPECT_LE(opened_after, 1.0);
  zeva::test::ExpectIndexMatchesProbe(Path("rec.mp4"), Path("rec.idx"), true);
}

}  // namespace
