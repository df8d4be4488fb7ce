#include "log/logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
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
  // What was written since the last call, each line's time stamp checked
  // and removed.
  std::string Lines() {
    std::fflush(sink_);
    std::string all(data_, size_), out;
    static const std::regex kStamp("^\\d{4}-\\d{2}:\\d{2}:\\d{2}");
    for (size_t pos = taken_, nl; pos < all.size(); pos = nl + 1) {
      nl = std::min(all.find('\n', pos), all.size() - 1);
      const std::string line = all.substr(pos, nl + 1 - pos);
      std::smatch m;
      EXPECT_TRUE(std::regex_search(line, m, kStamp)) << "no time stamp: " << line;
      out += line.substr(m.empty() ? 0 : m.length(0));
    }
    taken_ = all.size();
    return out;
  }

  qel::Logger lg_;
  FILE* sink_ = nullptr;
  char* data_ = nullptr;
  size_t size_ = 0, taken_ = 0;
};

TEST_F(LoggerTest, LinesAreExactAndMessagesCutAt1023Bytes) {
  lg_.set_level(4);
  qel::Logger::log(&lg_, "bg", 4, "/src/zv/zv_av.cc", 57, "--- before %s", "stop");
  qel::Logger::log(&lg_, "bg", 2, "C:\\rec\\a/b\\enc.cpp", 7, "x");
  qel::Logger::log(&lg_, "bg", 2, "plain.cc", 12345, "y");
  qel::Logger::log(&lg_, "bg", 2, nullptr, 0, "z");
  EXPECT_EQ(Lines(), "[I][bg] zv_av.cc 57  : --- before stop\n[E][bg] enc.cpp 7   : x\n"
                     "[E][bg] plain.cc 12345: y\n[E][bg]  0   : z\n");

  const size_t before = size_;
  qel::Logger::log(&lg_, "bg", 2, "f.cc", 1, "%s", std::string(5000, 'a').c_str());
  Lines();
  ASSERT_EQ(size_ - before, 1023u);
  EXPECT_EQ(std::string(data_ + size_ - 3, 3), std::string("a\0\n", 3));
}

TEST_F(LoggerTest, ThresholdClampsLevelsAndCallbackTakesPrecedence) {
  // Default threshold 2: information is dropped before formatting.
  EXPECT_EQ(qel::Logger::log(&lg_, "bg", 4, "f.cc", 1, "dropped"), 6);
  EXPECT_EQ(qel::Logger::log(nullptr, "bg", 0, "f.cc", 1, "no logger"), 6);
  lg_.set_level(5);
  qel::Logger::log(&lg_, "bg", -3, "f.cc", 1, "low");   // printed as level 0
  qel::Logger::log(&lg_, "bg", 5, "f.cc", 1, "at");     // exactly the threshold
  qel::Logger::log(&lg_, "bg", 9, "f.cc", 1, "high");   // level 6: above 5, dropped
  lg_.set_level(6);
  qel::Logger::log(&lg_, "bg", 9, "f.cc", 1, "high");
  lg_.set_level(-1);  // silences even level 0
  qel::Logger::log(&lg_, "bg", 0, "f.cc", 1, "silenced");
  EXPECT_EQ(Lines(), "[-][bg] f.cc 1   : low\n[D][bg] f.cc 1   : at\n[=][bg] f.cc 1   : high\n");

  // A callback sees everything, unformatted, whatever the threshold.
  std::vector<std::string> seen;
  lg_.set_callback([&](const char* tag, int level, const char* file, int line, const char* msg) {
    seen.push_back(std::string(tag) + "|" + std::to_string(level) + "|" + file + "|" +
                   std::to_string(line) + "|" + msg);
  });
  qel::Logger::log(&lg_, "bg", 5, "/full/path/capture.cc", 88, "debug %d", 1);
  qel::Logger::log(&lg_, "bg", 42, nullptr, 3, "%s", std::string(2000, 'b').c_str());
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0], "bg|5|/full/path/capture.cc|88|debug 1");
  EXPECT_EQ(seen[1], "bg|6||3|" + std::string(1022, 'b'));
  // An empty callback returns the log to the sink and its threshold.
  lg_.set_callback(nullptr);
  lg_.set_level(2);
  qel::Logger::log(&lg_, "bg", 5, "f.cc", 1, "dropped");
  qel::Logger::log(&lg_, "bg", 2, "f.cc", 1, "kept");
  EXPECT_EQ(Lines(), "[E][bg] f.cc 1   : kept\n");
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(LoggerTest, ConcurrentLinesStayWhole) {
  constexpr int kThreads = 8, kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kLines; ++i)
        qel::Logger::log(&lg_, "bg", 2, "worker.cc", t, "thread %d line %d %s", t, i, "payload");
    });
  }
  for (auto& th : threads) th.join();
  const std::regex line_re("\\[E\\]\\[bg\\] worker\\.cc (\\d) {3}: thread (\\d) line \\d+ payload");
  std::istringstream in(Lines());
  int count = 0;
  for (std::string line; std::getline(in, line); ++count) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, line_re)) << line;
    EXPECT_EQ(m[1], m[2]);
  }
  EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
