// Recording encoded packets as a host does it, through <zeva/zeva.h> and
// libzeva.so: real H.264 and AAC streams pushed with host timestamps, judged
// by ffprobe and ffmpeg.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/es_media.h"
#include "support/files.h"
#include "support/live_peer.h"
#include "support/probe.h"

namespace {

using zeva::test::Bytes;
using zeva::test::EsMedia;
using zeva::test::Peer;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Proto;
using namespace std::chrono_literals;

// What the status callback was told, one "code message" line each.
struct StatusLog {
  std::mutex mu;
  std::string text = "\n";
  static void Callback(int code, const char* message, void* user) {
    auto* log = static_cast<StatusLog*>(user);
    std::lock_guard<std::mutex> lock(log->mu);
    log->text += std::to_string(code) + " " + (message != nullptr ? message : "") + "\n";
  }
  bool Has(int code) { return Names("\n" + std::to_string(code) + " "); }
  bool Names(const std::string& what) { return Text().find(what) != std::string::npos; }
  std::string Text() {
    std::lock_guard<std::mutex> lock(mu);
    return text;
  }
};

class PacketApi : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(media().error, ""); }
  static const EsMedia& media() { return zeva::test::TestStreams(); }
  std::string Path(const std::string& name) const { return dir_ / name; }

  static MovieInfo2 Info(const std::string& url) {
    MovieInfo2 info{};
    std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
    info.vcodec = 1;
    info.acodec = 1;
    return info;
  }

  // Pushes the test streams in timestamp order, stamped t0 + media time;
  // `video`/`audio` pick what is written and `convert` may rewrite each video
  // packet. Shaken, video stamps wobble by ±3 ms and every third video
  // packet swaps places with the next, as capture threads deliver them.
  // Returns the refused pushes.
  static int Push(void* h, bool video, bool audio, Bytes (*convert)(const Bytes&) = nullptr, bool shaken = false) {
    const EsMedia& m = media();
    std::vector<std::tuple<const zeva::test::EsPacket*, bool, int64_t>> order;  // packet, video, wobble
    size_t v = video ? 0 : m.video.size(), a = audio ? 0 : m.audio.size(), last_video = 0;
    while (v < m.video.size() || a < m.audio.size()) {
      const bool is_video = v < m.video.size() && (a == m.audio.size() || m.video[v].pts_us <= m.audio[a].pts_us);
      order.push_back({is_video ? &m.video[v] : &m.audio[a], is_video, shaken && v > 1 ? (v % 2 ? -3000 : 3000) : 0});
      if (is_video && shaken && v % 3 == 2) std::swap(order.back(), order[last_video]);
      if (is_video) last_video = order.size() - 1;
      ++(is_video ? v : a);
    }
    const int64_t t0 = ZEVA_current_sys_usec();
    int refused = 0;
    for (const auto& [p, is_video, wobble] : order) {
      Bytes d = is_video && convert ? convert(p->data) : p->data;
      refused += !(is_video ? ZEVA2_write_video_packet : ZEVA2_write_audio_packet)(h, d.data(), int(d.size()),
                                                                                    t0 + p->pts_us + wobble);
    }
    return refused;
  }

  void Record(const MovieInfo2& info, bool video = true, bool audio = true,
              Bytes (*convert)(const Bytes&) = nullptr, bool shaken = false) {
    void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
    ASSERT_NE(h, nullptr) << status_.Text();
    EXPECT_EQ(Push(h, video, audio, convert, shaken), 0);
    ZEVA2_stop(&h);
    EXPECT_EQ(h, nullptr);
  }

  // The file holds every pushed packet of the streams asked for, each stream
  // in its own track, video at the pushed timestamps rebased to its start.
  static void ExpectAllPackets(const std::string& path, bool video = true, bool audio = true) {
    SCOPED_TRACE(path);
    const EsMedia& m = media();
    const ProbeResult r = Probe(path);
    ASSERT_TRUE(r.ok) << r.errors;
    EXPECT_EQ(zeva::test::DecodeErrors(path), "");
    ASSERT_EQ(r.streams.size(), size_t(video) + size_t(audio));
    for (size_t i = 0; i < r.streams.size(); ++i) {
      const bool is_video = r.streams[i].codec_type == "video";
      ASSERT_EQ(r.streams[i].codec_name, is_video ? "h264" : "aac");
      ASSERT_EQ(zeva::test::PacketsOf(r, int(i)).size(), is_video ? m.video.size() : m.audio.size());
      if (!is_video) continue;
      const std::vector<double> t = TimesUs(r, int(i));
      for (size_t k = 0; k < t.size(); ++k) ASSERT_NEAR(t[k], double(m.video[k].pts_us), 1500) << k;
    }
  }

  // Stream `index`'s stamps in microseconds from its first (no B-frames).
  static std::vector<double> TimesUs(const ProbeResult& r, int index) {
    double num = 1, den = 1;
    std::sscanf(r.streams[index].time_base.c_str(), "%lf/%lf", &num, &den);
    const auto packets = zeva::test::PacketsOf(r, index);
    std::vector<double> t;
    for (const auto& p : packets) t.push_back(double(p.pts - packets[0].pts) * num / den * 1e6);
    return t;
  }

  const zeva::test::TempDir dir_;
  StatusLog status_;
};

