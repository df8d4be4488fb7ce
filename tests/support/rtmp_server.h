// A real RTMP server for tests: nginx with its RTMP module on a free port of
// 127.0.0.1, recording every published stream to an FLV file.
#ifndef ZEVA_TESTS_SUPPORT_RTMP_SERVER_H
#define ZEVA_TESTS_SUPPORT_RTMP_SERVER_H

#include <string>
#include <sys/types.h>

namespace zeva::test {

class RtmpServer {
 public:
  // Whether nginx and its RTMP module are installed (scripts/bootstrap).
  static bool Available();
  // Starts the server in `dir` and waits (at most 10 s) until it accepts
  // connections; ok() tells whether it did.
  explicit RtmpServer(const std::string& dir);
  ~RtmpServer();  // Stop()
  bool ok() const { return pid_ > 0; }
  // rtmp://127.0.0.1:PORT/live/NAME
  std::string Url(const std::string& name) const;
  // Where the stream NAME is recorded once the server has stopped.
  std::string RecordPath(const std::string& name) const;
  // Graceful stop (recordings are closed), bounded to 10 s, then SIGKILL.
  void Stop();
  // Dies at once, as a crashed server does: its connections are reset.
  void Kill();

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_RTMP_SERVER_H
