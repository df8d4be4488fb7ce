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

namespace fs = std::filesystem;
using zeva::test::DecodeErrors;
using zeva::test::EsMedia;
using zeva::test::Peer;
using zeva::test::Proto;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::TestStreams;

struct StatusLog {
  std::mutex mu;
  std::vector<std::pair<int, std::string>> calls;
  static void Callback(int code, const char* message, void* user) {
    auto* log = static_cast<StatusLog*>(user);
    std::lock_guard<std::mutex> lock(log->mu);
    log->calls.emplace_back(code, message != nullptr ? message : "");
  }
  bool Has(int code) {
    std::lock_guard<std::mutex> lock(mu);
    for (const auto& c : calls)
      if (c.first == code) return true;
    return false;
  }
  std::string Text() {
    std::lock_guard<std::mutex> lock(mu);
    std::string s;
    for (const auto& c : calls) s += std::to_string(c.first) + " " + c.second + "\n";
    return s;
  }
};

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
      fs::remove_all(dir_);
    }
  }
  static const EsMedia& media() { return TestStreams(2.0, 30); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  static MovieInfo2 Info(const std::string& url) {
    MovieInfo2 info{};
    std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
    info.vcodec = 1;
    info.acodec = 1;
    return info;
  }

  // Pushes the test streams in timestamp order, stamped t0 + media time, and
  // stops. `video`/`audio` pick what is written; `convert` may rewrite each
  // video packet first (length-prefixed input).
  void Record(const MovieInfo2& info, bool video = true, bool audio = true,
              std::vector<uint8_t> (*convert)(const std::vector<uint8_t>&) = nullptr) {
    void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
    ASSERT_NE(h, nullptr) << status_.Text();
    const int64_t t0 = ZEVA_current_sys_usec();
    const EsMedia& m = media();
    size_t v = video ? 0 : m.video.size(), a = audio ? 0 : m.audio.size();
    while (v < m.video.size() || a < m.audio.size()) {
      if (v < m.video.size() && (a == m.audio.size() || m.video[v].pts_us <= m.audio[a].pts_us)) {
        std::vector<uint8_t> data = convert ? convert(m.video[v].data) : m.video[v].data;
        EXPECT_TRUE(ZEVA2_write_video_packet(h, data.data(), int(data.size()), t0 + m.video[v].pts_us));
        ++v;
      } else {
        std::vector<uint8_t> data = m.audio[a].data;
        EXPECT_TRUE(ZEVA2_write_audio_packet(h, data.data(), int(data.size()), t0 + m.audio[a].pts_us));
        ++a;
      }
    }
    ZEVA2_stop(&h);
    EXPECT_EQ(h, nullptr);
  }

  // The file holds every pushed packet of the streams asked for, video at
  // the pushed timestamps rebased to its start.
  static void ExpectAllPackets(const std::string& path, bool video = true, bool audio = true,
                               const EsMedia& m = media()) {
    SCOPED_TRACE(path);
    const ProbeResult r = Probe(path);
    ASSERT_TRUE(r.ok) << r.errors;
    EXPECT_EQ(DecodeErrors(path), "");
    int vi = -1, ai = -1;
    for (size_t i = 0; i < r.streams.size(); ++i) {
      if (r.streams[i].codec_type == "video") vi = int(i);
      if (r.streams[i].codec_type == "audio") ai = int(i);
    }
    ASSERT_EQ(vi >= 0, video);
    ASSERT_EQ(ai >= 0, audio);
    if (video) {
      EXPECT_EQ(r.streams[vi].codec_name, "h264");
      EXPECT_EQ(r.streams[vi].width, m.width);
      const auto packets = zeva::test::PacketsOf(r, vi);
      ASSERT_EQ(packets.size(), m.video.size());
      int num = 1, den = 1;
      ASSERT_EQ(std::sscanf(r.streams[vi].time_base.c_str(), "%d/%d", &num, &den), 2);
      std::vector<int64_t> pts;
      for (const auto& p : packets) pts.push_back(p.pts);
      std::sort(pts.begin(), pts.end());
      for (size_t i = 0; i < pts.size(); ++i) {
        const double got_us = double(pts[i] - pts[0]) * num / den * 1e6;
        ASSERT_NEAR(got_us, double(m.video[i].pts_us), 1500) << "video packet " << i;
      }
    }
    if (audio) {
      EXPECT_EQ(r.streams[ai].codec_name, "aac");
      EXPECT_EQ(zeva::test::PacketsOf(r, ai).size(), m.audio.size());
    }
  }

  std::string dir_;
  StatusLog status_;
};

