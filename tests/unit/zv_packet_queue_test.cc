#include "packet/zv_packet_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using qel::QueueResult;
using qel::ZVMemNode;
using qel::ZVPacketQueue;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kScale = 10;  // sanitizers run the same traffic, a tenth of it
#else
constexpr int kScale = 1;
#endif
constexpr auto kDeadline = std::chrono::seconds(20);

void Push(ZVPacketQueue& q, const std::string& bytes) {
  ZVMemNode* n = q.alloc_node(static_cast<uint32_t>(bytes.size()));
  ASSERT_NE(n, nullptr);
  std::memcpy(n->data, bytes.data(), bytes.size());
  ASSERT_EQ(q.push(n, 100, false, 0), qel::Ok);
}

std::string Read(ZVPacketQueue& q, int32_t want, QueueResult expect, uint32_t timeout_ms = 0) {
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
  EXPECT_EQ(q.bytes(), 3 + 10 + 2 * 64);
  EXPECT_EQ(Read(q, 8, qel::Ok), "abc01234");
  EXPECT_EQ(q.bytes(), 0);
  EXPECT_EQ(Read(q, 2, qel::Ok), "56");  // from the rest alone
  EXPECT_EQ(Read(q, 0, qel::Invalid), "");
  Read(q, 8, qel::Empty, 10);
  Push(q, "defgh");
  EXPECT_EQ(Read(q, 8, qel::Ok, 10), "789defgh");
  Push(q, "tail");
  ASSERT_EQ(q.push(nullptr, 100, false, 0), qel::Ok);
  Push(q, "never read");  // released with the queue
  Read(q, 8, qel::Empty);
  EXPECT_TRUE(q.aborted());
  uint8_t rest[8] = {};
  ASSERT_EQ(q.take_pending(rest, 8), 4);  // the bytes before the end are not lost
  EXPECT_EQ(std::memcmp(rest, "tail", 4), 0);
  Read(q, 8, qel::Aborted);
  EXPECT_EQ(q.alloc_node(10), nullptr);
}

// Time-outs wait about as long as asked, once; bounds are generous for a
// loaded machine.
TEST(ZVPacketQueueTest, WaitsAreBounded) {
  qel::BlockingQueue<int64_t> q;
  int64_t v = 0;
  auto elapsed_ms = [](Clock::time_point t0) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
  };
  auto t0 = Clock::now();
  EXPECT_EQ(q.pop(v, false, 0, true), qel::Empty);
  EXPECT_EQ(q.pop(v, false, 50, true), qel::Empty);
  EXPECT_GE(elapsed_ms(t0), 45);
  EXPECT_LT(elapsed_ms(t0), 5000);

  ASSERT_EQ(q.push(1, 1, false, 0), qel::Ok);
  t0 = Clock::now();
  EXPECT_EQ(q.push(2, 1, false, 0), qel::Full);
  EXPECT_EQ(q.push(2, 1, false, 50), qel::Full);
  EXPECT_GE(elapsed_ms(t0), 45);
  EXPECT_LT(elapsed_ms(t0), 5000);
  EXPECT_EQ(q.pop(v, false, 0, false), qel::Ok);  // peek
  EXPECT_EQ(q.size(), 1);
}

// Poppers of an empty queue, pushers of a full one and a byte reader all
// wait without limit; one abort returns every one of them Aborted.
TEST(ZVPacketQueueTest, AbortWakesEveryWaiter) {
  qel::BlockingQueue<int64_t> empty_q;
  qel::BlockingQueue<int64_t> full_q;
  ZVPacketQueue bytes_q;
  ASSERT_EQ(full_q.push(0, 1, false, 0), qel::Ok);
  std::vector<std::future<QueueResult>> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.push_back(std::async(std::launch::async, [&] {
      int64_t v;
      return empty_q.pop(v, true, 0, true);
    }));
    waiters.push_back(std::async(std::launch::async, [&] { return full_q.push(1, 1, true, 0); }));
  }
  waiters.push_back(std::async(std::launch::async, [&] {
    uint8_t buf[16];
    return bytes_q.read(buf, sizeof buf, true, 0);
  }));
  // None may return before the abort.
  for (auto& w : waiters) EXPECT_EQ(w.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
  empty_q.abort();
  full_q.abort();
  bytes_q.abort();
  for (auto& w : waiters) {
    ASSERT_EQ(w.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(w.get(), qel::Aborted);
  }
}

// Producers and consumers share one queue and pool, the queue small enough
// that both sides block. Each node carries its serial number; every one
// arrives exactly once and every block ends on the pool's free lists.
TEST(ZVPacketQueueTest, ManyProducersAndConsumersLoseNothing) {
  constexpr int kProducers = 3;
  constexpr int kConsumers = 3;
  constexpr uint32_t kNodes = 300000 / kScale;
  ZVPacketQueue q;
  std::vector<std::atomic<uint8_t>> seen(kNodes);
  std::atomic<uint32_t> next{0};
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&] {
      for (uint32_t i; (i = next.fetch_add(1)) < kNodes;) {
        ZVMemNode* n = q.alloc_node(4 + i % 5000);
        if (n == nullptr) return bad.fetch_add(1), void();
        std::memcpy(n->data, &i, 4);
        n->pts = i;
        if (q.push(n, 64, true, 0) != qel::Ok) return qel::release_node(n), bad.fetch_add(1), void();
      }
    });
  }
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&] {
      for (;;) {
        ZVMemNode* n = nullptr;
        if (q.pop(n, true, 0, true) != qel::Ok) return bad.fetch_add(1), void();
        if (n == nullptr) return;  // one end marker per consumer
        uint32_t i;
        std::memcpy(&i, n->data, 4);
        if (i != n->pts || i >= kNodes || n->size != static_cast<int32_t>(4 + i % 5000)) {
          bad.fetch_add(1);
        } else {
          seen[i].fetch_add(1);
        }
        qel::release_node(n);
      }
    });
  }
  for (int p = 0; p < kProducers; ++p) threads[p].join();
  for (int c = 0; c < kConsumers; ++c) ASSERT_EQ(q.push(nullptr, INT32_MAX, false, 0), qel::Ok);
  for (int c = 0; c < kConsumers; ++c) threads[kProducers + c].join();

  EXPECT_EQ(bad.load(), 0);
  uint32_t once = 0;
  for (auto& s : seen) once += s.load() == 1;
  EXPECT_EQ(once, kNodes);
  EXPECT_EQ(q.size(), 0);
  EXPECT_EQ(q.bytes(), 0);
  EXPECT_EQ(q.pool()->free_count(), q.pool()->allocated());
}

}  // namespace
