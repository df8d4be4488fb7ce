#include "log/logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// A logger writing into memory, so lines can be compared byte for byte.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { lg_.set_sink(sink_); }
  void TearDown() override {
    lg_.set_sink(nullptr);
    std::fclose(sink_);
    std::free(data_);
  }
  // What was written since the last call, without each line's time stamp
  // ("MMDD-HH:MM:SS").
  std::string Lines() {
    std::fflush(sink_);
    std::string out;
    for (size_t pos = taken_, nl; pos < size_; pos = nl + 1) {
      nl = std::string(data_, size_).find('\n', pos);
      out += std::string(data_ + pos + 13, data_ + nl + 1);
    }
    taken_ = size_;
    return out;
  }

  qel::Logger lg_;
  char* data_ = nullptr;
  size_t size_ = 0, taken_ = 0;
  FILE* sink_ = open_memstream(&data_, &size_);
};

// Lines are laid out exactly, cut at 1023 bytes, and kept up to exactly the
// threshold (levels clamped to 0..6); a callback sees everything unformatted.
TEST_F(LoggerTest, LayoutThresholdAndCallback) {
  EXPECT_EQ(qel::Logger::log(&lg_, "bg", 4, "f.cc", 1, "dropped"), 6);  // default threshold 2
  lg_.set_level(5);
  qel::Logger::log(&lg_, "bg", 4, "/src/zv/zv_av.cc", 57, "--- before %s", "stop");
  qel::Logger::log(&lg_, "bg", 2, "C:\\rec\\a/b\\enc.cpp", 12345, "x");
  qel::Logger::log(&lg_, "bg", -3, nullptr, 0, "low");
  qel::Logger::log(&lg_, "bg", 5, "f.cc", 1, "at");
  qel::Logger::log(&lg_, "bg", 9, "f.cc", 1, "high");
  EXPECT_EQ(Lines(), "[I][bg] zv_av.cc 57  : --- before stop\n[E][bg] enc.cpp 12345: x\n"
                     "[-][bg]  0   : low\n[D][bg] f.cc 1   : at\n");
  const size_t before = size_;
  qel::Logger::log(&lg_, "bg", 2, "f.cc", 1, "%s", std::string(5000, 'a').c_str());
  Lines();
  ASSERT_EQ(size_ - before, 1023u);
  EXPECT_EQ(std::string(data_ + size_ - 3, 3), std::string("a\0\n", 3));

  std::vector<std::string> seen;
  lg_.set_callback([&](const char* tag, int level, const char* file, int line, const char* msg) {
    seen.push_back(std::string(tag) + "|" + std::to_string(level) + "|" + file + "|" +
                   std::to_string(line) + "|" + msg);
  });
  qel::Logger::log(&lg_, "bg", 42, "/full/path/capture.cc", 88, "debug %d", 1);
  EXPECT_EQ(seen, std::vector<std::string>{"bg|6|/full/path/capture.cc|88|debug 1"});
}

TEST_F(LoggerTest, ConcurrentLinesStayWhole) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this] {
      for (int i = 0; i < 500; ++i) qel::Logger::log(&lg_, "bg", 2, "w.cc", 7, "%0100d", i);
    });
  for (auto& th : threads) th.join();
  const std::string all = Lines();
  EXPECT_EQ(all.size(), 4 * 500 * std::string("[E][bg] w.cc 7   : \n").size() + 4 * 500 * 100);
  for (size_t pos = 0; pos < all.size(); pos += 120) EXPECT_EQ(all.substr(pos, 19), "[E][bg] w.cc 7   : ");
}

}  // namespace
