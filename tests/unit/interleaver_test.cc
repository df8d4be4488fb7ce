#include "output/interleaver.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <ostream>
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

std::string Describe(const IntInterleaver::Entry& e) {
  return std::to_string(e.stream) + ":" + std::to_string(e.dts_us);
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

class InterleaverOrder : public testing::TestWithParam<Case> {};

TEST_P(InterleaverOrder, ReleasesInDtsOrderWhenAllowed) {
  const Case& c = GetParam();
  ASSERT_EQ(c.pushes.size(), c.released.size());
  IntInterleaver il(c.streams, c.max_delta_us);
  std::map<int, int> last_seq;  // per stream, the push index last released
  size_t queued = 0;
  // Appends one released entry to `out`, checking that a stream's entries
  // leave in arrival order (the payload is the push index).
  auto take = [&](const IntInterleaver::Entry& e, std::string* out) {
    const auto seen = last_seq.emplace(e.stream, -1).first;
    EXPECT_GT(e.payload, seen->second) << Describe(e);
    seen->second = e.payload;
    if (!out->empty()) *out += ' ';
    *out += Describe(e);
    --queued;
  };

  for (size_t i = 0; i < c.pushes.size(); ++i) {
    il.Push(c.pushes[i].first, c.pushes[i].second, static_cast<int>(i));
    ++queued;
    std::string got;
    while (auto e = il.PopReady()) take(*e, &got);
    EXPECT_EQ(got, c.released[i]) << "after push #" << i;
    EXPECT_EQ(il.size(), queued);
  }
  std::string drained;
  while (auto e = il.Drain()) take(*e, &drained);
  EXPECT_EQ(drained, c.drained);
  EXPECT_TRUE(il.empty());
  EXPECT_FALSE(il.PopReady());
}

constexpr int64_t kLong = 10'000'000;  // a bound no row reaches

INSTANTIATE_TEST_SUITE_P(
    Interleaver, InterleaverOrder,
    testing::Values(
        Case{"TwoStreamsAlternating", 2, kLong,
             {{0, 0}, {1, 5}, {0, 10}, {1, 15}, {0, 20}},
             {"", "0:0", "1:5", "0:10", "1:15"}, "0:20"},
        Case{"OneStreamAhead", 2, kLong,
             {{0, 0}, {0, 10}, {0, 20}, {1, 0}, {1, 10}, {1, 20}},
             {"", "", "", "0:0 1:0", "0:10 1:10", "0:20"}, "1:20"},
        // Equal DTS: lower stream index first, whatever the arrival order.
        Case{"TiesGoToLowerStream", 3, kLong,
             {{2, 5}, {1, 5}, {0, 5}, {2, 9}, {0, 9}, {1, 9}},
             {"", "", "0:5", "", "1:5", "2:5 0:9"}, "1:9 2:9"},
        // Stream 1 stalls after dts 0: stream 0 waits while its span is at
        // most the bound (exactly 100 is not past it), then leaves one entry
        // at a time as the span grows; interleaving resumes with stream 1.
        Case{"StalledStreamHeldUntilBoundExceeded", 2, 100,
             {{1, 0}, {0, 0}, {0, 10}, {0, 50}, {0, 110}, {0, 111}, {0, 200}, {1, 120}},
             {"", "0:0", "1:0", "", "", "0:10", "0:50", "0:110 0:111 1:120"}, "0:200"},
        // The span runs from the earliest entry to the newest on any stream,
        // not only on the earliest entry's stream.
        Case{"SpanCountsEveryStream", 3, 100,
             {{0, 0}, {2, 50}, {2, 101}, {0, 120}},
             {"", "", "0:0", ""}, "2:50 2:101 0:120"},
        Case{"BoundZeroDisablesSpanRule", 2, 0,
             {{0, 0}, {0, 1'000'000'000}, {1, 5}},
             {"", "", "0:0 1:5"}, "0:1000000000"},
        // End of recording with uneven buffers and one stream never seen.
        Case{"DrainMergesUnevenBuffers", 3, 0,
             {{0, 0}, {0, 10}, {0, 20}, {0, 30}, {1, 5}, {1, 25}, {1, 30}},
             {"", "", "", "", "", "", ""}, "0:0 1:5 0:10 0:20 1:25 0:30 1:30"},
        // Spans wider than int64 and DTS near its end must not wrap around.
        Case{"HugeSpanIsPastTheBound", 2, 100,
             {{0, -4'700'000'000'000'000'000}, {0, 4'700'000'000'000'000'000}},
             {"", "0:-4700000000000000000"}, "0:4700000000000000000"},
        Case{"DtsNearInt64MaxStaysWithinBound", 2, 100,
             {{0, INT64_MAX - 10}, {0, INT64_MAX}},
             {"", ""}, "0:9223372036854775797 0:9223372036854775807"}),
    [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

}  // namespace
