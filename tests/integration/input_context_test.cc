// The in-memory H.264 and AAC inputs fed what never makes sense. Their
// normal work, host timestamps restored through sorting and smoothing, is
// checked through the packet interface.
#include "packet/input_context.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "support/es_media.h"
#include "support/log_capture.h"

namespace {

using zeva::InputContext;
using zeva::InputQueue;
using zeva::test::EsPacket;

// Far below the 30 s a no-data wait ten times too long would take.
constexpr auto kDeadline = std::chrono::seconds(15);

struct Delivered {
  std::string name;
  bool null_packet;
};

// What the demux loop hands on: host microseconds on both stamps, no stream
// chosen yet.
int Collect(AVPacket* pkt, const AVRational& tb, const char* name, void* user) {
  if (pkt != nullptr) {
    EXPECT_EQ(pkt->pts, pkt->dts);
    EXPECT_EQ(pkt->stream_index, -1);
    EXPECT_EQ(av_cmp_q(tb, AVRational{1, 1000000}), 0);
  }
  static_cast<std::vector<Delivered>*>(user)->push_back({name, pkt == nullptr});
  return 0;
}

bool Push(InputQueue& q, const EsPacket& p, int64_t usec) {
  return q.push_data(p.data.data(), static_cast<int32_t>(p.data.size()), usec);
}

// Opens the inputs and runs the demux loop to its end, within the deadline.
std::vector<Delivered> Demux(InputContext& ctx, const char* audio, const char* video, bool opens) {
  std::vector<Delivered> out;
  auto demux = std::async(std::launch::async, [&] {
    const zeva::Status s = ctx.open_inputs(audio, video);
    EXPECT_EQ(s.ok, opens) << s.code << " " << s.message;
    if (!s.ok) {
      EXPECT_EQ(s.code, -23);
      EXPECT_EQ(s.message, "no aac, no h264");
    }
    ctx.run_demux(&Collect, &out);
  });
  const bool done = demux.wait_for(kDeadline) == std::future_status::ready;
  EXPECT_TRUE(done) << "demux still running at the deadline";
  if (!done) {
    ctx.video.abort();
    ctx.audio.abort();
  }
  demux.get();
  EXPECT_TRUE(!out.empty() && out.back().null_packet) << "ends with the tailer";
  return out;
}

const zeva::test::EsMedia& Media() { return zeva::test::TestStreams(); }

// Inputs that never make sense: each opens (or fails) with a clear result
// and log line, and the demux loop still ends with the tailer.
struct BadInputCase {
  const char* name;
  const char* audio_format;
  const char* video_format;
  int video_fill;  // 0: nothing, 1: random bytes, 2: real H.264
  int audio_fill;  // 0: nothing, 1: random bytes, 2: real AAC
  bool opens;
  std::string log_line;  // the start of one line expected in the log
};

class InputContextBadInputTest : public ::testing::TestWithParam<BadInputCase> {};

TEST_P(InputContextBadInputTest, EndsCleanly) {
  const BadInputCase& c = GetParam();
  ASSERT_EQ(Media().error, "");
  zeva::test::LogCapture log;
  InputContext ctx;
  uint32_t x = 12345;
  auto fill = [&](InputQueue& q, int kind, const std::vector<EsPacket>& real) {
    for (int i = 0; kind == 1 && i < 50; ++i) {
      EsPacket garbage{zeva::test::Bytes(4000), i * 1000};
      for (uint8_t& b : garbage.data) b = static_cast<uint8_t>((x = x * 1103515245u + 12345u) >> 24);
      Push(q, garbage, garbage.pts_us);
    }
    for (size_t i = 0; kind == 2 && i < real.size(); ++i) Push(q, real[i], real[i].pts_us);
    if (kind != 0) {  // inputs that got data end after it; one that got none stays silent
      q.push_data(nullptr, 0, 0);
      q.push(nullptr, INT32_MAX, false, 0);
    }
  };
  fill(ctx.video, c.video_fill, Media().video);
  fill(ctx.audio, c.audio_fill, Media().audio);
  Demux(ctx, c.audio_format, c.video_format, c.opens);
  int n = 0;
  for (const std::string& l : log.Take()) n += l.compare(0, c.log_line.size(), c.log_line) == 0;
  EXPECT_EQ(n, 1) << c.log_line;
  EXPECT_EQ(ctx.video_ic() != nullptr, c.video_fill == 2);
  EXPECT_EQ(ctx.audio_ic() != nullptr, c.audio_fill == 2);
  ctx.clear();
}

std::string Line(const char* input, int error, const std::string& what) {
  return std::string("2:input '") + input + "' error(" + std::to_string(error) + "): " + what;
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, InputContextBadInputTest,
    ::testing::Values(
        BadInputCase{"no_data", nullptr, "h264", 0, 0, false,
                     Line("h264", AVERROR_STREAM_NOT_FOUND, "could not find stream information for 'h264'")},
        BadInputCase{"garbage_h264", nullptr, "h264", 1, 0, false,
                     Line("h264", AVERROR_INVALIDDATA, "could not find stream information for 'h264'")},
        BadInputCase{"unknown_format", "aac", "h266x", 0, 2, true,
                     Line("h264", AVERROR_MUXER_NOT_FOUND, "could not find input format 'h266x'")},
        BadInputCase{"video_without_data", "aac", "h264", 0, 2, true,
                     "2:warning: ===> 'h264' has no input data, wait timeout (time="}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