// The main output and four further ones, one of each container, each get
// every packet at its host time: sorting and smoothing undo the shaking.
TEST_F(PacketApi, EveryOutputGetsEveryPacketAtItsHostTime) {
  const std::vector<std::string> files = {Path("main.mp4"), Path("o1.flv"), Path("o2.ts"),
                                          Path("o3.mkv"), Path("o4.mp4")};
  MovieInfo2 info = Info(files[0]);
  for (size_t i = 1; i < files.size(); ++i) info.others[i - 1] = files[i].c_str();
  Record(info, true, true, nullptr, true);
  for (const auto& f : files) ExpectAllPackets(f);
  EXPECT_TRUE(status_.Has(0) && !status_.Has(-33)) << status_.Text();
}

// Each stream alone. Video goes also to a further output whose writes fail:
// told to record on, the main output keeps every packet and the failure is
// reported by name.
TEST_F(PacketApi, OneStreamAloneAndAFailingFurtherOutput) {
  for (const bool video : {true, false}) {
    MovieInfo2 info = Info(Path(video ? "video.mp4" : "audio.mp4"));
    (video ? info.acodec : info.vcodec) = 0;
    info.others[0] = video ? "/dev/full" : nullptr;
    info.keep_recording_on_output_error = 1;
    Record(info, video, !video);
    ExpectAllPackets(info.url, video, !video);
  }
  EXPECT_TRUE(status_.Names("/dev/full")) << status_.Text();
}

// Length-prefixed H.264 with its SPS and PPS declared apart.
TEST_F(PacketApi, LengthPrefixedVideoWithParameterSets) {
  Bytes sps, pps, other;
  const Bytes first = zeva::test::LengthPrefixed(media().video[0].data);
  for (size_t at = 0, n = 0; at + 4 < first.size(); at += 4 + n) {
    n = size_t(first[at]) << 24 | size_t(first[at + 1]) << 16 | size_t(first[at + 2]) << 8 | first[at + 3];
    const Bytes nal(first.begin() + long(at) + 4, first.begin() + long(at + 4 + n));
    ((nal[0] & 0x1f) == 7 ? sps : (nal[0] & 0x1f) == 8 ? pps : other) = nal;
  }
  MovieInfo2 info = Info(Path("sets.mp4"));
  info.sps = sps.data();
  info.sps_len = int32_t(sps.size());
  info.pps = pps.data();
  info.pps_len = int32_t(pps.size());
  Record(info, true, true, zeva::test::LengthPrefixed);
  ExpectAllPackets(info.url);
}

TEST_F(PacketApi, PauseCutsThePausedTimeAndDropsPcm) {
  MovieInfo2 info = Info(Path("pause.mp4"));
  info.acodec = 2;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_format = "s16";
  info.bitrate = 128;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr) << status_.Text();
  const EsMedia& m = media();
  const size_t half = m.video.size() / 2;
  const int64_t t0 = ZEVA_current_sys_usec();
  auto write = [&](size_t i, int64_t shift) {
    Bytes d = m.video[i].data;
    EXPECT_TRUE(ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 + m.video[i].pts_us + shift));
  };
  std::vector<int16_t> silence(1024 * 2);
  uint8_t* pcm[1] = {reinterpret_cast<uint8_t*>(silence.data())};
  for (size_t i = 0; i < half; ++i) write(i, 0);
  EXPECT_TRUE(ZEVA2_write_audio_pcm(h, pcm, 1024, t0));
  const int64_t before_pause = ZEVA_current_sys_usec();
  EXPECT_TRUE(ZEVA2_pause(h));
  const int64_t after_pause = ZEVA_current_sys_usec();
  EXPECT_FALSE(ZEVA2_write_audio_pcm(h, pcm, 1024, after_pause));  // dropped while paused
  std::this_thread::sleep_for(200ms);
  const int64_t before_resume = ZEVA_current_sys_usec();
  EXPECT_TRUE(ZEVA2_resume(h));
  const int64_t after_resume = ZEVA_current_sys_usec();
  // The host's clock went on while paused: later stamps carry the pause,
  // known to within the time the two calls took.
  const int64_t shift = before_resume - after_pause;
  const double slack = double(after_pause - before_pause + after_resume - before_resume);
  for (size_t i = half; i < m.video.size(); ++i) write(i, shift);
  ZEVA2_stop(&h);

  // No gap: every frame follows the one before by its media interval.
  const ProbeResult r = Probe(Path("pause.mp4"));
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams[0].codec_type, "video");
  const std::vector<double> t = TimesUs(r, 0);
  ASSERT_EQ(t.size(), m.video.size());
  for (size_t i = 1; i < t.size(); ++i) {
    EXPECT_NEAR(t[i] - t[i - 1], double(m.video[i].pts_us - m.video[i - 1].pts_us), 1500 + slack) << i;
  }
}

