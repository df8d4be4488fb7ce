// The index writer on real MP4 recordings: real encoded packets written
// through the writing component, the index checked against ffprobe.
#include "index/snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "output/packet_writer.h"
#include "support/encoded_media.h"
#include "support/index_check.h"
#include "support/log_capture.h"
#include "support/files.h"
#include "support/probe.h"

namespace {

namespace fs = std::filesystem;
using zeva::Snapshot;
using zeva::test::EncodedMedia;
using zeva::test::MediaOptions;

using zeva::test::ReadFile;

int64_t FileSize(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

// An MP4 output written through the library's writing component, which
// orders packets by decode time and tells the index of each. libx264 gives
// its packets no duration; with `video_durations` each video packet gets one
// frame's.
class Mp4Output {
 public:
  Mp4Output(const EncodedMedia& media, const std::string& path, bool video_durations = false)
      : media_(media), video_durations_(video_durations) {
    AVFormatContext* oc = nullptr;
    if (avformat_alloc_output_context2(&oc, nullptr, "mp4", path.c_str()) < 0) return;
    oc_.reset(oc);
    if (!zeva::test::AddStreams(oc, media) ||
        avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) {
      oc_.reset();
      return;
    }
    writer_ = std::make_unique<zeva::PacketWriter>(oc);
  }

  AVFormatContext* oc() const { return oc_.get(); }

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
    av_packet_rescale_ts(pkt.get(), media_.streams[static_cast<size_t>(s)].time_base,
                         oc_->streams[s]->time_base);
    return writer_->Write(std::move(pkt)) >= 0;
  }

  bool Finish() { return writer_->WriteTrailer() >= 0; }

 private:
  const EncodedMedia& media_;
  const bool video_durations_;
  zeva::OutputFormatPtr oc_;
  std::unique_ptr<zeva::PacketWriter> writer_;
};

// Records the first `max_packets` packets of `media` into `mp4` with an
// index at `index`.
void Record(const EncodedMedia& media, const std::string& mp4, const std::string& index,
            size_t max_packets = SIZE_MAX, bool video_durations = false) {
  Mp4Output out(media, mp4, video_durations);
  ASSERT_NE(out.oc(), nullptr);
  Snapshot snapshot;
  ASSERT_TRUE(snapshot.open(index.c_str()));
  ASSERT_TRUE(snapshot.attach(out.oc()));
  ASSERT_TRUE(out.WriteHeader(&snapshot));
  for (size_t i = 0; i < media.packets.size() && i < max_packets; ++i) {
    ASSERT_TRUE(out.WritePacket(i)) << "packet " << i;
  }
  ASSERT_TRUE(out.Finish());
}

// The standard alphabet with "=" padding, written independently of FFmpeg.
std::string Base64(const uint8_t* data, int size) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (int i = 0; i < size; i += 3) {
    const int n = std::min(3, size - i);
    uint32_t v = uint32_t{data[i]} << 16;
    if (n > 1) v |= uint32_t{data[i + 1]} << 8;
    if (n > 2) v |= data[i + 2];
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += n > 1 ? kAlphabet[(v >> 6) & 63] : '=';
    out += n > 2 ? kAlphabet[v & 63] : '=';
  }
  return out;
}

