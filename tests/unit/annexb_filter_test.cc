// The configuration record the H.264 filter builds from a host's raw SPS
// and PPS. The filter's stream output is checked end to end by the packet
// interface's length-prefixed recordings.
#include "packet/annexb_filter.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using zeva::h264::AnnexBFilter;

TEST(AnnexBFilter, RecordFromParameterSets) {
  Bytes sps(25), pps(4, 0xCC);
  for (size_t i = 0; i < sps.size(); ++i) sps[i] = static_cast<uint8_t>(0x60 + i);
  const Bytes rec = AnnexBFilter::make_avcc(sps.data(), 25, pps.data(), 4);
  ASSERT_EQ(rec.size(), 40u);
  EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 8), (Bytes{1, 0x61, 0x62, 0x63, 0xFF, 0xE1, 0, 25}));
  EXPECT_EQ(Bytes(rec.begin() + 8, rec.begin() + 33), sps);
  EXPECT_EQ(Bytes(rec.begin() + 33, rec.begin() + 36), (Bytes{1, 0, 4}));
  EXPECT_EQ(Bytes(rec.begin() + 36, rec.end()), pps);

  Bytes coded_sps = sps;
  coded_sps.insert(coded_sps.begin(), {0, 0, 0, 1});
  EXPECT_EQ(AnnexBFilter::make_avcc(coded_sps.data(), 29, pps.data(), 4), rec)
      << "a start code in front of the SPS is not part of it";
  EXPECT_EQ(AnnexBFilter::create({nullptr, 0, nullptr, 0, nullptr, 0}), nullptr);
  EXPECT_EQ(AnnexBFilter::create({sps.data(), 3, pps.data(), 4, nullptr, 0}), nullptr);
}

}  // namespace