class PacketContainers : public PacketApi, public ::testing::WithParamInterface<const char*> {};

TEST_P(PacketContainers, HoldEveryPacketAtItsHostTime) {
  const std::string out = Path(std::string("out.") + GetParam());
  Record(Info(out));
  ExpectAllPackets(out);
  EXPECT_TRUE(status_.Has(0)) << status_.Text();
  EXPECT_FALSE(status_.Has(-33)) << status_.Text();
}

INSTANTIATE_TEST_SUITE_P(Files, PacketContainers, ::testing::Values("mp4", "flv", "ts"));

TEST_F(PacketApi, OneStreamAlone) {
  MovieInfo2 video_only = Info(Path("video.mp4"));
  video_only.acodec = 0;
  Record(video_only, true, false);
  ExpectAllPackets(Path("video.mp4"), true, false);
  MovieInfo2 audio_only = Info(Path("audio.mp4"));
  audio_only.vcodec = 0;
  Record(audio_only, false, true);
  ExpectAllPackets(Path("audio.mp4"), false, true);
}

TEST_F(PacketApi, MainAndFourFurtherOutputsGetTheSameStreams) {
  const std::vector<std::string> others = {Path("o1.flv"), Path("o2.ts"), Path("o3.mkv"),
                                           Path("o4.mp4")};
  MovieInfo2 info = Info(Path("main.mp4"));
  for (size_t i = 0; i < others.size(); ++i) info.others[i] = others[i].c_str();
  Record(info);
  ExpectAllPackets(Path("main.mp4"));
  for (const auto& o : others) ExpectAllPackets(o);
}

// Length-prefixed H.264, as hardware encoders and capture cards deliver it:
// each Annex B NAL unit of the access unit behind a 4-byte big-endian size.
std::vector<std::vector<uint8_t>> NalUnits(const std::vector<uint8_t>& au) {
  std::vector<std::vector<uint8_t>> nals;
  size_t i = 0, start = std::string::npos;
  auto flush = [&](size_t end) {
    if (start == std::string::npos) return;
    while (end > start && au[end - 1] == 0) --end;  // trailing zeros belong to the next start code
    nals.emplace_back(au.begin() + long(start), au.begin() + long(end));
  };
  while (i + 3 <= au.size()) {
    if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1) {
      flush(i);
      start = i + 3;
      i += 3;
    } else {
      ++i;
    }
  }
  flush(au.size());
  return nals;
}

std::vector<uint8_t> ToLengthPrefixed(const std::vector<uint8_t>& au) {
  std::vector<uint8_t> out;
  for (const auto& nal : NalUnits(au)) {
    const uint32_t n = uint32_t(nal.size());
    out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    out.insert(out.end(), nal.begin(), nal.end());
  }
  return out;
}

