// The in-memory H.264 and AAC inputs over real elementary streams: stream
// parameters, host timestamps restored in order through sorting and
// smoothing, and inputs that never make sense.
#include "packet/input_context.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "support/elementary_stream.h"
#include "support/encoded_media.h"
#include "support/log_capture.h"

namespace {

using zeva::InputContext;
using zeva::InputQueue;

constexpr auto kDeadline = std::chrono::seconds(30);
constexpr int64_t kVideoStepUs = 33333;
constexpr int64_t kAudioStepUs = 21333;
constexpr int64_t kStartUs = 7000000;

struct Delivered {
  std::string name;
  int64_t pts, dts;
  int stream_index;
  int size;
  AVRational time_base;
  bool null_packet;
};

int Collect(AVPacket* pkt, const AVRational& tb, const char* name, void* user) {
  auto* out = static_cast<std::vector<Delivered>*>(user);
  if (pkt == nullptr) {
    out->push_back({name, 0, 0, 0, 0, tb, true});
  } else {
    out->push_back({name, pkt->pts, pkt->dts, pkt->stream_index, pkt->size, tb, false});
  }
  return 0;
}

// One push of a host packet: which input, its bytes and stamp.
struct HostPush {
  bool video;
  const std::string* bytes;
  int64_t usec;
};

class InputContextTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new std::string(zeva::test::MakeTempDir("inputs"));
    es_ = new zeva::test::ElementaryStreams(zeva::test::MakeElementaryStreams(*dir_, 2.0));
  }
  static void TearDownTestSuite() {
    std::filesystem::remove_all(*dir_);
    delete dir_;
    delete es_;
  }

  // Video and audio pushes merged by time; video stamps moved by `jitter`.
  static std::vector<HostPush> Schedule(int64_t (*jitter)(size_t)) {
    std::vector<HostPush> v;
    size_t a = 0;
    for (size_t i = 0; i < es_->video.size(); ++i) {
      const int64_t t = kStartUs + static_cast<int64_t>(i) * kVideoStepUs;
      for (; a < es_->audio.size() && kStartUs + static_cast<int64_t>(a) * kAudioStepUs <= t; ++a)
        v.push_back({false, &es_->audio[a], kStartUs + static_cast<int64_t>(a) * kAudioStepUs});
      v.push_back({true, &es_->video[i], t + jitter(i)});
    }
    for (; a < es_->audio.size(); ++a)
      v.push_back({false, &es_->audio[a], kStartUs + static_cast<int64_t>(a) * kAudioStepUs});
    return v;
  }

  // Opens both inputs and demuxes while another thread pushes `pushes`,
  // flushes and ends the inputs, as a host and its stop would.
  std::vector<Delivered> Run(InputContext& ctx, const std::vector<HostPush>& pushes) {
    std::thread host([&] {
      for (const HostPush& p : pushes) {
        InputQueue& q = p.video ? ctx.video : ctx.audio;
        EXPECT_TRUE(q.push_data(reinterpret_cast<const uint8_t*>(p.bytes->data()),
                                static_cast<int32_t>(p.bytes->size()), p.usec));
      }
      ctx.video.push_data(nullptr, 0, 0);
      ctx.audio.push_data(nullptr, 0, 0);
      ctx.que_abort();
    });
    std::vector<Delivered> out;
    auto demux = std::async(std::launch::async, [&] {
      const zeva::Status s = ctx.open_inputs("aac", "h264");
      EXPECT_TRUE(s.ok) << s.message;
      ctx.run_demux(&Collect, &out);
    });
    const bool done = demux.wait_for(kDeadline) == std::future_status::ready;
    EXPECT_TRUE(done) << "demux still running at the deadline";
    if (!done) {
      ctx.video.abort();
      ctx.audio.abort();
    }
    demux.get();
    host.join();
    return out;
  }

  static std::vector<int64_t> Stamps(const std::vector<Delivered>& d, const char* name) {
    std::vector<int64_t> out;
    for (const Delivered& p : d) {
      if (p.name != name) continue;
      EXPECT_EQ(p.pts, p.dts);
      EXPECT_EQ(p.stream_index, -1);
      EXPECT_EQ(p.time_base.num, 1);
      EXPECT_EQ(p.time_base.den, 1000000);
      out.push_back(p.pts);
    }
    return out;
  }

  static std::string* dir_;
  static zeva::test::ElementaryStreams* es_;
};

