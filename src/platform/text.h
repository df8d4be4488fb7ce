// Text conversions used where names cross to interfaces that want UTF-16.
#ifndef ZEVA_PLATFORM_TEXT_H
#define ZEVA_PLATFORM_TEXT_H

#include <string>

namespace zeva {

// Converts `s` to UTF-16. With `utf8` false the text is taken in the process's
// narrow encoding, which on this platform is UTF-8 as well. A null `s`, or one
// that is not well-formed (overlong forms, surrogates, code points past
// U+10FFFF, cut sequences), gives the empty string.
std::u16string to_wide(const char* s, bool utf8);

// printf into a string, of whatever length the text needs.
std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zeva

#endif  // ZEVA_PLATFORM_TEXT_H
