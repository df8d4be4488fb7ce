// Live outputs of the classic interface against real servers on loopback:
// an RTMP server, an RTSP receiver, a server that never answers and one
// that dies mid-recording.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "support/classic_host.h"
#include "support/live_peer.h"
#include "support/loopback.h"
#include "support/probe.h"
#include "support/rtmp_server.h"
#include "support/silent_server.h"

namespace fs = std::filesystem;
using zeva::test::DecodeErrors;
using zeva::test::Host;
using zeva::test::Peer;
using zeva::test::Probe;
using zeva::test::ProbeResult;
using zeva::test::Proto;
using zeva::test::Settings;

namespace {

double Since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

class ClassicLive : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zeva-live-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string dir_;
};

// One second recorded to real servers as the main output and as a further
// one: each receives streams that decode cleanly, with the codecs of the
// protocol (a further output carries copies of the main output's packets)
// and the length sent, and an asynchronous start reports from the library's
// start thread.
TEST_F(ClassicLive, ServersReceiveWhatWasSent) {
  for (const Proto proto : {Proto::kRtmp, Proto::kRtsp})
    if (const char* missing = Peer::Missing(proto)) GTEST_SKIP() << missing;
  struct Row {
    const char* name;
    int main, further;  // a Proto, or -1: a file for the main output, no further one
    bool async;
  };
  const int rtmp = int(Proto::kRtmp), rtsp = int(Proto::kRtsp);
  for (const Row row : {Row{"rtmp-rtsp", rtmp, rtsp, true}, Row{"rtsp", rtsp, -1, false},
                        Row{"file-rtmp", -1, rtmp, false}}) {
    SCOPED_TRACE(row.name);
    const std::string sub = Path(row.name), mp4 = sub + "/main.mp4";
    fs::create_directories(sub);
    std::unique_ptr<Peer> peers[2];
    for (int k : {0, 1}) {
      const int proto = k == 0 ? row.main : row.further;
      if (proto < 0) continue;
      peers[k] = std::make_unique<Peer>(Proto(proto), sub);
      ASSERT_TRUE(peers[k]->ok()) << "the server did not start";
    }
    MovieInfo info = Settings(peers[0] ? peers[0]->Url() : mp4);
    const std::string further = peers[1] ? peers[1]->Url() : "";
    if (peers[1]) info.other_urls[0] = further.c_str();
    info.timeout_sec = 5;
    {
      Host host(info, nullptr, row.async);
      const auto started = host.status().Wait(30);
      ASSERT_EQ(started.code, 0) << started.message;
      EXPECT_EQ(started.message, "start OK");
      EXPECT_EQ(started.thread != std::this_thread::get_id(), row.async);
      host.FeedUntil(1.0);
      host.Stop();
      EXPECT_EQ(host.status().Wait().code, 0) << host.status().Wait().message;
    }
    for (const auto& peer : peers) {
      if (!peer) continue;
      peer->Stop();
      const ProbeResult r = Probe(peer->Received());
      ASSERT_TRUE(r.ok) << r.errors;
      ASSERT_EQ(r.streams.size(), 2u);
      EXPECT_EQ(r.streams[0].codec_name, "h264");
      EXPECT_EQ(r.streams[1].codec_name, row.main == rtsp ? "opus" : "aac");
      EXPECT_NEAR(r.duration, 1.0, 0.5);
      EXPECT_EQ(DecodeErrors(peer->Received()), "");
    }
    EXPECT_NEAR(peers[0] ? 1.0 : Probe(mp4).duration, 1.0, 0.1);
  }
}

// A server that accepts the connection and never answers: with a time-out
// the start fails within it and names the output, frames are refused, and
// stop returns at once; without one, a stop that overtakes an asynchronous
// start interrupts it, as it does one to a port nobody listens on, and the
// start that gave up reports nothing.
TEST_F(ClassicLive, SilentServerFailsTheStartOrTheStopInterruptsIt) {
  struct Row {
    const char* name;
    bool further, async;
    int timeout_sec;
  };
  // RTMP starts asynchronously: without the time-out a synchronous one never returns.
  for (const Row row : {Row{"rtmp", false, true, 1}, Row{"rtsp", false, false, 1},
                        Row{"rtmp", true, true, 1}, Row{"rtmp", false, true, 0},
                        Row{"rtsp", true, true, 0}, Row{"dead", false, true, 0}}) {
    SCOPED_TRACE(std::string(row.name) + (row.further ? " further, " : " main, ") +
                 std::to_string(row.timeout_sec));
    zeva::test::SilentServer silent;
    ASSERT_TRUE(silent.ok());
    const bool dead = std::string(row.name) == "dead";
    const std::string url =
        dead ? "rtmp://127.0.0.1:" + std::to_string(zeva::test::FreeLoopbackPort()) + "/live/x"
             : silent.Url(row.name);
    MovieInfo info = Settings(row.further ? Path("main.mp4") : url);
    if (row.further) info.other_urls[0] = url.c_str();
    info.timeout_sec = row.timeout_sec;
    const auto t0 = std::chrono::steady_clock::now();
    Host host(info, nullptr, row.async);
    if (row.timeout_sec > 0) {
      const auto failed = host.status().Wait(15, /*failure=*/true);
      ASSERT_NE(failed.code, 0);
      if (std::string(row.name) == "rtmp" && !row.further) {
        // The main output's connect: the fixed report of an output that cannot open.
        EXPECT_EQ(failed.code, 11);
        EXPECT_EQ(failed.message, "Could not open url");
      } else {
        EXPECT_EQ(failed.code, 21);
        EXPECT_NE(failed.message.find(url), std::string::npos) << failed.message;
      }
      EXPECT_LT(Since(t0), 10.0);  // generous for a loaded machine
      host.FeedUntil(0.2);
      EXPECT_EQ(host.accepted_video(), 0);
    } else if (!dead) {
      EXPECT_TRUE(silent.WaitForClient(10));  // the start waits for the first answer
    }
    const auto t1 = std::chrono::steady_clock::now();
    host.Stop();
    EXPECT_LT(Since(t1), 5.0);
    EXPECT_TRUE(row.timeout_sec > 0 || dead || host.status().count() == 0);
  }
}

// A file recording with an RTMP copy whose server dies: the failure reaches
// the status callback naming the stream, and the file keeps every frame.
TEST_F(ClassicLive, ServerKilledMidRecordingLeavesTheFileComplete) {
  if (const char* missing = Peer::Missing(Proto::kRtmp)) GTEST_SKIP() << missing;
  zeva::test::RtmpServer server(dir_);
  ASSERT_TRUE(server.ok()) << "the server did not start";
  const std::string url = server.Url("live"), mp4 = Path("main.mp4");
  MovieInfo info = Settings(mp4);
  info.other_urls[0] = url.c_str();
  info.timeout_sec = 2;
  int accepted = 0;
  int64_t samples = 0;
  {
    Host host(info);
    ASSERT_EQ(host.status().Wait().code, 0) << host.status().Wait().message;
    host.FeedUntil(0.5);
    server.Kill();
    // The writer finds out at one of its next writes to the dead connection.
    double until = 0.5;
    while (host.status().Wait().code == 0 && until < 20.0) host.FeedUntil(until += 0.25);
    const auto failed = host.status().Wait();
    EXPECT_LT(failed.code, 0);
    EXPECT_NE(failed.message.find(url), std::string::npos) << failed.message;
    host.FeedUntil(until + 0.5);  // the file goes on
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
