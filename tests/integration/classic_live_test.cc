// Live outputs of the classic interface against real servers on loopback:
// an RTMP server, an RTSP receiver, a server that never answers and one
// that dies mid-recording.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

#include "support/classic_host.h"
#include "support/live_peer.h"
#include "support/loopback.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"
#include "support/silent_server.h"

namespace fs = std::filesystem;
using zeva::test::Host;
using zeva::test::DecodeErrors;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Settings;

namespace {

using zeva::test::Peer;
using zeva::test::Proto;

double Since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}


class ClassicLiveBase {
 protected:
  void MakeDir() {
    char pattern[] = "/tmp/zeva-live-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  std::string Path(const char* name) const { return dir_ + "/" + name; }
  std::string dir_;
};

// Main or further output, synchronous or asynchronous start.
struct LiveCase {
  const char* name;
  Proto proto;
  bool further;
  bool async;
};

std::string CaseName(const ::testing::TestParamInfo<LiveCase>& info) { return info.param.name; }
void PrintTo(const LiveCase& c, std::ostream* os) { *os << c.name; }

class ClassicLive : public ClassicLiveBase, public ::testing::TestWithParam<LiveCase> {
 protected:
  void SetUp() override { MakeDir(); }
  void TearDown() override { fs::remove_all(dir_); }
};

// Two seconds recorded to a real server: it receives streams that decode
// cleanly, with the codecs of the protocol and the length sent.
TEST_P(ClassicLive, ServerReceivesWhatWasSent) {
  const LiveCase c = GetParam();
  if (const char* missing = Peer::Missing(c.proto)) GTEST_SKIP() << missing;
  Peer peer(c.proto, dir_);
  ASSERT_TRUE(peer.ok()) << "the server did not start";
  const std::string url = peer.Url(), mp4 = Path("main.mp4");
  MovieInfo info = Settings(c.further ? mp4 : url, 320, 240);
  if (c.further) info.other_urls[0] = url.c_str();
  info.timeout_sec = 5;
  {
    Host host(info, nullptr, c.async);
    const auto started = host.status().Wait(30);
    ASSERT_EQ(started.code, 0) << started.message;
    EXPECT_EQ(started.message, "start OK");
    // An asynchronous start reports from the library's start thread.
    EXPECT_EQ(started.thread != std::this_thread::get_id(), c.async);
    host.FeedUntil(2.0);
    host.Stop();
    EXPECT_EQ(host.status().Get().code, 0) << host.status().Get().message;
  }
  peer.Stop();

  const std::string received = peer.Received();
  const ProbeResult r = Probe(received);
  ASSERT_TRUE(r.ok) << r.errors;
  ASSERT_EQ(r.streams.size(), 2u);
  EXPECT_EQ(r.streams[0].codec_name, "h264");
  // A further output carries copies of the main output's packets: AAC.
  EXPECT_EQ(r.streams[1].codec_name, c.proto == Proto::kRtsp && !c.further ? "opus" : "aac");
  EXPECT_NEAR(r.duration, 2.0, 0.5);
  EXPECT_EQ(DecodeErrors(received), "");
  if (c.further) {
    EXPECT_NEAR(Probe(mp4).duration, 2.0, 0.1);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Servers, ClassicLive,
    ::testing::Values(LiveCase{"RtmpMainAsync", Proto::kRtmp, false, true},
                      LiveCase{"RtmpFurther", Proto::kRtmp, true, false},
                      LiveCase{"RtspMain", Proto::kRtsp, false, false},
                      LiveCase{"RtspFurtherAsync", Proto::kRtsp, true, true}),
    CaseName);

// A server that accepts the connection and never answers: the start fails
// within the time-out and names the output, frames are refused, and stop
// returns at once.
class ClassicSilent : public ClassicLive {};

TEST_P(ClassicSilent, StartFailsWithinTheTimeOut) {
  const LiveCase c = GetParam();
  zeva::test::SilentServer silent;
  ASSERT_TRUE(silent.ok());
  const std::string url = silent.Url(c.proto == Proto::kRtmp ? "rtmp" : "rtsp");
  MovieInfo info = Settings(c.further ? Path("main.mp4") : url, 320, 240);
  if (c.further) info.other_urls[0] = url.c_str();
  info.timeout_sec = 1;

  const auto t0 = std::chrono::steady_clock::now();
  Host host(info, nullptr, c.async);
  const auto failed = host.status().WaitFailure(30);
  const double start_s = Since(t0);
  ASSERT_NE(failed.code, 0);
  if (c.proto == Proto::kRtmp && !c.further) {
    // The main output's connect: the fixed report of an output that cannot open.
    EXPECT_EQ(failed.code, 11);
    EXPECT_EQ(failed.message, "Could not open url");
  } else {
    EXPECT_EQ(failed.code, 21);
    EXPECT_NE(failed.message.find(url), std::string::npos) << failed.message;
  }
  // Generous bounds for a loaded machine; without the time-out, never.
  EXPECT_LT(start_s, 10.0);
  host.FeedUntil(0.2);
  EXPECT_EQ(host.accepted_video(), 0);
  const auto t1 = std::chrono::steady_clock::now();
  host.Stop();
  const double stop_s = Since(t1);
  EXPECT_LT(stop_s, 5.0);
  std::printf("[ timing ] %s: failed after %.2f s, stopped in %.3f s (timeout_sec 1)\n", c.name,
              start_s, stop_s);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, ClassicSilent,
    ::testing::Values(LiveCase{"RtmpMain", Proto::kRtmp, false, false},
                      LiveCase{"RtspMainAsync", Proto::kRtsp, false, true},
                      LiveCase{"RtmpFurtherAsync", Proto::kRtmp, true, true},
                      LiveCase{"RtspFurther", Proto::kRtsp, true, false}),
    CaseName);

class ClassicLiveFixture : public ClassicLiveBase, public ::testing::Test {
 protected:
  void SetUp() override { MakeDir(); }
  void TearDown() override { fs::remove_all(dir_); }
};

// Without a time-out, a stop that overtakes an asynchronous start blocked on
// a silent server interrupts it; one to a port nobody listens on as well.
TEST_F(ClassicLiveFixture, StopOvertakesAStartWithoutTimeOut) {
  struct Row {
    const char* name;
    bool silent;
    const char* scheme;
    bool further;
  };
  for (const Row row : {Row{"silent rtmp main", true, "rtmp", false},
                        Row{"silent rtsp further", true, "rtsp", true},
                        Row{"dead rtmp port", false, "rtmp", false}}) {
    SCOPED_TRACE(row.name);
    zeva::test::SilentServer silent;
    ASSERT_TRUE(silent.ok());
    const std::string url =
        row.silent ? silent.Url(row.scheme)
                   : "rtmp://127.0.0.1:" + std::to_string(zeva::test::FreeLoopbackPort()) + "/live/x";
    MovieInfo info = Settings(row.further ? Path("main.mp4") : url, 320, 240);
    if (row.further) info.other_urls[0] = url.c_str();
    info.timeout_sec = 0;
    Host host(info, nullptr, /*async=*/true);
    // Stop while the start waits for the server's first answer.
    if (row.silent) {
      EXPECT_TRUE(silent.WaitForClient(10));
    }
    const auto t0 = std::chrono::steady_clock::now();
    host.Stop();
    const double stop_s = Since(t0);
    EXPECT_LT(stop_s, 5.0);
    // The start that gave up reports nothing after the stop.
    if (row.silent) {
      EXPECT_EQ(host.status().count(), 0u);
    }
    std::printf("[ timing ] %s: stop overtook the start in %.3f s (timeout_sec 0)\n", row.name,
                stop_s);
  }
}

// A file recording with an RTMP copy whose server dies: the failure reaches
// the status callback naming the stream, and the file keeps every frame.
TEST_F(ClassicLiveFixture, ServerKilledMidRecordingLeavesTheFileComplete) {
  if (const char* missing = Peer::Missing(Proto::kRtmp)) GTEST_SKIP() << missing;
  zeva::test::RtmpServer server(dir_);
  ASSERT_TRUE(server.ok()) << "the server did not start";
  const std::string url = server.Url("live"), mp4 = Path("main.mp4");
  MovieInfo info = Settings(mp4, 320, 240);
  info.other_urls[0] = url.c_str();
  info.timeout_sec = 2;
  int accepted = 0;
  int64_t samples = 0;
  {
    Host host(info);
    ASSERT_EQ(host.status().Get().code, 0) << host.status().Get().message;
    host.FeedUntil(1.0);
    server.Kill();
    // The writer finds out at one of its next writes to the dead connection.
    double until = 1.0;
    while (host.status().Get().code == 0 && until < 20.0) host.FeedUntil(until += 0.25);
    const auto failed = host.status().Get();
    EXPECT_LT(failed.code, 0);
    EXPECT_NE(failed.message.find(url), std::string::npos) << failed.message;
    host.FeedUntil(until + 1.0);  // the file goes on
    host.Stop();
    accepted = host.accepted_video();
    samples = host.fed_samples();
  }
  const ProbeResult r = Probe(mp4);
  ASSERT_TRUE(r.ok) << r.errors;
  EXPECT_EQ(DecodeErrors(mp4), "");
  EXPECT_EQ(zeva::test::PacketsOf(r, 0).size(), static_cast<size_t>(accepted));
  int64_t audio = 0;
  for (const auto& p : zeva::test::PacketsOf(r, 1)) audio += p.duration;
  EXPECT_NEAR(double(audio) / 48000, double(samples) / 44100, 0.05);
}

}  // namespace