std::string* InputContextTest::dir_ = nullptr;
zeva::test::ElementaryStreams* InputContextTest::es_ = nullptr;

// Audio keeps exact stamps: every demuxed packet gets exactly its host stamp.
// Video stamps wobble by ±3 ms, and every third pair of video packets is
// pushed in swapped order: the sorting puts bytes and stamps back in order
// and the smoother leaves a tenth of the wobble or so.
TEST_F(InputContextTest, RestoresHostTimestampsAndStreamParameters) {
  ASSERT_EQ(es_->video.size(), 60u);
  ASSERT_GT(es_->audio.size(), 90u);
  std::vector<HostPush> pushes =
      Schedule([](size_t i) -> int64_t { return i < 2 ? 0 : (i % 2 ? 3000 : -3000); });
  int swapped = 0;
  for (size_t i = 0, seen = 0; i + 1 < pushes.size(); ++i) {
    if (!pushes[i].video || ++seen % 3 != 0) continue;
    size_t j = i + 1;
    while (j < pushes.size() && !pushes[j].video) ++j;
    if (j == pushes.size() || j - i > 4) continue;  // stay within the sort depth
    std::swap(pushes[i], pushes[j]);
    ++swapped;
    i = j;
  }
  ASSERT_GT(swapped, 10);

  InputContext ctx;
  const std::vector<Delivered> out = Run(ctx, pushes);
  ASSERT_FALSE(out.empty());
  EXPECT_TRUE(out.back().null_packet);
  EXPECT_EQ(out.back().name, "tailer");

  std::vector<int64_t> want_audio;
  for (size_t i = 0; i < es_->audio.size(); ++i) want_audio.push_back(kStartUs + i * kAudioStepUs);
  EXPECT_EQ(Stamps(out, "aac"), want_audio);
  const std::vector<int64_t> video = Stamps(out, "h264");
  ASSERT_EQ(video.size(), es_->video.size());
  for (size_t i = 0; i < video.size(); ++i) {
    EXPECT_NEAR(video[i], kStartUs + static_cast<int64_t>(i) * kVideoStepUs, 750) << i;
    if (i > 0) {
      EXPECT_GT(video[i], video[i - 1]);
    }
  }

  ASSERT_NE(ctx.video_ic(), nullptr);
  ASSERT_NE(ctx.audio_ic(), nullptr);
  const AVCodecParameters* v = ctx.video_ic()->streams[0]->codecpar;
  EXPECT_EQ(v->codec_id, AV_CODEC_ID_H264);
  EXPECT_EQ(v->width, 320);
  EXPECT_EQ(v->height, 240);
  EXPECT_EQ(v->profile, FF_PROFILE_H264_HIGH);
  EXPECT_EQ(v->format, AV_PIX_FMT_YUV420P);
  EXPECT_GT(v->extradata_size, 0);  // SPS and PPS, for MP4 and FLV outputs
  const AVCodecParameters* a = ctx.audio_ic()->streams[0]->codecpar;
  EXPECT_EQ(a->codec_id, AV_CODEC_ID_AAC);
  EXPECT_EQ(a->sample_rate, 48000);
  EXPECT_EQ(a->ch_layout.nb_channels, 2);
  EXPECT_EQ(a->profile, FF_PROFILE_AAC_LOW);
}

// The stream analysis needs a few frames, not FFmpeg's default seconds:
// with only 8 access units ever queued (5 more wait in the sort queue) and
// no end of stream, the video input opens with full parameters before the
// no-data time-out.
TEST_F(InputContextTest, OpensAfterAFewFrames) {
  zeva::test::LogCapture log;
  InputContext ctx;
  for (size_t i = 0; i < 13; ++i) {
    ASSERT_TRUE(ctx.video.push_data(reinterpret_cast<const uint8_t*>(es_->video[i].data()),
                                    static_cast<int32_t>(es_->video[i].size()), i * kVideoStepUs));
  }
  const zeva::Status s = ctx.open_inputs(nullptr, "h264");
  ASSERT_TRUE(s.ok) << s.message;
  for (const std::string& line : log.Take()) EXPECT_EQ(line.find("has no input data"), std::string::npos) << line;
  const AVCodecParameters* v = ctx.video_ic()->streams[0]->codecpar;
  EXPECT_EQ(v->width, 320);
  EXPECT_EQ(v->height, 240);
  EXPECT_GT(v->extradata_size, 0);
  EXPECT_GT(ctx.video.size(), 0) << "the analysis read every frame there was";
}

