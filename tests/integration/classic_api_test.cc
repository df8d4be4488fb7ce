// The classic interface as a host uses it: only <zeva/zeva.h> and
// libzeva.so, raw pictures and PCM in, files out, checked with ffprobe.
#include <zeva/zeva.h>

#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "support/classic_host.h"
#include "support/files.h"
#include "support/probe.h"

namespace fs = std::filesystem;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Host;
using zeva::test::Settings;
using zeva::test::Status;

namespace {

// Start and end times of both streams, in seconds.
struct Span { double v0, v1, a0, a1; };
Span SpanOf(const ProbeResult& r) {
  Span s{};
  for (int i = 0; i < int(r.streams.size()); ++i) {
    const auto pkts = zeva::test::PacketsOf(r, i);
    if (pkts.empty()) continue;
    const double tb = [&] {
      int num = 1, den = 1;
      std::sscanf(r.streams[i].time_base.c_str(), "%d/%d", &num, &den);
      return double(num) / den;
    }();
    int64_t lo = INT64_MAX, hi = INT64_MIN;
    for (const auto& p : pkts) {
      lo = std::min(lo, p.pts);
      hi = std::max(hi, p.pts + p.duration);
    }
    (r.streams[i].codec_type == "video" ? s.v0 : s.a0) = lo * tb;
    (r.streams[i].codec_type == "video" ? s.v1 : s.a1) = hi * tb;
  }
  return s;
}

void ExpectMovie(const std::string& path, const char* video, const char* audio, double seconds,
                 int sample_rate = 48000) {
  SCOPED_TRACE(path);
  const ProbeResult r = Probe(path);
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 2u);
  for (const auto& s : r.streams) {
    if (s.codec_type == "video") {
      EXPECT_EQ(s.codec_name, video);
    } else {
      EXPECT_EQ(s.codec_name, audio);
      EXPECT_EQ(s.sample_rate, sample_rate);
    }
  }
  const Span s = SpanOf(r);
  EXPECT_NEAR(s.v1 - s.v0, seconds, 1.0 / 30 + 1e-3);
  EXPECT_NEAR(s.a0, s.v0, 0.05);
  EXPECT_NEAR(s.a1, s.v1, 0.05);
}

class ClassicApi : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zeva-classic-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const char* name) const { return dir_ + "/" + name; }
  std::string dir_;
};

TEST_F(ClassicApi, RecordsTenSecondsToEveryContainerAtOnce) {
  const std::string mp4 = Path("main.mp4"), flv = Path("copy.flv"), ts = Path("copy.ts");
  MovieInfo info = Settings(mp4, 1280, 720);
  info.other_urls[0] = flv.c_str();
  info.other_urls[1] = ts.c_str();
  MovieInfo effective{};
  {
    Host host(info, &effective);
    ASSERT_EQ(host.status().Get().code, 0) << host.status().Get().message;
    EXPECT_EQ(effective.sample_rate, 48000);
    host.FeedUntil(10.0);
    EXPECT_GT(ZEVA_movie_time(host.handle()), 9'900'000);
    EXPECT_GT(ZEVA_last_usec_pts(host.handle()), 9'000'000);
  }
  ExpectMovie(mp4, "h264", "aac", 10.0);
  ExpectMovie(flv, "h264", "aac", 10.0);
  ExpectMovie(ts, "h264", "aac", 10.0);
}

TEST_F(ClassicApi, FlvAndTsAsMainOutputs) {
  for (const char* name : {"main.flv", "main.ts"}) {
    const std::string url = Path(name);
    MovieInfo effective{};
    {
      Host host(Settings(url, 320, 240), &effective);
      ASSERT_EQ(host.status().Get().code, 0) << host.status().Get().message;
      host.FeedUntil(10.0);
    }
    MovieInfo got{};
    const bool flv = url.find(".flv") != std::string::npos;
    ExpectMovie(url, flv ? "flv1" : "mpeg2video", flv ? "mp3" : "mp2", 10.0,
                flv ? 44100 : 48000);
    EXPECT_EQ(effective.sample_rate, flv ? 44100 : 48000);  // reported back
    EXPECT_FALSE(ZEVA_get_mInfo(nullptr, &got));
  }
}

