#include "packet/input_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
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

std::vector<int64_t> DrainPts(InputQueue& q) {
  std::vector<int64_t> out;
  int64_t v;
  while (q.pts_queue.pop(v, false, 0, true) == qel::Ok) out.push_back(v);
  return out;
}

std::string ReadAll(InputQueue& q) {
  std::string out;
  uint8_t buf[8192];
  for (;;) {
    const int n = InputQueue::read_packet(&q, buf, sizeof buf);
    if (n <= 0) break;
    out.append(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
  }
  return out;
}

// Five packets wait for sorting; the sixth push passes on the oldest. Equal
// stamps become unique, a late packet overtakes, a flush passes on the rest,
// and bytes leave in the order of their stamps.
TEST(InputQueueTest, SortsFiveDeepAndMakesStampsUnique) {
  InputQueue q;
  q.probed = true;
  const std::pair<const char*, int64_t> pushes[] = {
      {"b", 1000}, {"c", 1000}, {"d", 1000}, {"f", 2000}, {"a", 900}};
  for (const auto& p : pushes) ASSERT_TRUE(PushBytes(q, p.first, p.second));
  EXPECT_EQ(q.sort_size(), 5);
  EXPECT_EQ(q.size(), 0);
  ASSERT_TRUE(PushBytes(q, "e", 1500));
  EXPECT_EQ(DrainPts(q), (std::vector<int64_t>{900}));
  ASSERT_TRUE(q.push_data(nullptr, 0, 0));  // flush
  EXPECT_EQ(q.sort_size(), 0);
  EXPECT_EQ(DrainPts(q), (std::vector<int64_t>{1000, 1001, 1002, 1500, 2000}));
  q.push(nullptr, 10, false, 0);  // end of stream
  EXPECT_EQ(ReadAll(q), "abcdef");
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

// Pushes at the edges: a flush by size 0 or by null data, 8 MB in one
// packet, and a push into an ended input. Each gives its result, and the
// bytes read back are exactly those accepted.
TEST(InputQueueTest, EdgePushesReadBackExactlyWhatWasAccepted) {
  for (const int32_t nbytes : {0, -1, 8 << 20, 100}) {
    const bool aborted = nbytes == 100;
    SCOPED_TRACE(nbytes);
    zeva::test::LogCapture log;
    InputQueue q;
    q.name = "h264";
    q.probed = true;
    if (aborted) q.abort();
    std::string data;
    while (data.size() < size_t(std::max(nbytes, 0))) data += std::to_string(data.size());
    data.resize(size_t(std::max(nbytes, 0)));
    const auto* ptr = nbytes < 0 ? nullptr : reinterpret_cast<const uint8_t*>(data.data());
    EXPECT_EQ(q.push_data(ptr, nbytes, 1000), !aborted);
    EXPECT_TRUE(q.push_data(nullptr, 0, 0));
    if (!aborted) q.push(nullptr, 10, false, 0);
    EXPECT_TRUE(ReadAll(q) == (aborted ? std::string() : data));
    EXPECT_EQ(log.Count("2:malloc pnode==null, aborted"), aborted ? 1 : 0);
    EXPECT_EQ(log.Count("2:read-buffer,EOF: ===> 'h264'"), 1);
    uint8_t buf[16];
    EXPECT_EQ(InputQueue::read_packet(&q, buf, sizeof buf), AVERROR_EOF);
  }
}

// After warm-up, host packets through sorting, the pooled queue, the byte
// reads and the timestamp queue allocate nothing: no operator new, no new
// block from the pool's heap.
TEST(InputQueueTest, SteadyTrafficAllocatesNothing) {
  InputQueue q;
  q.probed = true;
  std::vector<uint8_t> packet(5000, 7);
  std::vector<uint8_t> buf(5000);
  auto round = [&](int i) {
    const int32_t size = 100 + (i * 4099) % 4900;
    if (!q.push_data(packet.data(), size, i * 33333LL)) return false;
    qel::ZVMemNode* head = nullptr;
    if (i < InputQueue::kSortDepth) return true;
    int64_t pts;
    if (q.pop(head, false, 0, false) != qel::Ok || q.pts_queue.pop(pts, false, 0, true) != qel::Ok) return false;
    return q.read(buf.data(), head->size, false, 0) == qel::Ok;
  };
  int i = 0;
  for (; i < 2000; ++i) ASSERT_TRUE(round(i));
  const int32_t blocks = q.pool()->allocated();
  const long news = zeva::test::NewCount();
  for (; i < 20000; ++i) ASSERT_TRUE(round(i));
  EXPECT_EQ(zeva::test::NewCount() - news, 0);
  const long before = zeva::test::NewCount();
  std::vector<int64_t> grown;
  grown.resize(1000);
  EXPECT_GT(zeva::test::NewCount(), before) << "the counter must see allocations";
  EXPECT_EQ(q.pool()->allocated() - blocks, 0);
}

}  // namespace