// Inputs that never make sense: each opens (or fails) with a clear result
// and log line, and the demux loop still ends with the tailer.
struct BadInputCase {
  const char* name;
  const char* audio_format;
  const char* video_format;
  int video_fill;   // 0: nothing, 1: random bytes, 2: real H.264
  int audio_fill;   // 0: nothing, 1: random bytes, 2: real AAC
  bool opens;
  std::string log_line;  // the start of one line expected in the log
};

class InputContextBadInputTest : public InputContextTest,
                                 public ::testing::WithParamInterface<BadInputCase> {};

TEST_P(InputContextBadInputTest, EndsCleanly) {
  const BadInputCase& c = GetParam();
  zeva::test::LogCapture log;
  InputContext ctx;
  std::string garbage(200000, '\0');
  uint32_t x = 12345;
  for (char& ch : garbage) ch = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
  auto fill = [&](InputQueue& q, int kind, const std::vector<std::string>& real) {
    if (kind == 1) {
      for (size_t i = 0; i < garbage.size(); i += 4000)
        q.push_data(reinterpret_cast<const uint8_t*>(garbage.data() + i), 4000, i);
    } else if (kind == 2) {
      for (size_t i = 0; i < real.size(); ++i)
        q.push_data(reinterpret_cast<const uint8_t*>(real[i].data()), static_cast<int32_t>(real[i].size()), i * 1000);
    }
    if (kind != 0) q.push_data(nullptr, 0, 0);
  };
  fill(ctx.video, c.video_fill, es_->video);
  fill(ctx.audio, c.audio_fill, es_->audio);
  // Inputs that got data end after it; one that got none stays silent.
  if (c.video_fill != 0) ctx.video.push(nullptr, INT32_MAX, false, 0);
  if (c.audio_fill != 0) ctx.audio.push(nullptr, INT32_MAX, false, 0);

  std::vector<Delivered> out;
  auto demux = std::async(std::launch::async, [&] {
    const zeva::Status s = ctx.open_inputs(c.audio_format, c.video_format);
    EXPECT_EQ(s.ok, c.opens) << s.code << " " << s.message;
    if (!s.ok) {
      EXPECT_EQ(s.code, -23);
      EXPECT_EQ(s.message, "no aac, no h264");
    }
    ctx.run_demux(&Collect, &out);
  });
  ASSERT_EQ(demux.wait_for(kDeadline), std::future_status::ready);
  demux.get();
  const std::vector<std::string> lines = log.Take();
  int n = 0;
  for (const std::string& l : lines) n += l.compare(0, c.log_line.size(), c.log_line) == 0;
  EXPECT_EQ(n, 1) << c.log_line;
  EXPECT_EQ(ctx.video_ic() != nullptr, c.video_fill == 2);
  EXPECT_EQ(ctx.audio_ic() != nullptr, c.audio_fill == 2);
  ASSERT_FALSE(out.empty());
  EXPECT_TRUE(out.back().null_packet);
  ctx.clear();
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, InputContextBadInputTest,
    ::testing::Values(
        BadInputCase{"no_data", nullptr, "h264", 0, 0, false,
                     "2:input 'h264' error(" + std::to_string(AVERROR_STREAM_NOT_FOUND) +
                         "): could not find stream information for 'h264'"},
        BadInputCase{"garbage_h264", nullptr, "h264", 1, 0, false,
                     "2:input 'h264' error(" + std::to_string(AVERROR_INVALIDDATA) +
                         "): could not find stream information for 'h264'"},
        BadInputCase{"garbage_aac", "aac", nullptr, 0, 1, false,
                     "2:input 'aac' error(" + std::to_string(AVERROR_INVALIDDATA) +
                         "): could not find stream information for 'aac'"},
        BadInputCase{"unknown_format", "aac", "h266x", 0, 2, true,
                     "2:input 'h264' error(" + std::to_string(AVERROR_MUXER_NOT_FOUND) +
                         "): could not find input format 'h266x'"},
        BadInputCase{"video_without_data", "aac", "h264", 0, 2, true,
                     "2:warning: ===> 'h264' has no input data, wait timeout (time="}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
