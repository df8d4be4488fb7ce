#include "platform/file.h"

#include <cerrno>

namespace zeva::platform {

FILE* open_file(const char* path, const char* mode) {
  if (path == nullptr || mode == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  return std::fopen(path, mode);
}

}  // namespace zeva::platform
