// Output URLs: their kinds, and the output context of a further output that
// receives the same streams as the main one.
#ifndef ZEVA_OUTPUT_OUTPUT_URL_H
#define ZEVA_OUTPUT_OUTPUT_URL_H

#include <string>

#include "platform/av_ptr.h"

struct AVDictionary;
struct AVFormatContext;

namespace zeva {

class IoInterrupt;

enum class UrlKind : int { kNone = -1, kMp4 = 0, kM3u8 = 1, kRtmp = 2, kRtsp = 3, kOther = 100 };

// Case-insensitive, tested in this order: ends in ".mp4", ends in ".m3u8",
// begins with "rtmp://", begins with "rtsp://"; null gives kNone.
UrlKind ClassifyUrl(const char* url);

// Case-insensitive prefix and suffix tests; a null `s` matches nothing.
bool StartsWithNoCase(const char* s, const char* prefix);
bool EndsWithNoCase(const char* s, const char* suffix);

// The result of opening an output: value 1 (or 0 for a clone) on success, an
// error code on failure, with its message.
struct WriterResult {
  int64_t value = 0;
  std::string message;
  bool failed = false;
};

// Builds an output context for `url` with one stream per stream of `main`
// (codec parameters and time base copied, codec tag cleared) and opens its
// I/O unless the format does its own. URLs of the same kind as the main one
// reuse its container format; otherwise "rtmp://" is FLV, "rtsp://" is RTSP
// and anything else is guessed from the URL. A network URL connects under `timeout_sec` (0: none)
// with `io`'s hook (may be null; must outlive the context). On success
// `*out` owns the new context.
WriterResult CloneOutputContext(const AVFormatContext* main, const char* url, int timeout_sec,
                                IoInterrupt* io, OutputFormatPtr* out);

// Sets every "key:value" item of the ";"-separated `text` in `*dict` (items
// without ":" or with an empty key are skipped), echoing them on standard
// error as the muxer set-up is traced there.
void ParseMetaInfo(const char* text, AVDictionary** dict);

}  // namespace zeva

#endif  // ZEVA_OUTPUT_OUTPUT_URL_H
