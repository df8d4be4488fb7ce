// Recording encoded packets as a host does it, through <zeva/zeva.h> and
// libzeva.so: real H.264 and AAC streams pushed with host timestamps, judged
// by ffprobe and ffmpeg.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/es_media.h"
#include "support/live_peer.h"
#include "support/probe.h"
#include "support/silent_server.h"

namespace {

using zeva::test::Bytes;
using zeva::test::DecodeErrors;
using zeva::test::EsMedia;
using zeva::test::EsPacket;
using zeva::test::Peer;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Proto;
using Clock = std::chrono::steady_clock;

// What the status callback was told, one "code message" line each.
struct StatusLog {
  std::mutex mu;
  std::string text = "\n";
  static void Callback(int code, const char* message, void* user) {
    auto* log = static_cast<StatusLog*>(user);
    std::lock_guard<std::mutex> lock(log->mu);
    log->text += std::to_string(code) + " " + (message != nullptr ? message : "") + "\n";
  }
  bool Has(int code) { return Text().find("\n" + std::to_string(code) + " ") != std::string::npos; }
  std::string Text() {
    std::lock_guard<std::mutex> lock(mu);
    return text;
  }
};

double StopSeconds(void** h) {
  const auto t = Clock::now();
  ZEVA2_stop(h);
  return std::chrono::duration<double>(Clock::now() - t).count();
}

class PacketApi : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zeva-packet-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    ASSERT_EQ(media().error, "");
  }
  void TearDown() override {
    if (HasFailure()) {
      std::printf("files kept in %s\n", dir_.c_str());
    } else {
      std::filesystem::remove_all(dir_);
    }
  }
  static const EsMedia& media() { return zeva::test::TestStreams(2.0, 30); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  static MovieInfo2 Info(const std::string& url) {
    MovieInfo2 info{};
    std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
    info.vcodec = 1;
    info.acodec = 1;
    return info;
  }

  // Pushes the test streams in timestamp order, stamped t0 + media time;
  // `video`/`audio` pick what is written, `before` runs ahead of each push
  // and `convert` may rewrite each video packet. Shaken, video stamps wobble
  // by ±3 ms and every third video packet swaps places with the next, as
  // capture threads deliver them. Returns the refused pushes.
  static int Push(void* h, bool video, bool audio,
                  const std::function<void(const EsPacket&, bool video)>& before = nullptr,
                  Bytes (*convert)(const Bytes&) = nullptr, bool shaken = false) {
    const EsMedia& m = media();
    struct HostPush {
      const EsPacket* p;
      bool video;
      int64_t wobble;
    };
    std::vector<HostPush> order;
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
    for (const HostPush& o : order) {
      if (before) before(*o.p, o.video);
      Bytes d = o.video && convert ? convert(o.p->data) : o.p->data;
      refused += !(o.video ? ZEVA2_write_video_packet : ZEVA2_write_audio_packet)(
          h, d.data(), int(d.size()), t0 + o.p->pts_us + o.wobble);
    }
    return refused;
  }

  void Record(const MovieInfo2& info, bool video = true, bool audio = true,
              Bytes (*convert)(const Bytes&) = nullptr, bool shaken = false) {
    void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
    ASSERT_NE(h, nullptr) << status_.Text();
    EXPECT_EQ(Push(h, video, audio, nullptr, convert, shaken), 0);
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
    EXPECT_EQ(DecodeErrors(path), "");
    ASSERT_EQ(r.streams.size(), size_t(video) + size_t(audio));
    for (size_t i = 0; i < r.streams.size(); ++i) {
      const bool is_video = r.streams[i].codec_type == "video";
      ASSERT_EQ(r.streams[i].codec_name, is_video ? "h264" : "aac");
      ASSERT_EQ(zeva::test::PacketsOf(r, int(i)).size(), is_video ? m.video.size() : m.audio.size());
      if (!is_video) continue;
      EXPECT_EQ(r.streams[i].width, m.width);
      const std::vector<double> t = TimesUs(r, int(i));
      for (size_t k = 0; k < t.size(); ++k) ASSERT_NEAR(t[k], double(m.video[k].pts_us), 1500) << k;
    }
  }

  // Stream `index`'s stamps in microseconds from its first, in order.
  static std::vector<double> TimesUs(const ProbeResult& r, int index) {
    int num = 1, den = 1;
    EXPECT_EQ(std::sscanf(r.streams[index].time_base.c_str(), "%d/%d", &num, &den), 2);
    std::vector<double> t;
    for (const auto& p : zeva::test::PacketsOf(r, index)) t.push_back(double(p.pts) * num / den * 1e6);
    std::sort(t.begin(), t.end());
    const double first = t.empty() ? 0 : t[0];
    for (double& x : t) x -= first;
    return t;
  }

  std::string dir_;
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
  EXPECT_TRUE(status_.Has(0)) << status_.Text();
  EXPECT_FALSE(status_.Has(-33)) << status_.Text();
}