TEST_F(PacketApi, LengthPrefixedVideoWithParameterSetsOrExtradata) {
  std::vector<uint8_t> sps, pps;
  for (const auto& nal : NalUnits(media().video[0].data)) {
    if ((nal[0] & 0x1f) == 7) sps = nal;
    if ((nal[0] & 0x1f) == 8) pps = nal;
  }
  ASSERT_FALSE(sps.empty() || pps.empty());
  std::vector<uint8_t> avcc = {1, sps[1], sps[2], sps[3], 0xff, 0xe1, uint8_t(sps.size() >> 8),
                               uint8_t(sps.size())};
  avcc.insert(avcc.end(), sps.begin(), sps.end());
  avcc.insert(avcc.end(), {1, uint8_t(pps.size() >> 8), uint8_t(pps.size())});
  avcc.insert(avcc.end(), pps.begin(), pps.end());

  MovieInfo2 with_sets = Info(Path("sets.mp4"));
  with_sets.sps = sps.data();
  with_sets.sps_len = int32_t(sps.size());
  with_sets.pps = pps.data();
  with_sets.pps_len = int32_t(pps.size());
  Record(with_sets, true, true, ToLengthPrefixed);
  ExpectAllPackets(Path("sets.mp4"));

  MovieInfo2 with_extradata = Info(Path("extradata.mp4"));
  with_extradata.extradata = avcc.data();
  with_extradata.extradata_len = int32_t(avcc.size());
  Record(with_extradata, true, true, ToLengthPrefixed);
  ExpectAllPackets(Path("extradata.mp4"));
}

class PacketPcm : public PacketApi, public ::testing::WithParamInterface<const char*> {};

TEST_P(PacketPcm, IsEncodedToAac) {
  const std::string format = GetParam();
  MovieInfo2 info = Info(Path("pcm.mp4"));
  info.vcodec = 0;
  info.acodec = 2;
  info.sample_rate = 48000;
  info.channels = 2;
  info.sample_format = format.c_str();
  info.bitrate = 128;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr) << status_.Text();
  constexpr int kChunk = 960;  // 20 ms
  std::vector<int16_t> s16(kChunk * 2);
  std::vector<float> flt(kChunk * 2), left(kChunk), right(kChunk);
  const int64_t t0 = ZEVA_current_sys_usec();
  for (int c = 0; c < 100; ++c) {  // 2 s
    for (int i = 0; i < kChunk; ++i) {
      const float v = 0.25f * std::sin(6.2831853f * 440.f * float(c * kChunk + i) / 48000.f);
      s16[2 * i] = s16[2 * i + 1] = int16_t(v * 32767);
      flt[2 * i] = flt[2 * i + 1] = left[i] = right[i] = v;
    }
    uint8_t* interleaved[1] = {format == "s16" ? reinterpret_cast<uint8_t*>(s16.data())
                                               : reinterpret_cast<uint8_t*>(flt.data())};
    uint8_t* planar[2] = {reinterpret_cast<uint8_t*>(left.data()),
                          reinterpret_cast<uint8_t*>(right.data())};
    EXPECT_TRUE(ZEVA2_write_audio_pcm(h, format == "flt32p" ? planar : interleaved, kChunk,
                                      t0 + int64_t(c) * 20000));
  }
  ZEVA2_stop(&h);
  const ProbeResult r = Probe(Path("pcm.mp4"));
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 1u);
  EXPECT_EQ(r.streams[0].codec_name, "aac");
  EXPECT_EQ(r.streams[0].sample_rate, 48000);
  EXPECT_NEAR(r.duration, 2.0, 0.1);
  EXPECT_EQ(DecodeErrors(Path("pcm.mp4")), "");
}

INSTANTIATE_TEST_SUITE_P(Formats, PacketPcm, ::testing::Values("s16", "flt32p", "flt32"));

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
    std::vector<uint8_t> d = m.video[i].data;
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
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
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
  const auto packets = zeva::test::PacketsOf(r, 0);
  ASSERT_EQ(r.streams[0].codec_type, "video");
  ASSERT_EQ(packets.size(), m.video.size());
  int num = 1, den = 1;
  ASSERT_EQ(std::sscanf(r.streams[0].time_base.c_str(), "%d/%d", &num, &den), 2);
  for (size_t i = 1; i < packets.size(); ++i) {
    const double gap_us = double(packets[i].pts - packets[i - 1].pts) * num / den * 1e6;
    EXPECT_NEAR(gap_us, double(m.video[i].pts_us - m.video[i - 1].pts_us), 1500 + slack) << i;
  }
}

