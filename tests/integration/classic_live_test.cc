// Live outputs of the classic interface against real servers on loopback:
// an RTMP server, an RTSP receiver, a server that never answers and one
// that dies mid-recording.
#include <zeva/zeva.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/classic_host.h"
#include "support/files.h"
#include "support/live_peer.h"
#include "support/loopback.h"
#include "support/probe.h"
#include "support/silent_server.h"

using zeva::test::DecodeErrors;
using zeva::test::Host;
using zeva::test::Peer;
using zeva::test::Probe;
using zeva::test::Proto;
using zeva::test::Settings;

namespace {

class ClassicLive : public ::testing::Test {
 protected:
  const zeva::test::TempDir dir_;
};

// One second recorded to real servers as the main output (started
// asynchronously) and, for RTMP, to RTSP as a further one: each receives streams that decode
// cleanly, with the codecs of the protocol (a further output carries copies
// of the main output's packets) and the length sent.
TEST_F(ClassicLive, ServersReceiveWhatWasSent) {
  for (const Proto proto : {Proto::kRtmp, Proto::kRtsp})
    if (const char* missing = Peer::Missing(proto)) GTEST_SKIP() << missing;
  for (const Proto main : {Proto::kRtmp, Proto::kRtsp}) {
    const std::string sub = dir_ / (main == Proto::kRtmp ? "rtmp" : "rtsp");
    std::filesystem::create_directories(sub);
    std::vector<Peer> peers;  // RTSP's opus has no place in RTMP: no further output then
    peers.emplace_back(main, sub);
    if (main == Proto::kRtmp) peers.emplace_back(Proto::kRtsp, sub);
    MovieInfo info = Settings(peers[0].Url());
    const std::string further = peers.back().Url();
    if (peers.size() > 1) info.other_urls[0] = further.c_str();
    info.timeout_sec = 5;
    {
      Host host(info, nullptr, /*async=*/true);
      const auto started = host.status().Wait(30);
      ASSERT_EQ(started.code, 0) << started.message;
      host.FeedUntil(1.0);
      host.Stop();
    }
    for (Peer& peer : peers) {
      peer.Stop();
      const auto r = Probe(peer.Received());
      ASSERT_EQ(r.streams.size(), 2u) << r.errors;
      EXPECT_EQ(r.streams[0].codec_name, "h264");
      EXPECT_EQ(r.streams[1].codec_name, main == Proto::kRtsp ? "opus" : "aac");
      EXPECT_NEAR(r.duration, 1.0, 0.5);
      EXPECT_EQ(DecodeErrors(peer.Received()), "");
    }
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
    int timeout_sec, code;  // the failure reported with a time-out
  };
  // RTMP starts asynchronously: without the time-out a synchronous one never returns.
  for (const Row row : {Row{"rtmp", false, true, 1, 11}, Row{"rtsp", false, false, 1, 21},
                        Row{"rtmp", true, true, 1, 21}, Row{"rtmp", false, true, 0, 0},
                        Row{"dead", false, true, 0, 0}}) {
    SCOPED_TRACE(testing::Message() << row.name << " further " << row.further << " " << row.timeout_sec);
    zeva::test::SilentServer silent;
    const bool dead = std::string(row.name) == "dead";
    const std::string url =
        dead ? "rtmp://127.0.0.1:" + std::to_string(zeva::test::FreeLoopbackPort()) + "/live/x"
             : silent.Url(row.name);
    MovieInfo info = Settings(row.further ? dir_ / "main.mp4" : url);
    if (row.further) info.other_urls[0] = url.c_str();
    info.timeout_sec = row.timeout_sec;
    const auto t0 = std::chrono::steady_clock::now();
    Host host(info, nullptr, row.async);
    if (row.timeout_sec > 0) {
      const auto failed = host.status().Wait(15, /*failure=*/true);
      // An RTMP main output that cannot connect gives the fixed report of an
      // output that cannot open; the others name the output.
      EXPECT_EQ(failed.code, row.code);
      EXPECT_TRUE(row.code != 21 || failed.message.find(url) != std::string::npos) << failed.message;
      EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));  // generous
      host.FeedUntil(0.2);
      EXPECT_EQ(host.accepted_video(), 0);
    } else if (!dead) {
      EXPECT_TRUE(silent.WaitForClient(10));  // the start waits for the first answer
    }
    const auto t1 = std::chrono::steady_clock::now();
    host.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t1, std::chrono::seconds(5));
    EXPECT_TRUE(row.timeout_sec > 0 || dead || host.status().Wait().code == -1000);
  }
}

// A file recording with an RTMP copy whose server dies: the failure reaches
// the status callback naming the stream, and the file keeps every frame.
TEST_F(ClassicLive, ServerKilledMidRecordingLeavesTheFileComplete) {
  if (const char* missing = Peer::Missing(Proto::kRtmp)) GTEST_SKIP() << missing;
  zeva::test::RtmpServer server(dir_.path());
  ASSERT_TRUE(server.ok()) << "the server did not start";
  const std::string url = server.Url("live"), mp4 = dir_ / "main.mp4";
  MovieInfo info = Settings(mp4);
  info.other_urls[0] = url.c_str();
  info.timeout_sec = 2;
  int accepted = 0;
  {
    Host host(info);
    host.FeedUntil(0.5);
    server.Kill();
    // The writer finds out at one of its next writes to the dead connection.
    double until = 0.5;
    while (host.status().Wait().code == 0 && until < 20.0) host.FeedUntil(until += 0.25);
    EXPECT_LT(host.status().Wait().code, 0);
    EXPECT_NE(host.status().Wait().message.find(url), std::string::npos);
    host.FeedUntil(until + 0.5);  // the file goes on
    host.Stop();
    accepted = host.accepted_video();
  }
  const auto r = Probe(mp4);
  EXPECT_EQ(DecodeErrors(mp4), "");
  EXPECT_EQ(zeva::test::PacketsOf(r, 0).size(), static_cast<size_t>(accepted));
  EXPECT_NEAR(r.duration, accepted / 30.0, 0.1);
}

}  // namespace
