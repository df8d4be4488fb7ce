#include "log/logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

// A logger writing into memory, so lines can be compared byte for byte.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sink_ = open_memstream(&data_, &size_);
    ASSERT_NE(sink_, nullptr);
    lg_.set_sink(sink_);
  }
  void TearDown() override {
    lg_.set_sink(nullptr);
    std::fclose(sink_);
    std::free(data_);
  }
  std::string Written() {
    std::fflush(sink_);
    return std::string(data_, size_);
  }

  qel::Logger lg_;
  FILE* sink_ = nullptr;
  char* data_ = nullptr;
  size_t size_ = 0;
};

const std::regex kStamp("^\\d{4}-\\d{2}:\\d{2}:\\d{2}");

// Strips and checks the time stamp, returning the rest of the line.
std::string AfterStamp(const std::string& line) {
  std::smatch m;
  if (!std::regex_search(line, m, kStamp)) return "<no time stamp>" + line;
  return line.substr(m.length(0));
}

TEST_F(LoggerTest, LineLayoutIsExact) {
  lg_.set_level(4);
  qel::Logger::log(&lg_, "bg", 4, "/src/zv/zv_av.cc", 57, "--- before %s", "stop");
  EXPECT_EQ(AfterStamp(Written()), "[I][bg] zv_av.cc 57  : --- before stop\n");
}

TEST_F(LoggerTest, BaseNameAndLinePadding) {
  lg_.set_level(6);
  qel::Logger::log(&lg_, "bg", 2, "C:\\rec\\a/b\\enc.cpp", 7, "x");
  qel::Logger::log(&lg_, "bg", 2, "plain.cc", 12345, "y");
  qel::Logger::log(&lg_, "bg", 2, nullptr, 0, "z");
  const std::string out = Written();
  const size_t first = out.find('\n'), second = out.find('\n', first + 1);
  EXPECT_EQ(AfterStamp(out.substr(0, first + 1)), "[E][bg] enc.cpp 7   : x\n");
  EXPECT_EQ(AfterStamp(out.substr(first + 1, second - first)), "[E][bg] plain.cc 12345: y\n");
  EXPECT_EQ(AfterStamp(out.substr(second + 1)), "[E][bg]  0   : z\n");
}

TEST_F(LoggerTest, ThresholdAndLevelClamping) {
  // Default threshold 2: information is dropped before formatting.
  EXPECT_EQ(qel::Logger::log(&lg_, "bg", 4, "f.cc", 1, "dropped"), 6);
  EXPECT_EQ(Written(), "");

  lg_.set_level(5);
  qel::Logger::log(&lg_, "bg", -3, "f.cc", 1, "low");   // printed as level 0
  qel::Logger::log(&lg_, "bg", 9, "f.cc", 1, "high");   // level 6: above 5, dropped
  lg_.set_level(6);
  qel::Logger::log(&lg_, "bg", 9, "f.cc", 1, "high");
  const std::string out = Written();
  EXPECT_NE(out.find("[-][bg] f.cc 1   : low\n"), std::string::npos);
  EXPECT_NE(out.find("[=][bg] f.cc 1   : high\n"), std::string::npos);
  EXPECT_EQ(out.find("high"), out.rfind("high"));

  // A negative threshold silences even level 0.
  lg_.set_level(-1);
  const size_t before = Written().size();
  qel::Logger::log(&lg_, "bg", 0, "f.cc", 1, "silenced");
  EXPECT_EQ(Written().size(), before);
}

TEST_F(LoggerTest, OverlongMessageIsCutTo1023BytesWithZeroBeforeNewline) {
  const std::string big(5000, 'a');
  qel::Logger::log(&lg_, "bg", 2, "f.cc", 1, "%s", big.c_str());
  const std::string out = Written();
  ASSERT_EQ(out.size(), 1023u);
  EXPECT_EQ(out[1021], '\0');
  EXPECT_EQ(out[1022], '\n');
  EXPECT_EQ(out[1020], 'a');
}

TEST_F(LoggerTest, CallbackTakesPrecedenceOverSinkAndThreshold) {
  struct Seen { std::string tag, file, message; int level, line; };
  std::vector<Seen> seen;
  lg_.set_callback([&](const char* tag, int level, const char* file, int line, const char* msg) {
    seen.push_back({tag, file, msg, level, line});
  });
  qel::Logger::log(&lg_, "bg", 5, "/full/path/capture.cc", 88, "debug %d", 1);
  qel::Logger::log(&lg_, "bg", 42, nullptr, 3, "%s", std::string(2000, 'b').c_str());
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].tag, "bg");
  EXPECT_EQ(seen[0].file, "/full/path/capture.cc");
  EXPECT_EQ(seen[0].message, "debug 1");
  EXPECT_EQ(seen[0].level, 5);
  EXPECT_EQ(seen[0].line, 88);
  EXPECT_EQ(seen[1].file, "");
  EXPECT_EQ(seen[1].level, 6);
  EXPECT_EQ(seen[1].message.size(), 1022u);
  EXPECT_EQ(Written(), "");

  // An empty callback returns the log to the sink and its threshold.
  lg_.set_callback(nullptr);
  qel::Logger::log(&lg_, "bg", 5, "f.cc", 1, "dropped");
  qel::Logger::log(&lg_, "bg", 2, "f.cc", 1, "kept");
  EXPECT_EQ(AfterStamp(Written()), "[E][bg] f.cc 1   : kept\n");
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(LoggerTest, ConcurrentLinesStayWhole) {
  constexpr int kThreads = 8, kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i) {
        qel::Logger::log(&lg_, "bg", 2, "worker.cc", t, "thread %d line %d %s", t, i,
                         "payload-payload-payload-payload");
      }
    });
  }
  for (auto& th : threads) th.join();

  const std::regex line_re(
      "\\d{4}-\\d{2}:\\d{2}:\\d{2}\\[E\\]\\[bg\\] worker\\.cc (\\d) {3}: thread (\\d) line \\d+ "
      "payload-payload-payload-payload");
  const std::string out = Written();
  int count = 0;
  size_t pos = 0;
  while (pos < out.size()) {
    const size_t nl = out.find('\n', pos);
    ASSERT_NE(nl, std::string::npos) << "unterminated tail";
    std::smatch m;
    const std::string line = out.substr(pos, nl - pos);
    ASSERT_TRUE(std::regex_match(line, m, line_re)) << line;
    EXPECT_EQ(m[1], m[2]);
    ++count;
    pos = nl + 1;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

TEST(LoggerInstance, ReplacementBecomesTheProcessLogger) {
  qel::Logger* original = qel::Logger::instance(nullptr);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(qel::Logger::instance(nullptr), original);
  EXPECT_EQ(original->sink(), stderr);

  qel::Logger mine;
  EXPECT_EQ(qel::Logger::instance(&mine), &mine);
  EXPECT_EQ(qel::Logger::instance(nullptr), &mine);
  qel::Logger::instance(original);
}

TEST(LoggerInstance, NullLoggerDropsMessages) {
  EXPECT_EQ(qel::Logger::log(nullptr, "bg", 0, "f.cc", 1, "nothing"), 6);
}

}  // namespace
