#include "index/moov_parser.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

using zeva::MoovParser;
using zeva::StreamKind;

std::string Video(const std::string& ev) {
  return R"({"type":"video","index":0,"codec":"h264","format":"yuv420p","h":1080,"w":1920,)"
         R"("tb.num":1,"tb.den":15360,"ev":")" + ev + "\"}";
}

std::string Audio(int rate, int channels, const std::string& ev) {
  return R"({"type":"audio","index":1,"codec":"aac","format":"fltp","channels":)" +
         std::to_string(channels) + R"(,"frame_size":1024,"sample_rate":)" + std::to_string(rate) +
         R"(,"tb.num":1,"tb.den":)" + std::to_string(rate) + R"(,"ev":")" + ev + "\"}";
}

const std::string kHead = "## version=2, zeva\n";
const std::string kAudioHead = kHead + Audio(48000, 2, "EZA=") + "\n";
// The configuration record made from the built-in SPS/PPS.
const char kDefaultAvcc[] = "AULAKP/hABhnQsAo2gHgCJ+WEAAAAwAQAAADAojxgyoBAARozg/I";
const char kDefaultAvccHex[] =
    "5:===> v_ext_result: 01,42,c0,28,ff,e1,00,18,67,42,c0,28,da,01,e0,08,9f,96,10,00,00,03,00,"
    "10,00,00,03,02,88,f1,83,2a,01,00,04,68,ce,0f,c8,\n";
const char kNoStreams[] = "2:未找到有效的音视频流: {path}";

// Each test writes one index file of its own.
class MoovParserTest : public testing::Test {
 protected:
  void TearDown() override { unlink(path_.c_str()); }
  const std::string& Write(const std::string& text) {
    std::ofstream(path_, std::ios::binary) << text;
    return path_;
  }

  const std::string path_ = "/tmp/zeva-moov-" + std::to_string(getpid()) + ".moov";
  zeva::test::LogCapture log_;
};

// ---------------------------------------------------------------------------
// The head: stream descriptions, version, prepared extradata and every
// message logged ("{path}" stands for the file's path).

struct HeadCase {
  const char* name;
  std::string text;
  bool ok;
  int version;
  std::vector<StreamKind> streams;
  std::vector<std::string> logs;
  std::string video_ev, audio_ev;
};

class MoovHead : public MoovParserTest, public testing::WithParamInterface<HeadCase> {};

TEST_P(MoovHead, Parses) {
  const HeadCase& c = GetParam();
  MoovParser parser;
  EXPECT_EQ(parser.parse(Write(c.text).c_str()), c.ok);
  EXPECT_EQ(parser.version(), c.version);
  EXPECT_EQ(parser.streams(), c.streams);
  std::vector<std::string> logs = c.logs;
  for (std::string& l : logs) {
    if (const size_t at = l.find("{path}"); at != std::string::npos) l.replace(at, 6, path_);
  }
  EXPECT_EQ(log_.Take(), logs);
  if (c.ok) {
    EXPECT_EQ(parser.video().extradata_b64 + "|" + parser.audio().extradata_b64,
              c.video_ev + "|" + c.audio_ev);
  } else {
    EXPECT_EQ(parser.next_line(), nullptr);
  }
}

const std::vector<StreamKind> kBoth{StreamKind::kVideo, StreamKind::kAudio};

// clang-format off
INSTANTIATE_TEST_SUITE_P(Index, MoovHead, testing::Values(
    HeadCase{"VideoOnlyEmptyEvGetsBuiltInConfig", kHead + Video("") + "\n", true, 2,
             {StreamKind::kVideo},
             {"2:--> no global PPS/SPS, generate ...", kDefaultAvccHex, "2:---> 没有检测到音频流"},
             kDefaultAvcc, ""},
    // Three- and four-byte start codes and a trailing zero; stereo 48 kHz.
    HeadCase{"BothFromOwnByteStream",
             kHead + Video("AAABZ2QAH6wAAAABaOsA") + "\n" + Audio(48000, 2, "") + "\n", true, 2, kBoth,
             {"5:===> v_ext_result: 01,64,00,1f,ff,e1,00,05,67,64,00,1f,ac,01,00,02,68,eb,\n",
              "2:--> no global ADTS, generate ...", "5:===> a_ext_result: 11,90,\n"},
             "AWQAH//hAAVnZAAfrAEAAmjr", "EZA="},
    HeadCase{"EmptyFile", "", false, 0, {}, {kNoStreams}, "", ""},
    // A configuration record where a byte stream belongs, and a byte stream
    // of the built-in SPS without its PPS.
    HeadCase{"EvWithoutStartCodes", kHead + Video(kDefaultAvcc) + "\n" + Audio(48000, 2, "EZA=") + "\n",
             false, 2, kBoth, {"2:no sps/pps", "2:未找到v_extradata"}, "", ""},
    HeadCase{"EvWithoutPps", kHead + Video("AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKg==") + "\n" + Audio(48000, 2, "EZA=") + "\n",
             false, 2, kBoth, {"2:no sps/pps", "2:未找到v_extradata"}, "", ""}),
    [](const testing::TestParamInfo<HeadCase>& info) { return info.param.name; });
// clang-format on

// ---------------------------------------------------------------------------
// Record lines: each as "line number@offset the progress stands for:text".

std::vector<std::string> HandOutAll(MoovParser& parser, size_t file_size) {
  std::vector<std::string> handed;
  while (const char* line = parser.next_line()) {
    const long offset = std::lround(parser.progress() * static_cast<double>(file_size));
    handed.push_back(std::to_string(parser.line_number()) + "@" + std::to_string(offset) + ":" +
                     line);
  }
  return handed;
}

std::string At(int number, size_t offset, const std::string& line) {
  return std::to_string(number) + "@" + std::to_string(offset) + ":" + line;
}

// A line longer than the buffer comes as two; the last line has no line end.
TEST_F(MoovParserTest, HandsOutRecordLinesWithProgress) {
  const std::string record(10000, '7');
  const std::string text = kAudioHead + "1,48,3,,,,1;\n1,,4,1024,,,1;\r\n" + record + ";\n1,,5,;";
  MoovParser parser;
  ASSERT_TRUE(parser.parse(Write(text).c_str()));
  EXPECT_EQ(parser.progress(), 0.0);
  const size_t head = kAudioHead.size();
  const size_t cut = MoovParser::kLineSize - 1;
  EXPECT_EQ(HandOutAll(parser, text.size()),
            (std::vector<std::string>{At(3, head, "1,48,3,,,,1;\n"),
                                      At(4, head + 13, "1,,4,1024,,,1;\r\n"),
                                      At(5, head + 29, record.substr(0, cut)),
                                      At(6, head + 29 + cut, record.substr(cut) + ";\n"),
                                      At(7, head + 29 + 10002, "1,,5,;")}));
  EXPECT_EQ(parser.progress(), 1.0);
  EXPECT_EQ(parser.next_line(), nullptr);
}

}  // namespace
