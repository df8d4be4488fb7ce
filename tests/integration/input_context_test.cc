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

using zeva::test::EsPacket;

// What the demux loop hands on: host microseconds on both stamps, no stream
// chosen yet; the last is the null tailer.
int Collect(AVPacket* pkt, const AVRational& tb, const char*, void* user) {
  if (pkt != nullptr) {
    EXPECT_EQ(pkt->pts, pkt->dts);
    EXPECT_EQ(pkt->stream_index, -1);
    EXPECT_EQ(av_cmp_q(tb, AVRational{1, 1000000}), 0);
  }
  *static_cast<bool*>(user) = pkt == nullptr;
  return 0;
}

// Inputs that never make sense: each opens (or fails) with a clear result
// and log line, and the demux loop still ends with the tailer.
struct BadInputCase {
  const char* name;
  const char* video_format;
  int video_fill;  // 0: nothing, 1: random bytes
  const char* audio_format;  // fed real AAC when set
  std::string log_line;  // the start of one line expected in the log
};

class InputContextBadInputTest : public ::testing::TestWithParam<BadInputCase> {};

TEST_P(InputContextBadInputTest, EndsCleanly) {
  const BadInputCase& c = GetParam();
  const zeva::test::EsMedia& media = zeva::test::TestStreams();
  ASSERT_EQ(media.error, "");
  zeva::test::LogCapture log;
  zeva::InputContext ctx;
  uint32_t x = 12345;
  auto fill = [&](zeva::InputQueue& q, const std::vector<EsPacket>& packets) {
    for (const EsPacket& p : packets) q.push_data(p.data.data(), int32_t(p.data.size()), p.pts_us);
    q.push_data(nullptr, 0, 0);
    q.push(nullptr, INT32_MAX, false, 0);
  };
  std::vector<EsPacket> garbage(1, EsPacket{zeva::test::Bytes(200000), 0});
  for (uint8_t& b : garbage[0].data) b = static_cast<uint8_t>((x = x * 1103515245u + 12345u) >> 24);
  if (c.video_fill == 1) fill(ctx.video, garbage);  // an input that gets nothing stays silent
  if (c.audio_format != nullptr) fill(ctx.audio, media.audio);
  bool ended = false;
  // Far below the 30 s a no-data wait ten times too long would take.
  auto demux = std::async(std::launch::async, [&] {
    const zeva::Status s = ctx.open_inputs(c.audio_format, c.video_format);
    EXPECT_EQ(s.ok, c.audio_format != nullptr) << s.code << " " << s.message;
    EXPECT_EQ(s.ok ? "no aac, no h264" : s.message, "no aac, no h264");
    ctx.run_demux(&Collect, &ended);
  });
  if (demux.wait_for(std::chrono::seconds(15)) != std::future_status::ready) {
    ADD_FAILURE() << "demux still running at the deadline";
    ctx.video.abort();
    ctx.audio.abort();
  }
  demux.get();
  EXPECT_TRUE(ended);
  int n = 0;
  for (const std::string& l : log.Take()) n += l.compare(0, c.log_line.size(), c.log_line) == 0;
  EXPECT_EQ(n, 1) << c.log_line;
  EXPECT_EQ(ctx.audio_ic() != nullptr, c.audio_format != nullptr);
  ctx.clear();
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, InputContextBadInputTest,
    ::testing::Values(
        BadInputCase{"garbage_h264", "h264", 1, nullptr,
                     "2:input 'h264' error(" + std::to_string(AVERROR_INVALIDDATA) +
                         "): could not find stream information for 'h264'"},
        BadInputCase{"unknown_format", "h266x", 0, "aac",
                     "2:input 'h264' error(" + std::to_string(AVERROR_MUXER_NOT_FOUND) +
                         "): could not find input format 'h266x'"},
        BadInputCase{"video_without_data", "h264", 0, "aac",
                     "2:warning: ===> 'h264' has no input data, wait timeout (time="}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