TEST_F(ClassicApi, PauseCutsThePausedTimeOut) {
  const std::string url = Path("paused.mp4");
  {
    Host host(Settings(url, 320, 240));
    // Ten seconds of the host's clock: four recorded, two paused, four more.
    host.FeedUntil(4.0);
    host.PauseFor(2000);
    host.FeedUntil(8.0);
  }
  ExpectMovie(url, "h264", "aac", 8.0);

  // Many short pauses accumulate no drift between the streams.
  const std::string many = Path("many.mp4");
  {
    Host host(Settings(many, 320, 240));
    for (int i = 0; i < 50; ++i) {
      host.FeedUntil(0.1 * (i + 1));
      host.PauseFor(5);
    }
    host.FeedUntil(6.0);
  }
  ExpectMovie(many, "h264", "aac", 6.0);
}

TEST_F(ClassicApi, SilenceFillsExactlyTheGap) {
  const std::string url = Path("silence.mp4");
  {
    Host host(Settings(url, 320, 240));
    host.FeedUntil(2.0);
    host.SilenceUntil(3.5);
    host.FeedUntil(5.0);
  }
  const ProbeResult r = Probe(url);
  ASSERT_TRUE(r.ok);
  int64_t samples = 0;
  for (const auto& s : zeva::test::PacketsOf(r, 1)) samples += s.duration;
  EXPECT_NEAR(double(samples) / 48000, 5.0, 0.03);
  ExpectMovie(url, "h264", "aac", 5.0);
}

class CountingFilter : public FilterBase {
 public:
  CountingFilter(int* frames, int* packets, bool* deleted)
      : frames_(frames), packets_(packets), deleted_(deleted) {}
  ~CountingFilter() override { *deleted_ = true; }
  AVFrame* filter(AVFrame* frame) override {
    ++*frames_;
    return frame;
  }
  void filter(AVPacket*) override { ++*packets_; }

 private:
  int* frames_;
  int* packets_;
  bool* deleted_;
};

TEST_F(ClassicApi, FiltersSeeEveryFrameAndPacket) {
  const std::string url = Path("filtered.mp4");
  int video_frames = 0, audio_packets = 0, unused = 0;
  bool video_deleted = false, audio_deleted = false;
  CountingFilter audio_filter(&unused, &audio_packets, &audio_deleted);  // the host's
  int accepted = 0;
  {
    Host host(Settings(url, 320, 240));
    ASSERT_TRUE(ZEVA_add_video_filter(host.handle(),
                                      new CountingFilter(&video_frames, &unused, &video_deleted)));
    ASSERT_TRUE(ZEVA_add_audio_filter(host.handle(), &audio_filter));
    host.FeedUntil(3.0);
    accepted = host.accepted_video();
  }
  EXPECT_TRUE(video_deleted);   // owned by the video encoder
  EXPECT_FALSE(audio_deleted);  // still the host's
  EXPECT_EQ(video_frames, accepted);
  EXPECT_EQ(size_t(audio_packets), zeva::test::PacketsOf(Probe(url), 1).size());
}

TEST_F(ClassicApi, OtherHostFormatsAndScaledPictures) {
  struct Row { AVPixelFormat fmt; int src_w, src_h; };
  for (const Row row : {Row{AV_PIX_FMT_RGBA, 640, 360}, Row{AV_PIX_FMT_YUV420P, 320, 240},
                        Row{AV_PIX_FMT_BGRA, 320, 240}}) {
    const std::string url = Path("fmt.mp4");
    MovieInfo info = Settings(url, 320, 240);
    info.src_pix_fmt = row.fmt;
    info.src_width = row.src_w;
    info.src_height = row.src_h;
    {
      Host host(info);
      host.FeedUntil(1.0);
      EXPECT_EQ(host.accepted_video(), 30) << av_get_pix_fmt_name(row.fmt);
    }
    const ProbeResult r = Probe(url);
    ASSERT_EQ(r.streams.size(), 2u);
    EXPECT_EQ(r.streams[0].width, 320);
    EXPECT_EQ(r.streams[0].height, 240);
  }
}

