#include "packet/input_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

extern "C" {
#include <libavutil/error.h>
}

#include "support/log_capture.h"
#include "unit/new_counter.h"

namespace {

using zeva::InputQueue;

bool PushBytes(InputQueue& q, const std::string& bytes, int64_t usec) {
  return q.push_data(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<int32_t>(bytes.size()), usec);
}

// Five packets wait for sorting; the sixth push passes on the oldest. Equal
// stamps become unique, a late packet overtakes, a flush passes on the rest,
// bytes leave in the order of their stamps and the end reads as EOF.
TEST(InputQueueTest, SortsFiveDeepAndMakesStampsUnique) {
  InputQueue q;
  q.probed = true;
  for (const auto& [bytes, usec] : std::vector<std::pair<std::string, int64_t>>{
           {"b", 1000}, {"c", 1000}, {"d", 1000}, {"f", 2000}, {"a", 900}, {"e", 1500}}) {
    ASSERT_TRUE(PushBytes(q, bytes, usec));
  }
  EXPECT_EQ(q.size(), 1);
  ASSERT_TRUE(q.push_data(nullptr, 0, 0));  // flush
  q.push(nullptr, 10, false, 0);  // end of stream
  std::vector<int64_t> pts;
  for (int64_t v; q.pts_queue.pop(v, false, 0, true) == qel::Ok;) pts.push_back(v);
  EXPECT_EQ(pts, (std::vector<int64_t>{900, 1000, 1001, 1002, 1500, 2000}));
  uint8_t buf[16] = {};
  EXPECT_EQ(InputQueue::read_packet(&q, buf, sizeof buf), 6);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf)), "abcdef");
  EXPECT_EQ(InputQueue::read_packet(&q, buf, sizeof buf), AVERROR_EOF);
}

TEST(InputQueueTest, FullQueueDropsTheOldestAndItsStamp) {
  zeva::test::LogCapture log;
  InputQueue q;
  q.name = "h264";
  for (int i = 0; i < 2000 + InputQueue::kSortDepth; ++i) ASSERT_TRUE(PushBytes(q, "x", i));
  EXPECT_EQ(q.size(), 2000);
  ASSERT_TRUE(PushBytes(q, "y", 5000));  // waits 50 ms for room, then drops
  EXPECT_EQ(q.size(), 2000);
  EXPECT_EQ(q.pts_queue.size(), 2000);
  EXPECT_EQ(log.Count("2:[h264] pb.queue(sz=2000) is full; ---> sort.queue.(sz=6);  drop "
                      "front-node.(nbytes=1, usec=2000)"),
            1);
}

// After warm-up, host packets through sorting, the pooled queue, the byte
// reads and the timestamp queue allocate nothing: no operator new, no new
// block from the pool's heap.
TEST(InputQueueTest, SteadyTrafficAllocatesNothing) {
  InputQueue q;
  q.probed = true;
  std::vector<uint8_t> packet(5000, 7), buf(5000);
  auto round = [&](int i) {
    const int32_t size = 100 + (i * 4099) % 4900;
    qel::ZVMemNode* head = nullptr;
    int64_t pts;
    return q.push_data(packet.data(), size, i * 33333LL) &&
           (i < InputQueue::kSortDepth ||
            (q.pop(head, false, 0, false) == qel::Ok && q.pts_queue.pop(pts, false, 0, true) == qel::Ok &&
             q.read(buf.data(), head->size, false, 0) == qel::Ok));
  };
  int i = 0;
  for (; i < 2000; ++i) ASSERT_TRUE(round(i));
  const int32_t blocks = q.pool()->allocated();
  const long news = zeva::test::NewCount();
  for (; i < 20000; ++i) ASSERT_TRUE(round(i));
  EXPECT_EQ(zeva::test::NewCount() - news, 0);
  EXPECT_EQ(q.pool()->allocated() - blocks, 0);
  std::vector<int64_t> grown(1000);  // the counter does see allocations
  EXPECT_GT(zeva::test::NewCount() - news, 0) << grown.size();
}

}  // namespace
