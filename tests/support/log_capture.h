// Captures the library's log for a test: while alive, a logger of its own
// is the process logger and records every message as "LEVEL:message".
#ifndef ZEVA_TESTS_SUPPORT_LOG_CAPTURE_H
#define ZEVA_TESTS_SUPPORT_LOG_CAPTURE_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "log/logger.h"

namespace zeva::test {

class LogCapture {
 public:
  LogCapture() : previous_(qel::Logger::instance(nullptr)) {
    mine_.set_callback([this](const char*, int level, const char*, int, const char* msg) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(std::to_string(level) + ":" + msg);
      logged_.notify_all();
    });
    qel::Logger::instance(&mine_);
  }
  ~LogCapture() { qel::Logger::instance(previous_); }

  // The lines so far, emptied.
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
  }
  // How often `line` ("LEVEL:message") was logged.
  int Count(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    return int(std::count(lines_.begin(), lines_.end(), line));
  }
  // Waits until `line` has been logged, at most `deadline`.
  bool WaitFor(const std::string& line, std::chrono::milliseconds deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return logged_.wait_for(lock, deadline,
                            [&] { return std::find(lines_.begin(), lines_.end(), line) != lines_.end(); });
  }

 private:
  qel::Logger* previous_;
  qel::Logger mine_;
  std::mutex mutex_;
  std::condition_variable logged_;
  std::vector<std::string> lines_;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_LOG_CAPTURE_H
