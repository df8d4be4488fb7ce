// Outputs that talk to a server (rtmp://, rtsp://): the time-out options of
// each kind, and an interrupt hook with which their owner aborts FFmpeg I/O
// that blocks on a server that went silent.
#ifndef ZEVA_OUTPUT_NETWORK_IO_H
#define ZEVA_OUTPUT_NETWORK_IO_H

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

struct AVDictionary;
struct AVFormatContext;
struct AVIOInterruptCB;

namespace zeva {

// Aborts the I/O of the output contexts it is installed on: every FFmpeg
// call blocked in them, and every later one, fails with AVERROR_EXIT once
// triggered or once its deadline has passed. FFmpeg checks the hook at least
// every 100 ms while it waits on a socket. Install it on network outputs
// only: file writes check it too, and a file must always get its trailer.
// All methods are thread-safe; the object must outlive the contexts.
class IoInterrupt {
 public:
  // `clock` (for deadlines) must outlive this.
  explicit IoInterrupt(const Clock& clock = SystemClock::Get());
  IoInterrupt(const IoInterrupt&) = delete;
  IoInterrupt& operator=(const IoInterrupt&) = delete;

  // FFmpeg's hook onto this object: set it as `oc->interrupt_callback` and
  // hand it to avio_open2 before any network I/O.
  AVIOInterruptCB callback();

  // Aborts now.
  void Trigger();
  // Aborts once `timeout_us` from now has passed: time for I/O in progress
  // to finish. An earlier deadline, or a trigger, stays in force.
  void TriggerAfter(int64_t timeout_us);
  // Clears the trigger and the deadline.
  void Reset();
  // Whether I/O is aborted at this moment.
  bool triggered() const;

 private:
  static int Check(void* opaque);

  const Clock& clock_;
  // Clock time from which I/O is aborted: INT64_MAX never, INT64_MIN now.
  std::atomic<int64_t> deadline_us_{INT64_MAX};
};

// Case-insensitive "rtmp://" or "rtsp://": outputs that can block on a server.
bool IsNetworkUrl(const char* url);

// Adds to `*opts` what an output to `url` needs: for rtmp:// "rw_timeout",
// an option of its I/O (avio_open2); for rtsp:// "rtsp_transport" "tcp" and
// "timeout", options of the RTSP muxer, which does its own I/O. Time-outs are
// `timeout_sec` in microseconds, and only set when `timeout_sec` > 0: then no
// single network read or write waits longer. Nothing for other URLs.
void SetNetworkTimeoutOptions(const char* url, int timeout_sec, AVDictionary** opts);

// Readies `oc` (streams added, header not written) for writing to `url`: a
// network output gets `io`'s hook (when `io` is not null) and the options of
// SetNetworkTimeoutOptions; then `oc->pb` is opened for writing unless the
// format does its own I/O. Returns 0 or FFmpeg's error (AVERROR_EXIT when
// `io` aborted the connect). Blocks for as long as the connect takes.
[[nodiscard]] int OpenOutputIo(AVFormatContext* oc, const char* url, int timeout_sec,
                               IoInterrupt* io);

}  // namespace zeva

#endif  // ZEVA_OUTPUT_NETWORK_IO_H
