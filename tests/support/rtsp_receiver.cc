#include "support/rtsp_receiver.h"

#include <signal.h>
#include <unistd.h>

#include "support/loopback.h"

namespace zeva::test {

constexpr const char* kFfmpeg = "/usr/bin/ffmpeg";

bool RtspReceiver::Available() { return access(kFfmpeg, X_OK) == 0; }

RtspReceiver::RtspReceiver(const std::string& dir) : dir_(dir), port_(FreeLoopbackPort()) {
  if (port_ == 0 || !Available()) return;
  pid_ = SpawnListening({kFfmpeg, "-nostdin", "-v", "error", "-rtsp_flags", "listen", "-i", Url(),
                         "-c", "copy", "-y", RecordPath()},
                        port_, dir_ + "/rtsp-receiver.log");
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
