#include "platform/av_error.h"

#include <cstdio>

extern "C" {
#include <libavutil/error.h>
}

namespace zeva {

const char* av_error_text(int code) {
  // Per thread, so writer threads reporting at once never share the text.
  thread_local char text[512];
  if (av_strerror(code, text, sizeof text) < 0) {
    std::snprintf(text, sizeof text, "Error number %d occurred", code);
  }
  return text;
}

}  // namespace zeva
