// The classic interface as a host uses it: only <zeva/zeva.h> and
// libzeva.so, raw pictures and PCM in, files out, checked with ffprobe.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/classic_host.h"
#include "support/files.h"
#include "support/probe.h"

using zeva::test::Host;
using zeva::test::PacketsOf;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Settings;

namespace {

// Checks the codecs and that both streams start and end together, `seconds`
// apart; returns the audio's length in seconds.
double ExpectMovie(const std::string& path, const char* video, const char* audio, double seconds,
                   int sample_rate = 48000) {
  SCOPED_TRACE(path);
  const ProbeResult r = Probe(path);
  EXPECT_EQ(r.streams.size(), 2u) << r.errors;
  double lo[2] = {1e9, 1e9}, hi[2] = {-1e9, -1e9}, audio_s = 0;
  for (int i = 0; i < int(r.streams.size()) && i < 2; ++i) {
    const bool is_video = r.streams[i].codec_type == "video";
    EXPECT_EQ(r.streams[i].codec_name, is_video ? video : audio);
    EXPECT_EQ(r.streams[i].sample_rate, is_video ? 0 : sample_rate);
    int num = 1, den = 1;
    std::sscanf(r.streams[i].time_base.c_str(), "%d/%d", &num, &den);
    for (const auto& p : PacketsOf(r, i)) {
      lo[is_video] = std::min(lo[is_video], double(p.pts) * num / den);
      hi[is_video] = std::max(hi[is_video], double(p.pts + p.duration) * num / den);
      audio_s += is_video ? 0 : double(p.duration) * num / den;
    }
  }
  EXPECT_NEAR(hi[1] - lo[1], seconds, 1.0 / 30 + 1e-3);
  EXPECT_NEAR(lo[0], lo[1], 0.05);
  EXPECT_NEAR(hi[0], hi[1], 0.05);
  return audio_s;
}

class CountingFilter : public FilterBase {
 public:
  CountingFilter(int* count, bool* deleted) : count_(count), deleted_(deleted) {}
  ~CountingFilter() override { *deleted_ = true; }
  AVFrame* filter(AVFrame* frame) override {
    ++*count_;
    return frame;
  }
  void filter(AVPacket*) override { ++*count_; }