TEST_F(PacketApi, OneStreamAlone) {
  for (const bool video : {true, false}) {
    MovieInfo2 info = Info(Path(video ? "video.mp4" : "audio.mp4"));
    (video ? info.acodec : info.vcodec) = 0;
    Record(info, video, !video);
    ExpectAllPackets(info.url, video, !video);
  }
}

// Length-prefixed H.264 with its SPS and PPS declared either raw or as a
// configuration record.
TEST_F(PacketApi, LengthPrefixedVideoWithParameterSetsOrExtradata) {
  Bytes sps, pps;
  for (const Bytes& nal : zeva::test::NalUnits(media().video[0].data)) {
    if ((nal[0] & 0x1f) == 7) sps = nal;
    if ((nal[0] & 0x1f) == 8) pps = nal;
  }
  ASSERT_FALSE(sps.empty() || pps.empty());
  Bytes avcc = {1, sps[1], sps[2], sps[3], 0xff, 0xe1, uint8_t(sps.size() >> 8), uint8_t(sps.size())};
  avcc.insert(avcc.end(), sps.begin(), sps.end());
  avcc.insert(avcc.end(), {1, uint8_t(pps.size() >> 8), uint8_t(pps.size())});
  avcc.insert(avcc.end(), pps.begin(), pps.end());
  for (const bool record : {false, true}) {
    MovieInfo2 info = Info(Path(record ? "extradata.mp4" : "sets.mp4"));
    if (record) {
      info.extradata = avcc.data();
      info.extradata_len = int32_t(avcc.size());
    } else {
      info.sps = sps.data();
      info.sps_len = int32_t(sps.size());
      info.pps = pps.data();
      info.pps_len = int32_t(pps.size());
    }
    Record(info, true, true, zeva::test::LengthPrefixed);
    ExpectAllPackets(info.url);
  }
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
  EXPECT_TRUE(ZEVA2_is_paused(h));
  EXPECT_FALSE(ZEVA2_write_audio_pcm(h, pcm, 1024, after_pause));  // dropped while paused
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const int64_t before_resume = ZEVA_current_sys_usec();
  EXPECT_TRUE(ZEVA2_resume(h));
  const int64_t after_resume = ZEVA_current_sys_usec();
  EXPECT_FALSE(ZEVA2_resume(h));
  EXPECT_FALSE(ZEVA2_is_paused(h));
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
  EXPECT_FALSE(ZEVA2_write_video_packet(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_write_audio_packet(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_write_audio_pcm(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_pause(nullptr));
  ZEVA2_stop(nullptr);
  void* h = nullptr;
  ZEVA2_stop(&h);

  // An unknown PCM format and unusable parameter sets refuse to start.
  MovieInfo2 info = Info(Path("x.mp4"));
  info.acodec = 2;
  info.sample_format = "flt";
  info.sample_rate = 48000;
  info.channels = 2;
  EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &status_), nullptr);
  EXPECT_TRUE(status_.Has(-10)) << status_.Text();
  info.acodec = 1;
  const uint8_t junk[] = {0x42};
  info.extradata = junk;
  info.extradata_len = 1;
  EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &status_), nullptr);
  EXPECT_TRUE(status_.Has(-11)) << status_.Text();

  // No stream declared; then a host that never writes: both end promptly.
  info = Info(Path("none.mp4"));
  info.vcodec = info.acodec = 0;
  h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  EXPECT_FALSE(ZEVA2_write_video_packet(h, nullptr, 0, 0));
  EXPECT_LT(StopSeconds(&h), 10);
  EXPECT_TRUE(status_.Has(-23)) << status_.Text();
  h = ZEVA2_start(Info(Path("silent.mp4")), &StatusLog::Callback, &status_);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_LT(StopSeconds(&h), 10);

  // A main output in a missing directory; garbage, empty and backward packets.
  h = ZEVA2_start(Info(Path("missing/out.mp4")), &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  const int64_t t0 = ZEVA_current_sys_usec();
  Bytes garbage(4096, 0x5a);
  ZEVA2_write_video_packet(h, garbage.data(), int(garbage.size()), t0);
  ZEVA2_write_video_packet(h, garbage.data(), 0, t0);
  for (const EsPacket& p : media().video) {
    Bytes d = p.data;
    ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 - p.pts_us);
  }
  EXPECT_LT(StopSeconds(&h), 10);
  EXPECT_TRUE(status_.Has(-32)) << status_.Text();
  EXPECT_NE(status_.Text().find("missing/out.mp4"), std::string::npos) << status_.Text();
  EXPECT_FALSE(ZEVA2_write_video_packet(h, garbage.data(), int(garbage.size()), t0));  // after stop

  // Told to record on, it still ends when no output is left.
  info = Info(Path("missing/out.mp4"));
  info.acodec = 0;
  info.keep_recording_on_output_error = 1;
  h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  Push(h, true, false);
  EXPECT_LT(StopSeconds(&h), 10);
  EXPECT_TRUE(status_.Has(-33)) << status_.Text();
}