TEST_F(PacketApi, BadInputGetsAClearResult) {
  EXPECT_FALSE(ZEVA2_write_video_packet(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_write_audio_packet(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_write_audio_pcm(nullptr, nullptr, 0, 0));
  EXPECT_FALSE(ZEVA2_pause(nullptr));
  EXPECT_FALSE(ZEVA2_resume(nullptr));
  EXPECT_FALSE(ZEVA2_is_paused(nullptr));
  EXPECT_EQ(ZEVA2_movie_time(nullptr), -1);
  ZEVA2_stop(nullptr);
  void* none = nullptr;
  ZEVA2_stop(&none);

  {  // an unknown PCM format and unusable parameter sets refuse to start
    StatusLog log;
    MovieInfo2 info = Info(Path("x.mp4"));
    info.acodec = 2;
    info.sample_format = "flt";
    info.sample_rate = 48000;
    info.channels = 2;
    EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &log), nullptr);
    EXPECT_TRUE(log.Has(-10)) << log.Text();
    info.acodec = 1;
    const uint8_t junk[] = {0x42};
    info.extradata = junk;
    info.extradata_len = 1;
    EXPECT_EQ(ZEVA2_start(info, &StatusLog::Callback, &log), nullptr);
    EXPECT_TRUE(log.Has(-11)) << log.Text();
  }

  const auto bounded_stop = [](void** h) {
    const auto t = std::chrono::steady_clock::now();
    ZEVA2_stop(h);
    return std::chrono::steady_clock::now() - t;
  };
  {  // no stream declared; then a host that never writes; both end promptly
    StatusLog log;
    MovieInfo2 info = Info(Path("none.mp4"));
    info.vcodec = info.acodec = 0;
    void* h = ZEVA2_start(info, &StatusLog::Callback, &log);
    ASSERT_NE(h, nullptr);
    EXPECT_FALSE(ZEVA2_write_video_packet(h, nullptr, 0, 0));
    EXPECT_LT(bounded_stop(&h), std::chrono::seconds(10));
    EXPECT_TRUE(log.Has(-23)) << log.Text();

    h = ZEVA2_start(Info(Path("silent.mp4")), &StatusLog::Callback, &log);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LT(bounded_stop(&h), std::chrono::seconds(10));
  }
  {  // a main output in a missing directory; garbage, empty and backward packets
    StatusLog log;
    void* h = ZEVA2_start(Info(Path("missing/out.mp4")), &StatusLog::Callback, &log);
    ASSERT_NE(h, nullptr);
    const EsMedia& m = media();
    const int64_t t0 = ZEVA_current_sys_usec();
    std::vector<uint8_t> junk(4096, 0x5a);
    ZEVA2_write_video_packet(h, junk.data(), int(junk.size()), t0);
    ZEVA2_write_video_packet(h, junk.data(), 0, t0);
    for (size_t i = 0; i < m.video.size(); ++i) {
      std::vector<uint8_t> d = m.video[i].data;
      ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 - m.video[i].pts_us);
    }
    EXPECT_LT(bounded_stop(&h), std::chrono::seconds(10));
    EXPECT_TRUE(log.Has(-32)) << log.Text();
    EXPECT_NE(log.Text().find("missing/out.mp4"), std::string::npos) << log.Text();
    EXPECT_FALSE(ZEVA2_write_video_packet(h, junk.data(), int(junk.size()), t0));  // after stop

    // Told to record on, it still ends when no output is left.
    MovieInfo2 info = Info(Path("missing/out.mp4"));
    info.acodec = 0;
    info.keep_recording_on_output_error = 1;
    h = ZEVA2_start(info, &StatusLog::Callback, &log);
    for (size_t i = 0; i < m.video.size(); ++i) {
      std::vector<uint8_t> d = m.video[i].data;
      ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 + m.video[i].pts_us);
    }
    EXPECT_LT(bounded_stop(&h), std::chrono::seconds(10));
    EXPECT_TRUE(log.Has(-33)) << log.Text();
  }
}