 private:
  int* count_;
  bool* deleted_;
};

class ClassicApi : public ::testing::Test {
 protected:
  std::string Path(const char* name) const { return dir_ / name; }
  const zeva::test::TempDir dir_;
};

// One recording to three containers at once, through two pauses, with a
// video filter the library owns and an audio one the host keeps: every file
// holds the fed time without the pauses, the streams stay together and the
// filters see every frame and packet.
TEST_F(ClassicApi, RecordsEveryContainerThroughPauses) {
  const std::string mp4 = Path("main.mp4"), flv = Path("copy.flv"), ts = Path("copy.ts");
  MovieInfo info = Settings(mp4);
  info.other_urls[0] = flv.c_str();
  info.other_urls[1] = ts.c_str();
  int video_frames = 0, audio_packets = 0, accepted = 0;
  bool video_deleted = false, audio_deleted = false;
  CountingFilter audio_filter(&audio_packets, &audio_deleted);
  {
    Host host(info);
    ASSERT_EQ(host.status().Wait().code, 0) << host.status().Wait().message;
    ASSERT_TRUE(ZEVA_add_video_filter(host.handle(), new CountingFilter(&video_frames, &video_deleted)));
    ASSERT_TRUE(ZEVA_add_audio_filter(host.handle(), &audio_filter));
    host.FeedUntil(1.0);
    host.PauseFor(300);
    EXPECT_FALSE(ZEVA_is_paused(host.handle()));
    host.FeedUntil(1.6);
    ASSERT_TRUE(ZEVA_pause(host.handle()));
    EXPECT_FALSE(ZEVA_write_video_bgra(host.handle(), &accepted, 4, ZEVA_current_sys_usec(), 4));
    ASSERT_TRUE(ZEVA_resume(host.handle()));
    host.PauseFor(300);
    host.FeedUntil(2.0);
    EXPECT_GT(ZEVA_movie_time(host.handle()), 1'900'000);
    accepted = host.accepted_video();
  }
  EXPECT_NEAR(ExpectMovie(mp4, "h264", "aac", 2.0), 2.0, 0.03);
  ExpectMovie(flv, "h264", "aac", 2.0);
  ExpectMovie(ts, "h264", "aac", 2.0);
  EXPECT_TRUE(video_deleted);   // owned by the video encoder
  EXPECT_FALSE(audio_deleted);  // still the host's
  EXPECT_EQ(video_frames, accepted);
  EXPECT_EQ(size_t(audio_packets), PacketsOf(Probe(mp4), 1).size());
}

TEST_F(ClassicApi, FlvAndTsMainOutputsUseTheirOwnCodecs) {
  for (const bool flv : {true, false}) {
    const std::string url = Path(flv ? "main.flv" : "main.ts");
    MovieInfo effective{};
    {
      Host host(Settings(url), &effective);
      host.FeedUntil(1.0);
    }
    const int rate = flv ? 44100 : 48000;
    ExpectMovie(url, flv ? "flv1" : "mpeg2video", flv ? "mp3" : "mp2", 1.0, rate);
    EXPECT_EQ(effective.sample_rate, rate);  // reported back
  }
}

TEST_F(ClassicApi, OtherHostFormatsAreConvertedAndScaled) {
  for (const AVPixelFormat fmt : {AV_PIX_FMT_RGBA, AV_PIX_FMT_YUV420P}) {
    MovieInfo info = Settings(Path("fmt.mp4"));
    info.src_pix_fmt = fmt;
    info.src_width = fmt == AV_PIX_FMT_RGBA ? 640 : 320;
    info.src_height = fmt == AV_PIX_FMT_RGBA ? 360 : 240;
    {
      Host host(info);
      host.FeedUntil(0.5);
      EXPECT_EQ(host.accepted_video(), 15) << fmt;
    }
    const ProbeResult r = Probe(info.url);
    ASSERT_EQ(r.streams.size(), 2u);
    EXPECT_EQ(r.streams[0].width, 320);
    EXPECT_EQ(r.streams[0].height, 240);
  }
}

TEST_F(ClassicApi, DisabledAudioFailedStartAndNullHandles) {
  MovieInfo info = Settings(Path("video-only.mp4"));
  info.disable_audio = true;
  void* h = ZEVA_start(info, nullptr, nullptr, nullptr, false);
  int16_t pcm[882] = {};
  EXPECT_FALSE(ZEVA_write_audio_pcm(h, pcm, sizeof pcm, ZEVA_current_sys_usec()));
  EXPECT_EQ(ZEVA_audio_dst_frame(h), nullptr);
  EXPECT_NE(ZEVA_video_dst_frame(h), nullptr);
  MovieInfo got{};
  EXPECT_TRUE(ZEVA_get_mInfo(h, &got));
  EXPECT_TRUE(got.disable_audio);
  EXPECT_FALSE(ZEVA_resume(h));  // not paused
  ZEVA_stop(&h);
  EXPECT_EQ(h, nullptr);
  ZEVA_stop(&h);

  // A start that fails reports it and leaves a handle that refuses everything.
  zeva::test::Status status;
  h = ZEVA_start(Settings(Path("missing-dir/x.mp4")), &zeva::test::Status::Callback, &status,
                 nullptr, false);
  EXPECT_EQ(status.Wait().code, 11);
  EXPECT_EQ(status.Wait().message, "Could not open url");
  EXPECT_FALSE(ZEVA_get_mInfo(h, &got));
  ZEVA_stop(&h);

  // A null handle is refused, not dereferenced.
  EXPECT_FALSE(ZEVA_pause(nullptr));
  EXPECT_FALSE(ZEVA_write_video_bgra(nullptr, pcm, 4, 0, 4));
  EXPECT_EQ(ZEVA_audio_dst_frame(nullptr), nullptr);
  EXPECT_FALSE(ZEVA_add_video_filter(nullptr, nullptr));
}

}  // namespace
