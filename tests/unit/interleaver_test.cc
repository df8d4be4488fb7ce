#include "output/interleaver.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace {

using IntInterleaver = zeva::Interleaver<int>;

// One recording: pushes in order, what PopReady() releases after each push
// (entries written "stream:dts", space separated), and what Drain() gives at
// the end.
struct Case {
  const char* name;
  int streams;
  int64_t max_delta_us;
  std::vector<std::pair<int, int64_t>> pushes;
  std::vector<std::string> released;  // one per push
  std::string drained;
};

class InterleaverOrder : public testing::TestWithParam<Case> {};

TEST_P(InterleaverOrder, ReleasesInDtsOrderWhenAllowed) {
  const Case& c = GetParam();
  IntInterleaver il(c.streams, c.max_delta_us);
  auto take = [](const IntInterleaver::Entry& e, std::string* out) {
    *out += (out->empty() ? "" : " ") + std::to_string(e.stream) + ":" + std::to_string(e.dts_us);
  };
  for (size_t i = 0; i < c.pushes.size(); ++i) {
    il.Push(c.pushes[i].first, c.pushes[i].second, static_cast<int>(i));
    std::string got;
    while (auto e = il.PopReady()) take(*e, &got);
    EXPECT_EQ(got, c.released.at(i)) << "after push #" << i;
  }
  std::string drained;
  while (auto e = il.Drain()) take(*e, &drained);
  EXPECT_EQ(drained, c.drained);
  EXPECT_TRUE(il.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Interleaver, InterleaverOrder,
    testing::Values(
        // Equal DTS: lower stream index first, whatever the arrival order.
        Case{"TiesGoToLowerStream", 3, 10'000'000,
             {{2, 5}, {1, 5}, {0, 5}, {2, 9}, {0, 9}, {1, 9}},
             {"", "", "0:5", "", "1:5", "2:5 0:9"}, "1:9 2:9"},
        // Stream 1 stalls after dts 0: stream 0 waits while its span is at
        // most the bound (exactly 100 is not past it), then leaves one entry
        // at a time as the span grows; interleaving resumes with stream 1.
        Case{"StalledStreamHeldUntilBoundExceeded", 2, 100,
             {{1, 0}, {0, 0}, {0, 10}, {0, 50}, {0, 110}, {0, 111}, {0, 200}, {1, 120}},
             {"", "0:0", "1:0", "", "", "0:10", "0:50", "0:110 0:111 1:120"}, "0:200"},
        // The span counts every stream; the end merges uneven buffers.
        Case{"SpanCountsEveryStreamAndDrainMerges", 3, 100,
             {{0, 0}, {2, 50}, {2, 101}, {0, 120}},
             {"", "", "0:0", ""}, "2:50 2:101 0:120"},
        // Spans wider than int64 must not wrap around.
        Case{"HugeSpanIsPastTheBound", 2, 100,
             {{0, -4'700'000'000'000'000'000}, {0, 4'700'000'000'000'000'000}},
             {"", "0:-4700000000000000000"}, "0:4700000000000000000"}),
    [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
