// The index writer on real MP4 recordings: real encoded packets muxed with
// av_write_frame, the index checked against ffprobe's view of the movie.
#include "index/snapshot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include "log/logger.h"
#include "support/encoded_media.h"
#include "support/index_check.h"
#include "support/probe.h"

namespace {

namespace fs = std::filesystem;
using zeva::Snapshot;
using zeva::test::EncodedMedia;
using zeva::test::MediaOptions;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int64_t FileSize(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

// Indexes into media.packets in DTS order across streams (equal DTS: lower
// stream first), as the writing component's interleaver releases them.
std::vector<size_t> DtsOrder(const EncodedMedia& media) {
  std::vector<std::vector<size_t>> per_stream(media.streams.size());
  for (size_t i = 0; i < media.packets.size(); ++i) {
    per_stream[static_cast<size_t>(media.packets[i].stream)].push_back(i);
  }
  std::vector<size_t> next(per_stream.size(), 0);
  std::vector<size_t> order;
  while (order.size() < media.packets.size()) {
    int best = -1;
    for (size_t s = 0; s < per_stream.size(); ++s) {
      if (next[s] == per_stream[s].size()) continue;
      if (best >= 0) {
        const AVPacket* a = media.packets[per_stream[s][next[s]]].pkt.get();
        const auto b_stream = static_cast<size_t>(best);
        const AVPacket* b = media.packets[per_stream[b_stream][next[b_stream]]].pkt.get();
        if (av_compare_ts(a->dts, media.streams[s].time_base, b->dts,
                          media.streams[b_stream].time_base) >= 0) {
          continue;
        }
      }
      best = static_cast<int>(s);
    }
    const auto s = static_cast<size_t>(best);
    order.push_back(per_stream[s][next[s]++]);
  }
  return order;
}

// One MP4 output written the way the library's writing component does it:
// the snapshot hears of the header right after it is written and of each
// packet, in stream time base, right before av_write_frame.
// libx264 gives its packets no duration; with `video_durations` each video
// packet gets one frame's.
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
    }
  }

  AVFormatContext* oc() const { return oc_.get(); }

  bool WriteHeader(Snapshot* snapshot) {
    if (!oc_ || avformat_write_header(oc_.get(), nullptr) < 0) return false;
    if (snapshot != nullptr) snapshot->on_header(oc_.get());
    return true;
  }

  bool WritePacket(size_t i, Snapshot* snapshot) {
    zeva::PacketPtr pkt = zeva::test::ClonePacket(media_, i);
    const int s = media_.packets[i].stream;
    if (video_durations_ && s == media_.video_index && pkt->duration == 0) pkt->duration = 1;
    av_packet_rescale_ts(pkt.get(), media_.streams[static_cast<size_t>(s)].time_base,
                         oc_->streams[s]->time_base);
    pkt->stream_index = s;
    if (snapshot != nullptr) snapshot->on_packet(oc_.get(), pkt.get());
    return av_write_frame(oc_.get(), pkt.get()) >= 0;  // the packet stays ours
  }

  bool Finish() { return av_write_trailer(oc_.get()) >= 0; }

 private:
  const EncodedMedia& media_;
  const bool video_durations_;
  zeva::OutputFormatPtr oc_;
};

// Records the first `max_packets` packets of `media` (DTS order) into `mp4`
// with an index at `index`.
void Record(const EncodedMedia& media, const std::string& mp4, const std::string& index,
            size_t max_packets = SIZE_MAX, bool video_durations = false) {
  Mp4Output out(media, mp4, video_durations);
  ASSERT_NE(out.oc(), nullptr);
  Snapshot snapshot;
  ASSERT_TRUE(snapshot.open(index.c_str()));
  ASSERT_TRUE(snapshot.attach(out.oc()));
  ASSERT_TRUE(out.WriteHeader(&snapshot));
  const std::vector<size_t> order = DtsOrder(media);
  for (size_t k = 0; k < order.size() && k < max_packets; ++k) {
    ASSERT_TRUE(out.WritePacket(order[k], &snapshot)) << "packet " << k;
  }
  ASSERT_TRUE(out.Finish());
}

// Error-level log lines of the library while alive, as "file: message".
class LogCapture {
 public:
  LogCapture() {
    qel::Logger::instance(nullptr)->set_callback(
        [this](const char*, int level, const char* file, int, const char* message) {
          std::lock_guard<std::mutex> lock(mutex_);
          if (level <= zeva::kLogError) {
            lines_.push_back(fs::path(file).filename().string() + ": " + message);
          }
        });
  }
  ~LogCapture() { qel::Logger::instance(nullptr)->set_callback(nullptr); }

  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

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
  for (size_t i : DtsOrder(media)) {
    ASSERT_TRUE(out.WritePacket(i, &snapshot));
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

TEST_F(SnapshotTest, TwoRecordingsAtOnceAreIndependent) {
  const EncodedMedia both = zeva::test::EncodeTestMedia({});
  const EncodedMedia audio = zeva::test::EncodeTestMedia({.video = false});
  std::thread first([&] { Record(both, Path("a.mp4"), Path("a.idx")); });
  std::thread second([&] { Record(audio, Path("b.mp4"), Path("b.idx")); });
  first.join();
  second.join();
  zeva::test::ExpectIndexMatchesProbe(Path("a.mp4"), Path("a.idx"));
  zeva::test::ExpectIndexMatchesProbe(Path("b.mp4"), Path("b.idx"));
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
    for (size_t i : DtsOrder(media)) {
      ASSERT_TRUE(other.WritePacket(i, &snapshot));
      ASSERT_TRUE(bound.WritePacket(i, &snapshot));
    }
    ASSERT_TRUE(other.Finish());
    ASSERT_TRUE(bound.Finish());
  }
  EXPECT_TRUE(ReadFile(Path("other.mp4")) == ReadFile(Path("bound.mp4")));
  zeva::test::ExpectIndexMatchesProbe(Path("bound.mp4"), Path("bound.idx"));
}

TEST_F(SnapshotTest, AttachNeedsAnOpenIndexAndAnOutputWithIo) {
  LogCapture log;
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
            (std::vector<std::string>{"snapshot.cc: ---> moov: fp is nullptr!",
                                      "snapshot.cc: ---> moov: oc==null",
                                      "snapshot.cc: ---> moov: pb==null, not support"}));
  // Unbound, it writes nothing for that context.
  snapshot.on_header(oc.get());
  EXPECT_EQ(FileSize(index), 0);

  ASSERT_GE(avio_open(&oc->pb, Path("m.mp4").c_str(), AVIO_FLAG_WRITE), 0);
  EXPECT_TRUE(snapshot.attach(oc.get()));
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(SnapshotTest, OpenTwiceKeepsTheFirstFile) {
  LogCapture log;
  Snapshot failing;
  EXPECT_FALSE(failing.open(Path("missing/dir/x.idx").c_str()));
  EXPECT_TRUE(log.Take().empty()) << "a failed open is reported by the caller";

  {
    Snapshot snapshot;
    ASSERT_TRUE(snapshot.open(Path("first.idx").c_str()));
    EXPECT_FALSE(snapshot.open(Path("second.idx").c_str()));
    EXPECT_EQ(log.Take(), std::vector<std::string>{"snapshot.cc: already opened !"});
  }
  EXPECT_TRUE(fs::exists(Path("first.idx")));
  EXPECT_FALSE(fs::exists(Path("second.idx")));
}

}  // namespace
