#include "platform/text.h"

#include <gtest/gtest.h>

namespace {

TEST(ToWide, ConvertsWellFormedUtf8AndRejectsMalformed) {
  EXPECT_EQ(zeva::to_wide("\xC3\xA9t\xE5\xBD\x95", true), u"\u00e9t\u5f55");
  EXPECT_EQ(zeva::to_wide("a\xF4\x8F\xBF\xBF", false), u"a\U0010FFFF");  // surrogate pair
  for (const char* bad : {"ab\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"})
    EXPECT_EQ(zeva::to_wide(bad, true), u"") << testing::PrintToString(bad);
}

}  // namespace