class SnapshotTest : public testing::Test {
 protected:
  void SetUp() override { dir_ = zeva::test::MakeTempDir("snapshot"); }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

// ---------------------------------------------------------------------------

struct MovieCase {
  const char* name;
  MediaOptions media;
  bool video_durations;
};

class SnapshotMovie : public SnapshotTest, public testing::WithParamInterface<MovieCase> {};

TEST_P(SnapshotMovie, IndexDescribesEveryPacketButTheLast) {
  const EncodedMedia media = zeva::test::EncodeTestMedia(GetParam().media);
  ASSERT_FALSE(media.packets.empty());
  Record(media, Path("movie.mp4"), Path("movie.idx"), SIZE_MAX, GetParam().video_durations);
  zeva::test::ExpectIndexMatchesProbe(Path("movie.mp4"), Path("movie.idx"));
  const zeva::test::IndexFile f = zeva::test::ReadIndexFile(Path("movie.idx"));
  // Enough records for full lines and a closing remainder.
  EXPECT_GE(f.record_lines.size(), 2u);
  if (GetParam().video_durations) {
    for (const zeva::IndexPacket& p : f.packets) {
      if (p.stream == media.video_index) {
        EXPECT_NE(p.duration, 0) << "pts " << p.pts;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Index, SnapshotMovie,
    testing::Values(MovieCase{"VideoAndAudio", {}, true},
                    MovieCase{"VideoWithoutDurations", {}, false},
                    MovieCase{"ReorderedVideoAndAudio", {.b_frames = true}, true},
                    MovieCase{"AudioOnly", {.video = false}, false}),
    [](const testing::TestParamInfo<MovieCase>& info) { return info.param.name; });

TEST_F(SnapshotTest, HeaderAndStreamLinesAreExact) {
  const EncodedMedia media = zeva::test::EncodeTestMedia({.seconds = 0.5});
  Record(media, Path("movie.mp4"), Path("movie.idx"));
  const zeva::test::IndexFile f = zeva::test::ReadIndexFile(Path("movie.idx"));
  EXPECT_EQ(f.header, "## version=2, zeva");
  ASSERT_EQ(f.stream_lines.size(), 2u);

  // Time bases as the muxer chose them: read back from the finished movie.
  const zeva::test::ProbeResult probe = zeva::test::Probe(Path("movie.mp4"));
  ASSERT_EQ(probe.streams.size(), 2u);
  const std::string video_tb = probe.streams[0].time_base;
  const std::string audio_tb = probe.streams[1].time_base;
  const auto tb_members = [](const std::string& tb) {
    const size_t slash = tb.find('/');
    return "\"tb.num\":" + tb.substr(0, slash) + ",\"tb.den\":" + tb.substr(slash + 1);
  };
  const AVCodecParameters* v = media.streams[0].par.get();
  const AVCodecParameters* a = media.streams[1].par.get();
  ASSERT_GT(v->extradata_size, 0);
  ASSERT_GT(a->extradata_size, 0);
  EXPECT_EQ(f.stream_lines[0],
            "{\"type\":\"video\",\"index\":0,\"codec\":\"h264\",\"format\":\"yuv420p\",\"h\":240,"
            "\"w\":320," +
                tb_members(video_tb) + ",\"ev\":\"" + Base64(v->extradata, v->extradata_size) +
                "\"}");
  EXPECT_EQ(f.stream_lines[1],
            "{\"type\":\"audio\",\"index\":1,\"codec\":\"aac\",\"format\":\"fltp\",\"channels\":2,"
            "\"frame_size\":1024,\"sample_rate\":48000," +
                tb_members(audio_tb) + ",\"ev\":\"" + Base64(a->extradata, a->extradata_size) +
                "\"}");
}

TEST_F(SnapshotTest, OnePacketGivesHeadWithoutRecords) {
  const EncodedMedia media = zeva::test::EncodeTestMedia({.seconds = 0.2});
  Record(media, Path("movie.mp4"), Path("movie.idx"), 1);
  EXPECT_EQ(zeva::test::Probe(Path("movie.mp4")).packets.size(), 1u);
  const std::string text = ReadFile(Path("movie.idx"));
  const zeva::test::IndexFile f = zeva::test::ReadIndexFile(Path("movie.idx"));
  EXPECT_EQ(f.stream_lines.size(), 2u);
  EXPECT_TRUE(f.record_lines.empty()) << text;
  EXPECT_TRUE(f.last_line_ended);
}

// What is on disk at any moment: complete record lines, each describing
// bytes already in the movie file, so a killed process leaves a usable pair.
TEST_F(SnapshotTest, RecordsOnDiskNeverRunAheadOfTheMovie) {
  const EncodedMedia media = zeva::test::EncodeTestMedia({.seconds = 3.0});
  const std::string mp4 = Path("movie.mp4"), index = Path("movie.idx");
  Mp4Output out(media, mp4);
  ASSERT_NE(out.oc(), nullptr);
  Snapshot snapshot;
  ASSERT_TRUE(snapshot.open(index.c_str()));
  ASSERT_TRUE(snapshot.attach(out.oc()));
  ASSERT_TRUE(out.WriteHeader(&snapshot));
  int64_t index_size = FileSize(index);
  int lines_seen = 0;
  for (size_t i = 0; i < media.packets.size(); ++i) {
    ASSERT_TRUE(out.WritePacket(i));
    if (FileSize(index) == index_size) continue;
    index_size = FileSize(index);
    ++lines_seen;
    const zeva::test::IndexFile f = zeva::test::ReadIndexFile(index);
    ASSERT_FALSE(f.packets.empty());
    EXPECT_TRUE(f.last_line_ended);
    const zeva::IndexPacket& last = f.packets.back();
    EXPECT_LE(last.position + last.size, FileSize(mp4)) << "after line " << lines_seen;
  }
  EXPECT_GE(lines_seen, 3);
  ASSERT_TRUE(out.Finish());
}

TEST_F(SnapshotTest, ContextNotBoundIsMuxedUnchangedAndNotRecorded) {
  const EncodedMedia media = zeva::test::EncodeTestMedia({});
  {
    Mp4Output bound(media, Path("bound.mp4"));
    Mp4Output other(media, Path("other.mp4"));
    ASSERT_NE(bound.oc(), nullptr);
    ASSERT_NE(other.oc(), nullptr);
    Snapshot snapshot;
    ASSERT_TRUE(snapshot.open(Path("bound.idx").c_str()));
    ASSERT_TRUE(snapshot.attach(bound.oc()));
    // The snapshot hears of both outputs; only the bound one counts.
    ASSERT_TRUE(other.WriteHeader(&snapshot));
    ASSERT_TRUE(bound.WriteHeader(&snapshot));
    for (size_t i = 0; i < media.packets.size(); ++i) {
      ASSERT_TRUE(other.WritePacket(i));
      ASSERT_TRUE(bound.WritePacket(i));
    }
    ASSERT_TRUE(other.Finish());
    ASSERT_TRUE(bound.Finish());
  }
  EXPECT_TRUE(ReadFile(Path("other.mp4")) == ReadFile(Path("bound.mp4")));
  zeva::test::ExpectIndexMatchesProbe(Path("bound.mp4"), Path("bound.idx"));
}

TEST_F(SnapshotTest, AttachNeedsAnOpenIndexAndAnOutputWithIo) {
  zeva::test::LogCapture log;
  AVFormatContext* raw = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&raw, nullptr, "mp4", Path("m.mp4").c_str()), 0);
  zeva::OutputFormatPtr oc(raw);
  const std::string index = Path("m.idx");

  Snapshot snapshot;
  EXPECT_FALSE(snapshot.attach(oc.get()));
  ASSERT_TRUE(snapshot.open(index.c_str()));
  EXPECT_FALSE(snapshot.attach(nullptr));
  EXPECT_FALSE(snapshot.attach(oc.get()));  // no pb yet
  EXPECT_EQ(log.Take(),
            (std::vector<std::string>{"2:---> moov: fp is nullptr!", "2:---> moov: oc==null",
                                      "2:---> moov: pb==null, not support"}));
  // Unbound, it writes nothing for that context.
  snapshot.on_header(oc.get());
  EXPECT_EQ(FileSize(index), 0);

  ASSERT_GE(avio_open(&oc->pb, Path("m.mp4").c_str(), AVIO_FLAG_WRITE), 0);
  EXPECT_TRUE(snapshot.attach(oc.get()));
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(SnapshotTest, OpenTwiceKeepsTheFirstFile) {
  zeva::test::LogCapture log;
  Snapshot failing;
  EXPECT_FALSE(failing.open(Path("missing/dir/x.idx").c_str()));
  EXPECT_TRUE(log.Take().empty()) << "a failed open is reported by the caller";

  {
    Snapshot snapshot;
    ASSERT_TRUE(snapshot.open(Path("first.idx").c_str()));
    EXPECT_FALSE(snapshot.open(Path("second.idx").c_str()));
    EXPECT_EQ(log.Take(), std::vector<std::string>{"2:already opened !"});
  }
  EXPECT_TRUE(fs::exists(Path("first.idx")));
  EXPECT_FALSE(fs::exists(Path("second.idx")));
}

}  // namespace
