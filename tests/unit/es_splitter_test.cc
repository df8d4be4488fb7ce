#include "packet/es_splitter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> Units(const std::string& s, bool video) {
  const auto* d = reinterpret_cast<const uint8_t*>(s.data());
  std::vector<std::string> out;
  for (const zeva::EsSpan& sp : video ? zeva::SplitAnnexB(d, s.size()) : zeva::SplitAdts(d, s.size()))
    out.push_back(s.substr(sp.offset, sp.size));
  return out;
}

TEST(EsSplitterTest, AnnexBAccessUnits) {
  const std::string sc4("\0\0\0\1", 4), sc3("\0\0\1", 3);
  // Unit 1: AUD, SPS, PPS, IDR in two slices. Unit 2 has no AUD and starts
  // at its slice with first_mb_in_slice 0. Unit 3 starts at an SEI.
  const std::string u1 = sc4 + "\x09\xf0" + sc4 + "\x67\x64" + sc4 + "\x68\xee" + sc3 + "\x65\x88" + sc3 + "\x65\x40";
  const std::string u2 = sc3 + "\x41\x9a" + sc3 + "\x41\x20";
  const std::string u3 = sc4 + "\x06\x05" + sc3 + "\x41\x9b";
  EXPECT_EQ(Units("junk" + u1 + u2 + u3, true), (std::vector<std::string>{u1, u2, u3}));
}

TEST(EsSplitterTest, AdtsFramesByLengthFromASyncWord) {
  auto frame = [](size_t len, char sync) {
    std::string f(len, '\x11');
    f[0] = sync;
    f[1] = '\xf1';
    f[3] = static_cast<char>((len >> 11) & 0x03);
    f[4] = static_cast<char>((len >> 3) & 0xff);
    f[5] = static_cast<char>((len & 0x07) << 5);
    return f;
  };
  const std::string a = frame(9, '\xff'), b = frame(300, '\xff');
  EXPECT_EQ(Units(a + b + b.substr(0, 100), false), (std::vector<std::string>{a, b}));  // the last truncated
  EXPECT_EQ(Units(a + "garbage!" + b, false), (std::vector<std::string>{a}));
  EXPECT_TRUE(Units(frame(9, '\x7f') + b, false).empty());  // the rest of the header valid
}

}  // namespace
