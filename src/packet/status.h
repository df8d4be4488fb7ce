// The result of opening an input, an output or a converter of a packet
// recording: success, or a negative code with its message for the host's
// status callback.
#ifndef ZEVA_PACKET_STATUS_H
#define ZEVA_PACKET_STATUS_H

#include <string>
#include <utility>

namespace zeva {

struct Status {
  bool ok = true;
  int code = 0;  // an FFmpeg error code or one of the packet API's own codes
  std::string message;

  static Status Ok() { return Status{}; }
  static Status Error(int code, std::string message) {
    return Status{false, code, std::move(message)};
  }
};

}  // namespace zeva

#endif  // ZEVA_PACKET_STATUS_H
