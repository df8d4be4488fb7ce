// A real RTSP receiver for tests: ffmpeg listening on a free port of
// 127.0.0.1 for one publisher (ANNOUNCE, RECORD), copying what it receives
// into a Matroska file.
#ifndef ZEVA_TESTS_SUPPORT_RTSP_RECEIVER_H
#define ZEVA_TESTS_SUPPORT_RTSP_RECEIVER_H

#include <string>
#include <sys/types.h>

namespace zeva::test {

class RtspReceiver {
 public:
  // Whether the ffmpeg program is installed (scripts/bootstrap).
  static bool Available();
  // Starts the receiver in `dir` and waits (at most 10 s) until it listens;
  // ok() tells whether it does.
  explicit RtspReceiver(const std::string& dir);
  ~RtspReceiver();  // Stop()
  bool ok() const { return pid_ > 0; }
  // rtsp://127.0.0.1:PORT/live
  std::string Url() const;
  // The received streams, complete once Stop() returned.
  std::string RecordPath() const { return dir_ + "/received.mkv"; }
  // The receiver ends by itself when the publisher tears the session down;
  // waits for that (10 s at most), else interrupts it as Ctrl-C does, which
  // also finishes the file, and kills it 5 s later.
  void Stop();

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_RTSP_RECEIVER_H
