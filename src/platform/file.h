// Opening files by name. Names are UTF-8 everywhere in the library; on this
// platform that is also the native encoding of paths.
#ifndef ZEVA_PLATFORM_FILE_H
#define ZEVA_PLATFORM_FILE_H

#include <cstdio>

namespace zeva::platform {

// fopen for a UTF-8 `path`. Returns null when `path` or `mode` is null or the
// file cannot be opened (errno tells why). The caller owns the stream.
FILE* open_file(const char* path, const char* mode);

}  // namespace zeva::platform

#endif  // ZEVA_PLATFORM_FILE_H
