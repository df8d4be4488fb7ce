#include "platform/text.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zeva {

std::u16string to_wide(const char* s, bool /*utf8*/) {
  std::u16string out;
  if (s == nullptr) return out;
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  const size_t n = std::strlen(s);
  out.reserve(n);
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    int extra;
    char32_t cp;
    char32_t min;
    if (c < 0x80) {
      out.push_back(c);
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, cp = c & 0x07, min = 0x10000;
    } else {
      return {};
    }
    if (n - i <= static_cast<size_t>(extra)) return {};  // cut sequence
    for (int k = 1; k <= extra; ++k) {
      const unsigned char cc = p[i + k];
      if ((cc & 0xC0) != 0x80) return {};
      cp = (cp << 6) | (cc & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return {};
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += extra + 1;
  }
  return out;
}

std::string StringPrintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string text;
  if (n > 0) {
    text.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(text.data(), text.size(), fmt, again);
    text.resize(static_cast<size_t>(n));
  }
  va_end(again);
  return text;
}

}  // namespace zeva