// A further output whose writes fail: by default the whole recording ends
// with the error; told to record on, the main output keeps every packet.
TEST_F(PacketApi, AFailingFurtherOutputIsReportedByName) {
  for (const int keep : {0, 1}) {
    SCOPED_TRACE(keep);
    status_.calls.clear();
    MovieInfo2 info = Info(Path("main.mp4"));
    info.acodec = 0;
    info.others[0] = "/dev/full";
    info.keep_recording_on_output_error = keep;
    void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
    ASSERT_NE(h, nullptr);
    const EsMedia& m = media();
    const int64_t t0 = ZEVA_current_sys_usec();
    int refused = 0;
    for (size_t v = 0; v < m.video.size(); ++v) {
      std::vector<uint8_t> d = m.video[v].data;
      refused += !ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 + m.video[v].pts_us);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (!keep) {  // once the failure is reported, the recording takes nothing more
      for (int i = 0; i < 1000 && status_.Text().find("/dev/full") == std::string::npos; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      std::vector<uint8_t> d = m.video[0].data;
      EXPECT_FALSE(ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 + 5000000));
    }
    ZEVA2_stop(&h);
    const std::string said = status_.Text();
    EXPECT_NE(said.find("/dev/full"), std::string::npos) << said;
    if (keep) {
      EXPECT_EQ(refused, 0);
      ExpectAllPackets(Path("main.mp4"), true, false);
    }
  }
}

// ---- Live outputs: real servers, one that never answers, one that dies.

struct LiveCase {
  const char* name;
  Proto proto;
  bool further;
  int timeout_sec;
};
std::string CaseName(const ::testing::TestParamInfo<LiveCase>& info) { return info.param.name; }

class PacketLive : public PacketApi, public ::testing::WithParamInterface<LiveCase> {};

// What the server receives decodes cleanly, with the protocol's codecs
// (AAC over RTMP, Opus over RTSP) and the length sent.
TEST_P(PacketLive, ServerReceivesWhatWasSent) {
  const LiveCase c = GetParam();
  if (const char* missing = Peer::Missing(c.proto)) GTEST_SKIP() << missing;
  Peer peer(c.proto, dir_);
  ASSERT_TRUE(peer.ok()) << "the server did not start";
  const std::string url = peer.Url();
  MovieInfo2 info = Info(c.further ? Path("main.mp4") : url);
  if (c.further) info.others[0] = url.c_str();
  info.timeout_sec = c.timeout_sec;
  Record(info);
  peer.Stop();
  EXPECT_FALSE(status_.Has(-32) || status_.Has(-33)) << status_.Text();
  const ProbeResult r = Probe(peer.Received());
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 2u);
  EXPECT_EQ(r.streams[0].codec_name, "h264");
  EXPECT_EQ(r.streams[1].codec_name, c.proto == Proto::kRtsp ? "opus" : "aac");
  EXPECT_NEAR(r.duration, 2.0, 0.5);
  EXPECT_EQ(DecodeErrors(peer.Received()), "");
  if (c.further) ExpectAllPackets(Path("main.mp4"));
}

INSTANTIATE_TEST_SUITE_P(Servers, PacketLive,
                         ::testing::Values(LiveCase{"RtmpMain", Proto::kRtmp, false, 5},
                                           LiveCase{"RtmpFurther", Proto::kRtmp, true, 5},
                                           LiveCase{"RtspMain", Proto::kRtsp, false, 5},
                                           LiveCase{"RtspFurther", Proto::kRtsp, true, 5}),
                         CaseName);

// A server that accepts and never answers, as the main or a further output:
// the failure names it, and stop returns within the time-out (0: 5 s).
class PacketSilent : public PacketLive {};

