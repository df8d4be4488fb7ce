// Small file helpers shared by the tests; header-only, so that tests of the
// public interface (linked to libzeva.so alone) can use them too.
#ifndef ZEVA_TESTS_SUPPORT_FILES_H
#define ZEVA_TESTS_SUPPORT_FILES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace zeva::test {

// The whole content of `path`; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Points `stream`'s file descriptor (standard output or error) at the file
// `path` while alive, or until Finish().
class StreamCapture {
 public:
  StreamCapture(FILE* stream, const std::string& path)
      : stream_(stream), fd_(fileno(stream)), path_(path) {
    std::fflush(stream_);
    saved_ = dup(fd_);
    const int f = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(f, fd_);
    close(f);
  }
  ~StreamCapture() { Restore(); }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

  // Restores the stream and returns what was written to it meanwhile.
  std::string Finish() {
    Restore();
    return ReadFile(path_);
  }

 private:
  void Restore() {
    if (saved_ < 0) return;
    std::fflush(stream_);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
  }

  FILE* stream_;
  int fd_;
  std::string path_;
  int saved_ = -1;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_FILES_H
