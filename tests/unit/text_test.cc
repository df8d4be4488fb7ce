#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

TEST(ToWide, ConvertsWellFormedUtf8AndRejectsMalformed) {
  EXPECT_EQ(zeva::to_wide(nullptr, true), u"");
  EXPECT_EQ(zeva::to_wide("\xC3\xA9t\xC3\xA9", true), u"\u00e9t\u00e9");       // two-byte forms
  EXPECT_EQ(zeva::to_wide("\xE5\xBD\x95\xE5\x83\x8F", true), u"\u5f55\u50cf");  // three-byte forms
  EXPECT_EQ(zeva::to_wide("\xF0\x9F\x8E\xA5", true), u"\U0001F3A5");           // surrogate pair
  EXPECT_EQ(zeva::to_wide("a\xF4\x8F\xBF\xBF", false), u"a\U0010FFFF");
  for (const char* bad : {
           "\x80",              // lone continuation byte
           "ab\xC3",            // cut two-byte form
           "\xE5\xBD",          // cut three-byte form
           "\xC0\xAF",          // overlong '/'
           "\xE0\x80\xAF",      // overlong three-byte
           "\xED\xA0\x80",      // UTF-16 surrogate
           "\xF4\x90\x80\x80",  // past U+10FFFF
           "\xF8\x88\x80\x80\x80",
           "ok\xC3(",           // continuation missing
       }) {
    EXPECT_EQ(zeva::to_wide(bad, true), u"") << testing::PrintToString(bad);
  }
}

}  // namespace
