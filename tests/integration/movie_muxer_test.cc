// The movie muxer end to end: generated frames in, files out, checked with
// ffprobe; start failures reaching the status callback; the software
// fallback of a hardware request.
#include "encode/movie_muxer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "encode/video_enc.h"
#include "output/zv_av_writer.h"
#include "support/classic_host.h"
#include "support/files.h"
#include "support/index_check.h"
#include "support/probe.h"

using zeva::MovieMuxer;

namespace {

using zeva::test::Status;

MovieInfo Settings(const std::string& url) {
  MovieInfo info{};
  std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
  info.audio_bitrate = 128;
  info.src_sample_rate = 48000;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_fmt = AV_SAMPLE_FMT_FLTP;
  info.video_bitrate = 800;
  info.width = info.src_width = 320;
  info.height = info.src_height = 240;
  info.fps = 25;
  info.gop_size = 25;
  info.src_pix_fmt = AV_PIX_FMT_BGRA;
  info.pix_fmt = AV_PIX_FMT_YUV420P;
  info.colorspace = 2;
  info.preset = QL_ULTRAFAST;
  info.profile = PL_BASELINE;
  info.tune = TL_ZEROLATENCY;
  return info;
}

// Feeds `seconds` of the generated picture (host BGRA, converted by the
// encoder) and silence in the encoder's own audio frame.
void Feed(MovieMuxer& m, double seconds) {
  const int fps = m.effective().fps;
  const AVRational vtb{1, fps};
  if (m.has_video()) {
    for (int i = 0; i < int(seconds * fps); ++i) {
      AVFrame* f = m.video_enc()->generate_test_frame(&m.video_stream(), vtb);
      ASSERT_NE(f, nullptr);
      ASSERT_GE(m.write_video_frame(f, &vtb), 0);
    }
  }
  if (m.has_audio()) {
    AVFrame* f = m.audio_stream().frame.get();
    const AVRational atb{1, f->sample_rate};
    for (int64_t s = 0; s < int64_t(seconds * f->sample_rate); s += f->nb_samples) {
      ASSERT_GE(av_frame_make_writable(f), 0);
      av_samples_set_silence(f->data, 0, f->nb_samples, f->ch_layout.nb_channels,
                             static_cast<AVSampleFormat>(f->format));
      f->pts = s;
      ASSERT_GE(m.write_audio_frame(f, &atb), 0);
    }
  }
}

class MovieMuxerTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return dir_ / name; }

  // Starts a muxer with the classic writer chain; returns the status code.
  int Start(MovieMuxer& m, const MovieInfo& info, Status* status) {
    m.start(info, &Status::Callback, status, false);
    return status->Wait().code;
  }
  const zeva::test::TempDir dir_;
};

struct ContainerCase {
  const char* ext;
  const char* video;
  const char* audio;
  int sample_rate;  // what the encoder really runs at
};

class Containers : public MovieMuxerTest, public ::testing::WithParamInterface<ContainerCase> {};

// Every container gets its codecs; MP4 alone gets an index beside it.
TEST_P(Containers, WriteTheContainersCodecsAtTheFedDuration) {
  const ContainerCase& c = GetParam();
  const std::string url = Path(std::string("movie") + c.ext), moov = Path("movie.moov");
  MovieInfo info = Settings(url);
  std::snprintf(info.moov_url, sizeof info.moov_url, "%s", moov.c_str());
  MovieMuxer m(new ZV::ZV_AVWriter(60, 1000, url.c_str()));
  Status status;
  ASSERT_EQ(Start(m, info, &status), 0) << status.Wait().message;
  EXPECT_EQ(status.Wait().message, "start OK");
  EXPECT_EQ(m.effective().sample_rate, c.sample_rate);
  Feed(m, 2.0);
  m.stop();

  const zeva::test::ProbeResult r = zeva::test::Probe(url);
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 2u);
  // Some readers (FLV) number streams in the order their first packets come.
  const int v = r.streams[0].codec_type == "video" ? 0 : 1, a = 1 - v;
  EXPECT_EQ(r.streams[v].codec_name, c.video);
  EXPECT_EQ(r.streams[v].width, 320);
  EXPECT_EQ(r.streams[v].height, 240);
  EXPECT_NEAR(r.streams[v].avg_frame_rate, 25.0, 0.01);
  EXPECT_EQ(r.streams[a].codec_name, c.audio);
  EXPECT_EQ(r.streams[a].sample_rate, c.sample_rate);
  EXPECT_EQ(zeva::test::PacketsOf(r, v).size(), 50u);
  EXPECT_NEAR(r.duration, 2.0, 0.1) << c.ext;
  if (std::string(c.ext) == ".mp4") {
    zeva::test::ExpectIndexMatchesProbe(url, moov);
  } else {
    EXPECT_FALSE(std::filesystem::exists(moov));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Muxer, Containers,
    ::testing::Values(ContainerCase{".mp4", "h264", "aac", 48000},
                      ContainerCase{".flv", "flv1", "mp3", 44100},
                      ContainerCase{".ts", "mpeg2video", "mp2", 48000},
                      ContainerCase{".avi", "mpeg4", "mp3", 48000}),
    [](const auto& info) { return std::string(info.param.ext + 1); });

TEST_F(MovieMuxerTest, StartFailuresReachTheStatusCallback) {
  struct Row { std::string url; int width; const char* other; int code; const char* prefix; };
  const std::string missing = Path("missing-dir/x.flv");
  for (const Row& row : {Row{Path("odd.mp4"), 0, nullptr, 21, "Could not open video codec: "},
                         Row{Path("ok.mp4"), 320, missing.c_str(), 21, "io open failed: "}}) {
    SCOPED_TRACE(row.url);
    MovieInfo info = Settings(row.url);
    info.width = row.width;
    info.other_urls[0] = row.other;
    MovieMuxer m(new ZV::ZV_AVWriter(60, 1000, info.url));
    Status status;
    EXPECT_EQ(Start(m, info, &status), row.code);
    EXPECT_EQ(status.Wait().message.rfind(row.prefix, 0), 0u) << status.Wait().message;
    EXPECT_FALSE(m.running());
    // Frames after a failed start are ignored, and stop still cleans up.
    EXPECT_EQ(m.write_video_frame(nullptr, nullptr), 0);
    EXPECT_TRUE(m.stop());
  }
}

// Without a GPU here, a hardware request ends with libx264.
TEST_F(MovieMuxerTest, HardwareRequestFallsBackToSoftware) {
  MovieInfo info = Settings(Path("hw.mp4"));
  info.hardware = true;
  MovieMuxer m(new ZV::ZV_AVWriter(60, 1000, info.url));
  Status status;
  ASSERT_EQ(Start(m, info, &status), 0) << status.Wait().message;
  EXPECT_FALSE(m.effective().hardware);
  EXPECT_STREQ(m.video_stream().enc->codec->name, "libx264");
  m.stop();
}

}  // namespace
