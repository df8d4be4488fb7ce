#include "encode/hardware_encoder.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/logger.h"

namespace {

constexpr int kNv12 = 23;
const std::string kOpenError = "出错: ";

// What one probe of every row logs on this machine, in table order: FFmpeg has
// nvenc and qsv but no device for them, and no amf or mf on Linux.
const std::vector<std::string> kFirstProbe = {
    "2 --- 打开编码器 'h264_nvenc' 出错: ", "2 === 硬件编码器 'h264_nvenc' enable = 0",
    "2 --- 没有找到 'h264_amf' 编码器",     "2 === 硬件编码器 'h264_amf' enable = 0",
    "2 --- 打开编码器 'h264_qsv' 出错: ",   "2 === 硬件编码器 'h264_qsv' enable = 0",
    "2 --- 没有找到 'h264_mf' 编码器",      "2 === 硬件编码器 'h264_mf' enable = 0",
};
constexpr int kOpensPerKey = 2;

// Keeps every logged message, cut after "出错: " (FFmpeg's text follows). The
// probe cache is process-wide, so each test probes sizes of its own.
class HardwareEncoderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logger_.set_callback([this](const char*, int level, const char*, int, const char* msg) {
      std::string line = std::to_string(level) + " " + msg;
      const size_t at = line.find(kOpenError);
      if (at != std::string::npos) line.resize(at + kOpenError.size());
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
    previous_ = qel::Logger::instance(nullptr);
    qel::Logger::instance(&logger_);
    opens_ = zeva::hw_probe_open_count();
  }
  void TearDown() override { qel::Logger::instance(previous_); }

  // Probes every row at one size; each answers false without a GPU.
  void ProbeAll(int w, int h) {
    size_t n = 0;
    const zeva::HwEncoder* rows = zeva::hw_encoders(&n);
    for (size_t i = 0; i < n; ++i) EXPECT_FALSE(zeva::probe_hw_encoder(&rows[i], w, h, kNv12));
  }
  int NewOpens() const { return zeva::hw_probe_open_count() - opens_; }

  qel::Logger logger_;
  qel::Logger* previous_ = nullptr;
  std::mutex mutex_;
  std::vector<std::string> lines_;
  int opens_ = 0;
};

TEST_F(HardwareEncoderTest, EachKeyProbesOnceThenAnswersFromCache) {
  ProbeAll(2, 2);  // too small: never opened, never logged
  ProbeAll(320, 3);
  EXPECT_FALSE(zeva::probe_hw_encoder(nullptr, 320, 240, kNv12));
  EXPECT_EQ(NewOpens(), 0);
  EXPECT_TRUE(lines_.empty());

  ProbeAll(320, 240);
  EXPECT_EQ(lines_, kFirstProbe);
  ProbeAll(320, 240);  // same key: nothing opened, nothing logged
  EXPECT_EQ(lines_, kFirstProbe);
  EXPECT_EQ(NewOpens(), kOpensPerKey);
}

TEST_F(HardwareEncoderTest, ConcurrentProbesOpenEachKeyOnce) {
  // Each thread probes a shared size and one of its own: cache insertions
  // race each other as well as the shared key.
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] { ProbeAll(640, 360); ProbeAll(16 + t, 16); });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(lines_.size(), (kThreads + 1) * kFirstProbe.size());
  EXPECT_EQ(NewOpens(), (kThreads + 1) * kOpensPerKey);
}

}  // namespace
