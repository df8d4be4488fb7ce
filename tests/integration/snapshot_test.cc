// The index writer on real MP4 recordings: real encoded packets written
// through the writing component, the index checked against ffprobe.
#include "index/snapshot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/base64.h>
}

#include "output/packet_writer.h"
#include "support/encoded_media.h"
#include "support/files.h"
#include "support/index_check.h"
#include "support/probe.h"

namespace {

namespace fs = std::filesystem;
using zeva::Snapshot;
using zeva::test::EncodedMedia;
using zeva::test::ReadIndexFile;

// An MP4 output written through the library's writing component, which
// orders packets by decode time and tells the snapshot of each. libx264
// gives its packets no duration; with `video_durations` each video packet
// gets one frame's.
class Mp4Output {
 public:
  Mp4Output(const EncodedMedia& media, const std::string& path, bool video_durations = false)
      : media_(media), video_durations_(video_durations) {
    AVFormatContext* oc = nullptr;
    if (avformat_alloc_output_context2(&oc, nullptr, "mp4", path.c_str()) < 0) return;
    oc_.reset(oc);
    if (!zeva::test::AddStreams(oc, media) || avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) return;
    writer_ = std::make_unique<zeva::PacketWriter>(oc);
  }

  bool WriteHeader(Snapshot* snapshot) {
    if (!writer_) return false;
    writer_->set_snapshot(snapshot);
    return writer_->WriteHeader(nullptr) >= 0;
  }
  // Packet `i` of the media, in encoder order.
  bool WritePacket(size_t i) {
    zeva::PacketPtr pkt = zeva::test::ClonePacket(media_, i);
    const int s = media_.packets[i].stream;
    if (video_durations_ && s == media_.video_index && pkt->duration == 0) pkt->duration = 1;
    av_packet_rescale_ts(pkt.get(), media_.streams[size_t(s)].time_base, oc_->streams[s]->time_base);
    return writer_->Write(std::move(pkt)) >= 0;
  }
  bool Finish() { return writer_->WriteTrailer() >= 0; }

  const EncodedMedia& media_;
  const bool video_durations_;
  zeva::OutputFormatPtr oc_;
  std::unique_ptr<zeva::PacketWriter> writer_;
};

class SnapshotTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return dir_ / name; }

  // Records the first `max_packets` packets of `media` into movie.mp4 with
  // the index movie.idx; `on_line` runs after each packet that made the
  // index grow.
  void Record(const EncodedMedia& media, size_t max_packets = SIZE_MAX, bool video_durations = false,
              const std::function<void()>& on_line = nullptr) {
    Mp4Output out(media, Path("movie.mp4"), video_durations);
    Snapshot snapshot;
    ASSERT_TRUE(snapshot.open(Path("movie.idx").c_str()));
    ASSERT_TRUE(snapshot.attach(out.oc_.get()));
    ASSERT_TRUE(out.WriteHeader(&snapshot));
    for (size_t i = 0; i < media.packets.size() && i < max_packets; ++i) {
      const uintmax_t index_size = fs::file_size(Path("movie.idx"));
      ASSERT_TRUE(out.WritePacket(i)) << "packet " << i;
      if (on_line && fs::file_size(Path("movie.idx")) != index_size) on_line();
    }
    ASSERT_TRUE(out.Finish());
  }

  const zeva::test::TempDir dir_;
};

struct MovieCase {
  const char* name;
  zeva::test::MediaOptions media;
  bool video_durations;
};

class SnapshotMovie : public SnapshotTest, public testing::WithParamInterface<MovieCase> {};

// Every packet but the last has its record, in full lines and a closing
// remainder; each stream line carries the encoder's extradata.
TEST_P(SnapshotMovie, IndexDescribesEveryPacketButTheLast) {
  const EncodedMedia media = zeva::test::EncodeTestMedia(GetParam().media);
  ASSERT_FALSE(media.packets.empty());
  Record(media, SIZE_MAX, GetParam().video_durations);
  zeva::test::ExpectIndexMatchesProbe(Path("movie.mp4"), Path("movie.idx"));
  const zeva::test::IndexFile f = ReadIndexFile(Path("movie.idx"));
  EXPECT_EQ(f.header, "## version=2, zeva");
  EXPECT_GE(f.record_lines.size(), 2u);
  ASSERT_EQ(f.stream_lines.size(), media.streams.size());
  for (size_t s = 0; s < media.streams.size(); ++s) {
    const AVCodecParameters* par = media.streams[s].par.get();
    std::string ev(size_t(AV_BASE64_SIZE(par->extradata_size)), '\0');
    av_base64_encode(ev.data(), int(ev.size()), par->extradata, par->extradata_size);
    EXPECT_NE(f.stream_lines[s].find(",\"ev\":\"" + std::string(ev.c_str()) + "\"}"), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(Index, SnapshotMovie,
                         testing::Values(MovieCase{"VideoAndAudio", {}, true},
                                         MovieCase{"VideoWithoutDurations", {}, false},
                                         MovieCase{"ReorderedVideoAndAudio", {.b_frames = true}, true},
                                         MovieCase{"AudioOnly", {.video = false}, false}),
                         [](const testing::TestParamInfo<MovieCase>& info) { return info.param.name; });

TEST_F(SnapshotTest, OnePacketGivesHeadWithoutRecords) {
  Record(zeva::test::EncodeTestMedia({.seconds = 0.2}), 1);
  EXPECT_EQ(zeva::test::Probe(Path("movie.mp4")).packets.size(), 1u);
  const zeva::test::IndexFile f = ReadIndexFile(Path("movie.idx"));
  EXPECT_EQ(f.stream_lines.size(), 2u);
  EXPECT_TRUE(f.record_lines.empty()) << zeva::test::ReadFile(Path("movie.idx"));
  EXPECT_TRUE(f.last_line_ended);
}

// What is on disk at any moment: complete record lines, each describing
// bytes already in the movie file, so a killed process leaves a usable pair.
TEST_F(SnapshotTest, RecordsOnDiskNeverRunAheadOfTheMovie) {
  int lines_seen = 0;
  Record(zeva::test::EncodeTestMedia({.seconds = 3.0}), SIZE_MAX, false, [&] {
    ++lines_seen;
    const zeva::test::IndexFile f = ReadIndexFile(Path("movie.idx"));
    ASSERT_FALSE(f.packets.empty());
    EXPECT_TRUE(f.last_line_ended);
    EXPECT_LE(uintmax_t(f.packets.back().position + f.packets.back().size), fs::file_size(Path("movie.mp4")))
        << "after line " << lines_seen;
  });
  EXPECT_GE(lines_seen, 3);
}

}  // namespace