TEST_F(PacketApi, BadInputGetsAClearResult) {
  // An unknown PCM format and unusable parameter sets refuse to start.
  MovieInfo2 info = Info(Path("x.mp4"));
  info.acodec = 2;
  info.sample_format = "flt";
  info.sample_rate = 48000;
  info.channels = 2;
  EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &status_), nullptr);
  info.acodec = 1;
  const uint8_t junk[] = {0x42};
  info.extradata = junk;
  info.extradata_len = 1;
  EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &status_), nullptr);
  EXPECT_TRUE(status_.Has(-10) && status_.Has(-11)) << status_.Text();

  // No stream declared: it ends promptly.
  info = Info(Path("none.mp4"));
  info.vcodec = info.acodec = 0;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  ZEVA2_stop(&h);
  EXPECT_TRUE(status_.Has(-23)) << status_.Text();

  // A main output in a missing directory and garbage packets; told to
  // record on, it still ends when no output is left.
  info = Info(Path("missing/out.mp4"));
  info.acodec = 0;
  info.keep_recording_on_output_error = 1;
  h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  Bytes garbage(4096, 0x5a);
  ZEVA2_write_video_packet(h, garbage.data(), int(garbage.size()), ZEVA_current_sys_usec());
  Push(h, true, false);
  ZEVA2_stop(&h);
  EXPECT_TRUE(status_.Has(-32) && status_.Has(-33) && status_.Names("missing/out.mp4")) << status_.Text();
  EXPECT_FALSE(ZEVA2_write_video_packet(h, garbage.data(), int(garbage.size()), 0));  // after stop
}

// One recording to an RTMP server as the main output and to an RTSP
// receiver and a file as further ones: each server gets what was sent, with
// its protocol's codecs (AAC over RTMP, Opus over RTSP) and length.
TEST_F(PacketApi, LiveServersReceiveWhatWasSent) {
  for (const Proto proto : {Proto::kRtmp, Proto::kRtsp}) {
    if (const char* missing = Peer::Missing(proto)) GTEST_SKIP() << missing;
  }
  Peer rtmp(Proto::kRtmp, dir_.path()), rtsp(Proto::kRtsp, dir_.path());
  ASSERT_TRUE(rtmp.ok() && rtsp.ok()) << "a server did not start";
  const std::string rtsp_url = rtsp.Url(), file = Path("main.mp4");
  MovieInfo2 info = Info(rtmp.Url());
  info.others[0] = rtsp_url.c_str();
  info.others[1] = file.c_str();
  info.timeout_sec = 5;
  Record(info);
  rtmp.Stop();
  rtsp.Stop();
  EXPECT_FALSE(status_.Has(-32) || status_.Has(-33)) << status_.Text();
  for (const Peer* peer : {&rtmp, &rtsp}) {
    SCOPED_TRACE(peer->Url());
    const ProbeResult r = Probe(peer->Received());
    ASSERT_TRUE(r.ok) << r.errors;
    ASSERT_EQ(r.streams.size(), 2u);
    EXPECT_EQ(r.streams[0].codec_name, "h264");
    EXPECT_EQ(r.streams[1].codec_name, peer == &rtsp ? "opus" : "aac");
    EXPECT_NEAR(r.duration, 2.0, 0.5);
    EXPECT_EQ(zeva::test::DecodeErrors(peer->Received()), "");
  }
  ExpectAllPackets(file);
}

}  // namespace