TEST_F(ClassicApi, DisabledStreamsAndNullHandles) {
  MovieInfo info = Settings(Path("video-only.mp4"), 320, 240);
  info.disable_audio = true;
  void* h = ZEVA_start(info, nullptr, nullptr, nullptr, false);
  ASSERT_NE(h, nullptr);
  int16_t pcm[882] = {};
  zeva::test::StreamCapture err(stderr, Path("stderr.txt"));
  EXPECT_FALSE(ZEVA_write_audio_pcm(h, pcm, sizeof pcm, ZEVA_current_sys_usec()));
  const std::string printed = err.Finish();
  EXPECT_NE(printed.find("--- disable audio, ignore pcm frame\n"), std::string::npos);
  EXPECT_TRUE(ZEVA_add_audio_filter(h, nullptr));  // true although nothing is stored
  EXPECT_EQ(ZEVA_generate_testing_aFrame(h, AVRational{1, 1000}), nullptr);
  EXPECT_NE(ZEVA_generate_testing_vFrame(h, AVRational{1, 1000}), nullptr);
  EXPECT_EQ(ZEVA_audio_dst_frame(h), nullptr);
  EXPECT_NE(ZEVA_video_dst_frame(h), nullptr);
  MovieInfo got{};
  EXPECT_TRUE(ZEVA_get_mInfo(h, &got));
  EXPECT_TRUE(got.disable_audio);
  EXPECT_FALSE(ZEVA_resume(h));  // not paused
  ZEVA_stop(&h);
  EXPECT_EQ(h, nullptr);
  ZEVA_stop(&h);
  ZEVA_stop(nullptr);

  // Every function tolerates a null handle.
  const AVRational tb{1, 1000};
  EXPECT_FALSE(ZEVA_pause(nullptr));
  EXPECT_FALSE(ZEVA_resume(nullptr));
  EXPECT_FALSE(ZEVA_is_paused(nullptr));
  EXPECT_EQ(ZEVA_movie_time(nullptr), 0);
  EXPECT_EQ(ZEVA_last_usec_pts(nullptr), 0);
  EXPECT_FALSE(ZEVA_write_video_bgra(nullptr, pcm, 4, 0, 4));
  EXPECT_FALSE(ZEVA_write_audio_pcm(nullptr, pcm, 4, 0));
  EXPECT_FALSE(ZEVA_write_video_frame(nullptr, nullptr, tb));
  EXPECT_FALSE(ZEVA_write_audio_frame(nullptr, nullptr, tb));
  EXPECT_EQ(ZEVA_video_dst_frame(nullptr), nullptr);
  EXPECT_EQ(ZEVA_audio_dst_frame(nullptr), nullptr);
  EXPECT_FALSE(ZEVA_add_video_filter(nullptr, nullptr));
  EXPECT_FALSE(ZEVA_add_audio_filter(nullptr, nullptr));
  EXPECT_EQ(ZEVA_generate_testing_vFrame(nullptr, tb), nullptr);
  EXPECT_EQ(ZEVA_generate_testing_aFrame(nullptr, tb), nullptr);
  EXPECT_FALSE(ZEVA_get_mInfo(nullptr, &got));
}

TEST_F(ClassicApi, FailedStartIsReportedAndRefusesFrames) {
  MovieInfo info = Settings(Path("missing-dir/x.mp4"), 320, 240);
  Status status;
  void* h = ZEVA_start(info, &Status::Callback, &status, nullptr, false);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(status.Get().code, 11);
  EXPECT_EQ(status.Get().message, "Could not open url");
  MovieInfo got{};
  EXPECT_FALSE(ZEVA_get_mInfo(h, &got));
  std::vector<uint8_t> picture(320 * 240 * 4);
  EXPECT_FALSE(ZEVA_write_video_bgra(h, picture.data(), int(picture.size()), ZEVA_current_sys_usec(), 1280));
  EXPECT_FALSE(ZEVA_pause(h));
  ZEVA_stop(&h);
}

}  // namespace
