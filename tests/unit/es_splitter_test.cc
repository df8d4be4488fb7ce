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

const std::string kSc4("\0\0\0\1", 4);
const std::string kSc3("\0\0\1", 3);

TEST(EsSplitterTest, AnnexBAccessUnits) {
  // Unit 1: AUD, SPS, PPS, IDR in two slices. Unit 2 has no AUD and starts
  // at its slice with first_mb_in_slice 0. Unit 3 starts at an SEI.
  const std::string u1 = kSc4 + "\x09\xf0" + kSc4 + "\x67\x64" + kSc4 + "\x68\xee" + kSc3 + "\x65\x88" +
                         kSc3 + "\x65\x40";
  const std::string u2 = kSc3 + "\x41\x9a" + kSc3 + "\x41\x20";
  const std::string u3 = kSc4 + "\x06\x05" + kSc3 + "\x41\x9b";
  EXPECT_EQ(Units("junk" + u1 + u2 + u3, true), (std::vector<std::string>{u1, u2, u3}));
  EXPECT_TRUE(Units("no start code", true).empty());
}

TEST(EsSplitterTest, AdtsFramesByLength) {
  auto frame = [](size_t len) {
    std::string f(len, '\x11');
    f[0] = '\xff';
    f[1] = '\xf1';
    f[3] = static_cast<char>((len >> 11) & 0x03);
    f[4] = static_cast<char>((len >> 3) & 0xff);
    f[5] = static_cast<char>((len & 0x07) << 5);
    return f;
  };
  const std::string a = frame(9), b = frame(300);
  EXPECT_EQ(Units(a + b, false), (std::vector<std::string>{a, b}));
  EXPECT_EQ(Units(a + b.substr(0, 100), false), (std::vector<std::string>{a}));  // truncated
  EXPECT_EQ(Units(a + "garbage!" + b, false), (std::vector<std::string>{a}));
  std::string no_sync = a;
  no_sync[0] = '\x7f';  // the rest of the header is as valid as before
  EXPECT_TRUE(Units(no_sync + b, false).empty());
}

}  // namespace