// A further output whose writes fail: by default the whole recording ends
// with the error; told to record on, the main output keeps every packet.
TEST_F(PacketApi, AFailingFurtherOutputIsReportedByName) {
  for (const int keep : {0, 1}) {
    SCOPED_TRACE(keep);
    status_.text = "\n";
    MovieInfo2 info = Info(Path("main.mp4"));
    info.acodec = 0;
    info.others[0] = "/dev/full";
    info.keep_recording_on_output_error = keep;
    void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
    ASSERT_NE(h, nullptr);
    const int refused = Push(h, true, false, [](const EsPacket&, bool) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
    if (!keep) {  // once the failure is reported, the recording takes nothing more
      for (int i = 0; i < 1000 && status_.Text().find("/dev/full") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      Bytes d = media().video[0].data;
      EXPECT_FALSE(ZEVA2_write_video_packet(h, d.data(), int(d.size()), ZEVA_current_sys_usec()));
    }
    ZEVA2_stop(&h);
    EXPECT_NE(status_.Text().find("/dev/full"), std::string::npos) << status_.Text();
    if (keep) {
      EXPECT_EQ(refused, 0);
      ExpectAllPackets(Path("main.mp4"), true, false);
    }
  }
}

// One recording to an RTMP server as the main output and to an RTSP
// receiver and a file as further ones: each server gets what was sent, with
// its protocol's codecs (AAC over RTMP, Opus over RTSP) and length.
TEST_F(PacketApi, LiveServersReceiveWhatWasSent) {
  for (const Proto proto : {Proto::kRtmp, Proto::kRtsp}) {
    if (const char* missing = Peer::Missing(proto)) GTEST_SKIP() << missing;
  }
  Peer rtmp(Proto::kRtmp, dir_), rtsp(Proto::kRtsp, dir_);
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
    EXPECT_EQ(DecodeErrors(peer->Received()), "");
  }
  ExpectAllPackets(file);
}

// A server that accepts and never answers, as the main or a further output:
// the failure names it, and stop returns within the time-out (0: 5 s).
struct SilentCase {
  const char* name;
  const char* scheme;
  bool further;
  int timeout_sec;
};

class PacketSilent : public PacketApi, public ::testing::WithParamInterface<SilentCase> {};

TEST_P(PacketSilent, StopIsBoundedByTheTimeOut) {
  const SilentCase c = GetParam();
  zeva::test::SilentServer silent;
  ASSERT_TRUE(silent.ok());
  const std::string url = silent.Url(c.scheme);
  MovieInfo2 info = Info(c.further ? Path("main.mp4") : url);
  if (c.further) info.others[0] = url.c_str();
  info.timeout_sec = c.timeout_sec;
  info.acodec = 0;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  Push(h, true, false);
  EXPECT_TRUE(silent.WaitForClient(10));
  const double stop_s = StopSeconds(&h);
  // Generous for a loaded machine; without a bound, never.
  EXPECT_LT(stop_s, (c.timeout_sec > 0 ? c.timeout_sec : 5) + 4.0);
  EXPECT_NE(status_.Text().find(url), std::string::npos) << status_.Text();
}

INSTANTIATE_TEST_SUITE_P(Servers, PacketSilent,
                         ::testing::Values(SilentCase{"RtmpMain", "rtmp", false, 1},
                                           SilentCase{"RtspFurtherDefault", "rtsp", true, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
