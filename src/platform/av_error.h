// The one place that turns FFmpeg error codes into text.
#ifndef ZEVA_PLATFORM_AV_ERROR_H
#define ZEVA_PLATFORM_AV_ERROR_H

namespace zeva {

// FFmpeg's text for `code` (a negative AVERROR), in a buffer of 512 bytes that
// belongs to the calling thread and stays valid until its next call.
const char* av_error_text(int code);

}  // namespace zeva

#endif  // ZEVA_PLATFORM_AV_ERROR_H
