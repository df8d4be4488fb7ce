#include "support/rtsp_receiver.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/loopback.h"

namespace zeva::test {
namespace {

constexpr const char* kFfmpeg = "/usr/bin/ffmpeg";

}  // namespace

bool RtspReceiver::Available() { return access(kFfmpeg, X_OK) == 0; }

RtspReceiver::RtspReceiver(const std::string& dir) : dir_(dir), port_(FreeLoopbackPort()) {
  if (port_ == 0 || !Available()) return;
  const std::string url = Url(), out = RecordPath(), log = LogPath();
  pid_ = fork();
  if (pid_ == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      dup2(fd, STDERR_FILENO);
      dup2(fd, STDOUT_FILENO);
    }
    execl(kFfmpeg, "ffmpeg", "-nostdin", "-v", "error", "-rtsp_flags", "listen", "-i", url.c_str(),
          "-c", "copy", "-y", out.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!IsListening(port_)) {
    if (WaitForExit(pid_, 0)) {
      pid_ = -1;
      return;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      EndChild(pid_, SIGKILL, 10);
      pid_ = -1;
      return;
    }
    // Polling an external process that offers nothing to wait on.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

RtspReceiver::~RtspReceiver() { Stop(); }

std::string RtspReceiver::Url() const {
  return "rtsp://127.0.0.1:" + std::to_string(port_) + "/live";
}

void RtspReceiver::Stop() {
  if (pid_ <= 0) return;
  if (!WaitForExit(pid_, 10)) EndChild(pid_, SIGINT, 5);
  pid_ = -1;
}

}  // namespace zeva::test
