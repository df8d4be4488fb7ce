// The writer chain of a classic recording, fed with real encoded packets and
// checked with ffprobe.
#include "output/zv_av_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/encoded_media.h"
#include "support/files.h"
#include "support/index_check.h"
#include "support/probe.h"

using zeva::test::EncodedMedia;
using zeva::test::Probe;
using zeva::test::ProbeResult;

namespace {

const EncodedMedia& Media() {
  static const EncodedMedia media = zeva::test::EncodeTestMedia({.seconds = 1.0});
  return media;
}

// What the movie muxer does for the main output: a context with the streams
// and its file open, owned by the caller.
zeva::OutputFormatPtr MainContext(const std::string& url, const EncodedMedia& media) {
  AVFormatContext* oc = nullptr;
  if (avformat_alloc_output_context2(&oc, nullptr, nullptr, url.c_str()) < 0) return nullptr;
  zeva::OutputFormatPtr owned(oc);
  if (!zeva::test::AddStreams(oc, media)) return nullptr;
  if (avio_open(&oc->pb, url.c_str(), AVIO_FLAG_WRITE) < 0) return nullptr;
  return owned;
}

// Error codes of the chain's writer threads, read once they were joined.
using ErrorLog = std::vector<int>;
void OnError(int code, const char*, void* user) { static_cast<ErrorLog*>(user)->push_back(code); }

// Records `media` through a chain: main `url`, further `others`, index `moov`.
// Returns the open result; the chain is stopped and destroyed on return.
zeva::WriterResult Record(const std::string& url, std::vector<const char*> others,
                          const std::string& moov, const char* meta, const EncodedMedia& media,
                          ErrorLog* errors = nullptr, int* dropped_or_failed = nullptr) {
  zeva::OutputFormatPtr oc = MainContext(url, media);
  EXPECT_TRUE(oc) << url;
  if (!oc) return {-1, "no context", true};
  ZV::ZV_AVWriter writer(60, 1000, url.c_str());
  if (errors) writer.set_error_callback(&OnError, errors);
  others.push_back(nullptr);
  writer.create_other_writers(others.data());
  zeva::WriterResult opened = writer.open(oc.get(), meta, moov.c_str());
  if (opened.failed) return opened;
  EXPECT_TRUE(writer.start());
  int bad = 0;
  for (size_t i = 0; i < media.packets.size(); ++i) {
    zeva::PacketPtr pkt = zeva::test::ClonePacket(media, i);
    if (writer.write_packet(media.streams[pkt->stream_index].time_base, pkt.get(), 1) != 0) ++bad;
  }
  writer.stop();
  EXPECT_TRUE(writer.trailer_written());
  if (dropped_or_failed) *dropped_or_failed = bad;
  return opened;
}

// Both streams present, every packet there, decode times growing per stream.
void ExpectComplete(const ProbeResult& r, const EncodedMedia& media, const std::string& what) {
  ASSERT_TRUE(r.ok) << what << ": " << r.errors;
  ASSERT_EQ(r.streams.size(), 2u) << what;
  EXPECT_EQ(r.streams[0].codec_name, "h264") << what;
  EXPECT_EQ(r.streams[1].codec_name, "aac") << what;
  EXPECT_EQ(r.packets.size(), media.packets.size()) << what;
  for (int s = 0; s < 2; ++s) {
    int64_t last = INT64_MIN;
    for (const auto& p : zeva::test::PacketsOf(r, s)) {
      EXPECT_GT(p.dts, last) << what << " stream " << s;
      last = p.dts;
    }
  }
  EXPECT_NEAR(r.duration, 1.0, 0.1) << what;
}

class WriterChain : public ::testing::Test {
 protected:
  std::string Path(const char* name) const { return dir_ / name; }
  const zeva::test::TempDir dir_;
};

TEST_F(WriterChain, MainAndFurtherOutputsGetEveryPacketAndTheIndexMatches) {
  const std::string mp4 = Path("main.mp4"), flv = Path("copy.flv"), ts = Path("copy.ts"),
                    moov = Path("main.moov");
  int bad = -1;
  auto r = Record(mp4, {flv.c_str(), ts.c_str()}, moov, "title:Chain test;comment:a:b", Media(),
                  nullptr, &bad);
  ASSERT_FALSE(r.failed) << r.message;
  EXPECT_EQ(bad, 0);
  const ProbeResult main = Probe(mp4);
  ExpectComplete(main, Media(), "mp4");
  EXPECT_EQ(main.tags.at("title"), "Chain test");
  EXPECT_EQ(main.tags.at("comment"), "a:b");
  ExpectComplete(Probe(flv), Media(), "flv");
  ExpectComplete(Probe(ts), Media(), "ts");
  // Only ".mp4" outputs carry an index.
  zeva::test::ExpectIndexMatchesProbe(mp4, moov);
}

TEST_F(WriterChain, FailingFurtherOutputIsReportedAndMainStaysComplete) {
  // /dev/full accepts the open and fails every write with ENOSPC; the link
  // gives the muxer a name to pick MPEG-TS by.
  ErrorLog errors;
  const std::string mp4 = Path("main.mp4"), moov = Path("main.moov"), full = Path("full.ts");
  std::filesystem::create_symlink("/dev/full", full);
  auto r = Record(mp4, {full.c_str()}, moov, nullptr, Media(), &errors);
  if (r.failed) {
    // The muxer may already fail writing the header into the full device.
    EXPECT_LT(r.value, 0);
    GTEST_SKIP() << "header write failed at open: " << r.message;
  }
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors[0], AVERROR(ENOSPC));
  ExpectComplete(Probe(mp4), Media(), "main");
  zeva::test::ExpectIndexMatchesProbe(mp4, moov);
}

TEST_F(WriterChain, PacketsWhoseTimeDoesNotGrowOrStreamIsUnknownAreRefused) {
  const std::string flv = Path("drop.flv");
  zeva::OutputFormatPtr oc = MainContext(flv, Media());
  ASSERT_TRUE(oc);
  ZV::ZV_AVWriter writer(60, 1000, flv.c_str());
  ASSERT_FALSE(writer.open(oc.get(), nullptr, nullptr).failed);
  ASSERT_TRUE(writer.start());
  size_t written = 0;
  for (size_t i = 0; i < Media().packets.size(); ++i) {
    zeva::PacketPtr pkt = zeva::test::ClonePacket(Media(), i);
    const AVRational tb = Media().streams[pkt->stream_index].time_base;
    zeva::PacketPtr again(av_packet_clone(pkt.get()));
    EXPECT_EQ(writer.write_packet(tb, pkt.get(), 1), 0);
    ++written;
    if (i == 10) {
      EXPECT_EQ(writer.write_packet(tb, again.get(), 1), 0);  // same time: dropped
    }
  }
  // A stream index past the streams of the output is refused.
  zeva::PacketPtr stray = zeva::test::ClonePacket(Media(), 0);
  stray->stream_index = 5;
  EXPECT_EQ(writer.write_packet({1, 30}, stray.get(), 1), -1);
  writer.stop();
  EXPECT_EQ(Probe(flv).packets.size(), written);
}

}  // namespace
