// Small file helpers shared by the tests; header-only, so that tests of the
// public interface (linked to libzeva.so alone) can use them too.
#ifndef ZEVA_TESTS_SUPPORT_FILES_H
#define ZEVA_TESTS_SUPPORT_FILES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zeva::test {

// The whole content of `path`; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A fresh directory under /tmp, removed with its content when the object
// dies; its path is empty when none could be made.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/zeva-test-XXXXXX";
    if (mkdtemp(pattern) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Points `stream`'s file descriptor (standard output or error) at the file
// `path` while alive.
class StreamCapture {
 public:
  StreamCapture(FILE* stream, const std::string& path) : stream_(stream), saved_(dup(fileno(stream))) {
    std::fflush(stream_);
    const int f = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(f, fileno(stream_));
    close(f);
  }
  ~StreamCapture() {
    std::fflush(stream_);
    dup2(saved_, fileno(stream_));
    close(saved_);
  }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

 private:
  FILE* stream_;
  int saved_;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_FILES_H
