#include "packet/zv_packet_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using qel::ZVMemNode;
using qel::ZVPacketQueue;

void Push(ZVPacketQueue& q, const std::string& bytes) {
  ZVMemNode* n = q.alloc_node(static_cast<uint32_t>(bytes.size()));
  ASSERT_NE(n, nullptr);
  std::memcpy(n->data, bytes.data(), bytes.size());
  ASSERT_EQ(q.push(n, 100, false, 0), qel::Ok);
}

std::string Read(ZVPacketQueue& q, int32_t want, qel::QueueResult expect, uint32_t timeout_ms = 0) {
  std::string out(static_cast<size_t>(want), '\0');
  EXPECT_EQ(q.read(reinterpret_cast<uint8_t*>(out.data()), want, false, timeout_ms), expect);
  return out;
}

// Reads span nodes and keep the rest for the next read; a timed-out read
// keeps what it took; a null node ends the stream after the bytes before it.
TEST(ZVPacketQueueTest, ByteReadsSpanNodesAndEndAtTheNullNode) {
  ZVPacketQueue q;
  Push(q, "abc");
  Push(q, "0123456789");
  EXPECT_EQ(Read(q, 8, qel::Ok), "abc01234");
  EXPECT_EQ(Read(q, 2, qel::Ok), "56");  // from the rest alone
  Read(q, 8, qel::Empty, 10);
  Push(q, "defgh");
  EXPECT_EQ(Read(q, 8, qel::Ok, 10), "789defgh");
  Push(q, "tail");
  ASSERT_EQ(q.push(nullptr, 100, false, 0), qel::Ok);
  Read(q, 8, qel::Empty);
  uint8_t rest[8] = {};
  ASSERT_EQ(q.take_pending(rest, 8), 4);  // the bytes before the end are not lost
  EXPECT_EQ(std::memcmp(rest, "tail", 4), 0);
}

// A full queue refuses after its time-out and an empty one returns Empty;
// without a time-out a pusher waits until an abort wakes it.
TEST(ZVPacketQueueTest, WaitsAreBoundedAndAbortWakesAWaiter) {
  qel::BlockingQueue<int64_t> q;
  int64_t v = 0;
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(q.pop(v, false, 50, true), qel::Empty);
  ASSERT_EQ(q.push(1, 1, false, 0), qel::Ok);
  EXPECT_EQ(q.push(2, 1, false, 50), qel::Full);  // capacity 1
  const auto waited = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(waited, std::chrono::milliseconds(90));
  EXPECT_LT(waited, std::chrono::seconds(5));
  auto pusher = std::async(std::launch::async, [&] { return q.push(2, 1, true, 0); });
  EXPECT_EQ(pusher.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
  q.abort();
  EXPECT_EQ(pusher.get(), qel::Aborted);
}

// Producers and consumers share one queue and pool, the queue small enough
// that both sides block. Each node carries its serial number; every one
// arrives exactly once and every block ends on the pool's free lists.
TEST(ZVPacketQueueTest, ManyProducersAndConsumersLoseNothing) {
  constexpr uint32_t kNodes = 50000;  // also few enough for the sanitizers
  ZVPacketQueue q;
  std::vector<std::atomic<uint8_t>> seen(kNodes);
  std::atomic<uint32_t> next{0};
  std::atomic<int> bad{0};
  std::vector<std::thread> producers, consumers;
  for (int t = 0; t < 3; ++t) {
    producers.emplace_back([&] {
      for (uint32_t i; (i = next.fetch_add(1)) < kNodes;) {
        ZVMemNode* n = q.alloc_node(4 + i % 5000);
        std::memcpy(n->data, &i, 4);
        if (q.push(n, 64, true, 0) != qel::Ok) bad.fetch_add(1);
      }
    });
    consumers.emplace_back([&] {
      ZVMemNode* n = nullptr;
      while (q.pop(n, true, 0, true) == qel::Ok && n != nullptr) {  // one end marker each
        uint32_t i;
        std::memcpy(&i, n->data, 4);
        bad.fetch_add(i >= kNodes || n->size != static_cast<int32_t>(4 + i % 5000));
        seen[i % kNodes].fetch_add(1);
        qel::release_node(n);
      }
    });
  }
  for (auto& p : producers) p.join();
  for (int c = 0; c < 3; ++c) ASSERT_EQ(q.push(nullptr, INT32_MAX, false, 0), qel::Ok);
  for (auto& c : consumers) c.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](auto& s) { return s.load() == 1; }), long(kNodes));
  EXPECT_EQ(q.pool()->free_count(), q.pool()->allocated());
}

}  // namespace