TEST_P(PacketSilent, StopIsBoundedByTheTimeOut) {
  const LiveCase c = GetParam();
  zeva::test::SilentServer silent;
  ASSERT_TRUE(silent.ok());
  const std::string url = silent.Url(c.proto == Proto::kRtmp ? "rtmp" : "rtsp");
  MovieInfo2 info = Info(c.further ? Path("main.mp4") : url);
  if (c.further) info.others[0] = url.c_str();
  info.timeout_sec = c.timeout_sec;
  info.acodec = 0;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  const EsMedia& m = media();
  const int64_t t0 = ZEVA_current_sys_usec();
  for (size_t v = 0; v < m.video.size(); ++v) {
    std::vector<uint8_t> d = m.video[v].data;
    ZEVA2_write_video_packet(h, d.data(), int(d.size()), t0 + m.video[v].pts_us);
  }
  EXPECT_TRUE(silent.WaitForClient(10));
  const auto t = std::chrono::steady_clock::now();
  ZEVA2_stop(&h);
  const double stop_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
  const int bound = c.timeout_sec > 0 ? c.timeout_sec : 5;
  EXPECT_LT(stop_s, bound + 4.0);  // generous for a loaded machine; without a bound, never
  EXPECT_NE(status_.Text().find(url), std::string::npos) << status_.Text();
  std::printf("[ timing ] %s: stopped in %.2f s (timeout_sec %d)\n", c.name, stop_s, c.timeout_sec);
}

INSTANTIATE_TEST_SUITE_P(Servers, PacketSilent,
                         ::testing::Values(LiveCase{"RtmpMain", Proto::kRtmp, false, 1},
                                           LiveCase{"RtspMain", Proto::kRtsp, false, 1},
                                           LiveCase{"RtmpFurther", Proto::kRtmp, true, 1},
                                           LiveCase{"RtspFurtherDefault", Proto::kRtsp, true, 0}),
                         CaseName);

// A file with an RTMP copy whose server dies mid-recording: told to record
// on, the failure reaches the callback naming the stream and the file keeps
// every packet.
TEST_F(PacketApi, ServerKilledMidRecordingLeavesTheFileComplete) {
  if (const char* missing = Peer::Missing(Proto::kRtmp)) GTEST_SKIP() << missing;
  zeva::test::RtmpServer server(dir_);
  ASSERT_TRUE(server.ok()) << "the server did not start";
  const std::string url = server.Url("live");
  MovieInfo2 info = Info(Path("main.mp4"));
  info.others[0] = url.c_str();
  info.keep_recording_on_output_error = 1;
  info.timeout_sec = 2;
  void* h = ZEVA2_start(info, &StatusLog::Callback, &status_);
  ASSERT_NE(h, nullptr);
  const EsMedia& m = zeva::test::TestStreams(4.0, 30);
  const auto start = std::chrono::steady_clock::now();
  const int64_t t0 = ZEVA_current_sys_usec();
  size_t v = 0, a = 0;
  int refused = 0;
  while (v < m.video.size() || a < m.audio.size()) {
    const bool video = v < m.video.size() && (a == m.audio.size() || m.video[v].pts_us <= m.audio[a].pts_us);
    const zeva::test::EsPacket& p = video ? m.video[v++] : m.audio[a++];
    // Twice real time; the server dies when the outputs have been open for
    // a while, two thirds of the way in.
    std::this_thread::sleep_until(start + std::chrono::microseconds(p.pts_us / 2));
    if (video && v == m.video.size() * 2 / 3) server.Kill();
    std::vector<uint8_t> d = p.data;
    refused += !(video ? ZEVA2_write_video_packet : ZEVA2_write_audio_packet)(
        h, d.data(), int(d.size()), t0 + p.pts_us);
  }
  ZEVA2_stop(&h);
  EXPECT_EQ(refused, 0);
  const std::string said = status_.Text();
  EXPECT_NE(said.find(url), std::string::npos) << said;
  EXPECT_EQ(said.find("Failed to open"), std::string::npos) << "the stream never opened: " << said;
  ExpectAllPackets(Path("main.mp4"), true, true, m);
}

}  // namespace
