// The error a failing recording start raises and reports to the host.
#ifndef ZEVA_ENCODE_ZV_EXCEPTION_H
#define ZEVA_ENCODE_ZV_EXCEPTION_H

#include <exception>
#include <string>

namespace zeva {

// Thrown only inside the muxer's start and caught there; the code and
// message reach the host through the status callback.
//   10 output context cannot be allocated    11 output URL cannot be opened
//   12 no container format                   20 start overtaken by stop
//   21 writer or encoder failed to open or start
class ZVException : public std::exception {
 public:
  ZVException(int code, std::string message) : code_(code), message_(std::move(message)) {}
  int code() const noexcept { return code_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  int code_;
  std::string message_;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_ZV_EXCEPTION_H
