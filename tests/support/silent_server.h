// A server that never answers: a listening socket on a free port of
// 127.0.0.1. The kernel completes every connect (up to the backlog), so a
// client connects at once and then waits for a reply that never comes.
#ifndef ZEVA_TESTS_SUPPORT_SILENT_SERVER_H
#define ZEVA_TESTS_SUPPORT_SILENT_SERVER_H

#include <string>

namespace zeva::test {

class SilentServer {
 public:
  SilentServer();   // ok() tells whether it listens
  ~SilentServer();  // closes the socket: pending connections are reset
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  bool ok() const { return fd_ >= 0; }
  // Waits up to `seconds` for a client to have connected; true if one has.
  bool WaitForClient(double seconds) const;
  // `scheme`://127.0.0.1:PORT/live/x, e.g. for "rtmp" or "rtsp".
  std::string Url(const std::string& scheme) const;

 private:
  int fd_ = -1;
  int port_ = 0;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_SILENT_SERVER_H
