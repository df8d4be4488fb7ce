#include "output/packet_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/buffer.h>
}

#include "platform/av_ptr.h"
#include "support/log_capture.h"

namespace {

using zeva::PacketQueue;

constexpr auto kDeadline = std::chrono::seconds(10);
constexpr char kFullLine[] = "5:write full: maxNpkt=1, have=1";
constexpr char kTailerLine[] = "5:************ safe-free-packet(): pkt is tailer *****";

// A packet of `size` bytes, each `size` % 256, with pts `pts`.
zeva::PacketPtr MakePacket(int size, int64_t pts = 0) {
  zeva::PacketPtr pkt = zeva::NewPacket();
  if (pkt == nullptr || av_new_packet(pkt.get(), size) < 0) return nullptr;
  std::memset(pkt->data, size % 256, static_cast<size_t>(size));
  pkt->pts = pts;
  return pkt;
}

int RefCount(const AVBufferRef* buf) { return buf ? av_buffer_get_ref_count(buf) : 0; }

// Runs `fn` on a thread of its own. A thread still waiting at the deadline
// fails the test and is released by aborting the queue; one that even abort
// cannot wake ends the process, so that a lost wake-up never hangs the suite.
class Worker {
 public:
  Worker(PacketQueue* q, std::function<int()> fn) : q_(q), result_(std::async(std::launch::async, fn)) {}
  ~Worker() {
    if (result_.valid()) Result();
  }
  int Result() {
    if (result_.wait_for(kDeadline) != std::future_status::ready) {
      ADD_FAILURE() << "worker still blocked at the deadline";
      q_->abort();
      if (result_.wait_for(kDeadline) != std::future_status::ready) {
        std::fprintf(stderr, "worker not woken by abort; giving up\n");
        std::abort();
      }
    }
    return result_.get();
  }

 private:
  PacketQueue* q_;
  std::future<int> result_;
};

// A putter logs "write full" just before it waits, so tests wait for that line.
class PacketQueueTest : public ::testing::Test {
 protected:
  bool WaitForFull() {
    return log_.WaitFor(kFullLine, std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline));
  }
  zeva::test::LogCapture log_;
};

// First in, first out, sharing the caller's bytes, with a byte count that
// includes each node; a full queue refuses at once without `block`.
TEST_F(PacketQueueTest, KeepsOrderSharesBuffersAndRefusesWhenFull) {
  PacketQueue q;
  zeva::PacketPtr empty = MakePacket(0, 0), a = MakePacket(100, 1), b = MakePacket(200, 2);
  ASSERT_TRUE(empty && a && b);
  ASSERT_EQ(q.put_bounded(empty.get(), 3, false), 0);
  const int node = q.size();
  EXPECT_GE(node, static_cast<int>(sizeof(AVPacket)));
  ASSERT_EQ(q.put_bounded(a.get(), 3, false), 0);
  ASSERT_EQ(q.put(b.get()), 0);
  EXPECT_EQ(q.nb_packets(), 3);
  EXPECT_EQ(q.size(), 300 + 3 * node);
  EXPECT_EQ(RefCount(a->buf), 2);  // the caller keeps its own reference
  zeva::PacketPtr c = MakePacket(20);
  EXPECT_EQ(q.put_bounded(c.get(), 3, false), -2);  // exactly at the limit
  EXPECT_EQ(c->buf, nullptr);
  EXPECT_EQ(q.nb_packets(), 3);

  zeva::PacketPtr out = zeva::NewPacket();
  for (const AVPacket* want : {empty.get(), a.get(), b.get()}) {
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_EQ(out->pts, want->pts);
    EXPECT_EQ(out->data, want->data);
    av_packet_unref(out.get());
    EXPECT_EQ(RefCount(want->buf), 1);
  }
  EXPECT_EQ(q.size(), 0);
  EXPECT_EQ(q.get(out.get(), false), 0);
}

// A put blocked on a full queue goes on when a get makes room; one blocked
// again is woken by abort, which fails it and releases both references.
// After abort every put and get fails, and queued packets go with the queue.
TEST_F(PacketQueueTest, BlockedPutWaitsForRoomOrAbort) {
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10, 1), b = MakePacket(20, 2), c = MakePacket(30, 3);
  ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
  {
    Worker putter(&q, [&] { return q.put_bounded(b.get(), 1, true); });
    ASSERT_TRUE(WaitForFull());
    zeva::PacketPtr out = zeva::NewPacket();
    ASSERT_EQ(q.get(out.get(), true), 1);
    EXPECT_EQ(out->pts, 1);
    EXPECT_EQ(putter.Result(), 0);
  }
  log_.Take();
  AVBufferRef* keep = av_buffer_ref(c->buf);
  Worker putter(&q, [&] { return q.put_bounded(c.get(), 1, true); });
  ASSERT_TRUE(WaitForFull());
  q.abort();
  EXPECT_EQ(putter.Result(), -1);
  EXPECT_EQ(RefCount(keep), 1);
  av_buffer_unref(&keep);
  EXPECT_TRUE(q.aborted());
  zeva::PacketPtr out = zeva::NewPacket();
  EXPECT_EQ(q.get(out.get(), true), -1);
  EXPECT_EQ(q.put_bounded(a.get(), 5, true), -1);
  EXPECT_EQ(a->buf, nullptr);
  EXPECT_EQ(q.nb_packets(), 1);
  EXPECT_EQ(RefCount(b->buf), 2);  // released with the queue
}

TEST_F(PacketQueueTest, AbortWakesBlockedGetter) {
  // Nothing shows when the getter has reached its wait, so the abort may come
  // before it; either way the result is -1. Repeating makes the waiting case
  // all but certain to be met.
  for (int round = 0; round < 20; ++round) {
    PacketQueue q;
    zeva::PacketPtr out = zeva::NewPacket();
    std::promise<void> started;
    Worker getter(&q, [&] {
      started.set_value();
      return q.get(out.get(), true);
    });
    ASSERT_EQ(started.get_future().wait_for(kDeadline), std::future_status::ready);
    q.abort();
    ASSERT_EQ(getter.Result(), -1);
    EXPECT_EQ(out->buf, nullptr);
  }
}

// The end-of-recording marker enters full and aborted queues alike, and no
// free ever touches it.
TEST_F(PacketQueueTest, TailerEntersFullAndAbortedQueuesAndSurvivesThem) {
  AVPacket* tailer = PacketQueue::tailer();
  {
    PacketQueue q;
    zeva::PacketPtr a = MakePacket(10);
    ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
    ASSERT_EQ(q.put(tailer), 0);  // full
    EXPECT_EQ(q.put_bounded(tailer, 1, false), -2);
    zeva::PacketPtr out = zeva::NewPacket();
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_FALSE(PacketQueue::is_tailer(out.get()));
    av_packet_unref(out.get());
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
    PacketQueue::safe_free(out.get());  // a copy: still a tailer, left alone
    EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
    q.abort();
    ASSERT_EQ(q.put(tailer), 0);
    ASSERT_EQ(q.put(tailer), 0);
  }
  EXPECT_EQ(log_.Count(kTailerLine), 4);  // refused, freed copy, two freed with the queue
  EXPECT_EQ(tailer->data, reinterpret_cast<uint8_t*>(tailer));
  EXPECT_EQ(tailer->buf, nullptr);
  EXPECT_EQ(tailer->size, 0);
}

TEST_F(PacketQueueTest, OneProducerOneConsumerKeepEveryPacketInOrder) {
  constexpr int kPackets = 5000;
  // The producer keeps its references until both threads are joined. Buffer
  // counts are atomics inside libavutil, which the thread sanitizer does not
  // see, so a producer freeing a buffer the consumer has just read would be
  // reported as a race.
  std::vector<zeva::PacketPtr> sent;
  sent.reserve(kPackets);
  PacketQueue q;
  Worker producer(&q, [&] {
    for (int i = 0; i < kPackets; ++i) {
      sent.push_back(MakePacket(1 + i % 300, i));
      if (!sent.back()) return -100;
      if (int r = q.put_bounded(sent.back().get(), 8, true); r != 0) return r;
    }
    return q.put(PacketQueue::tailer());
  });
  Worker consumer(&q, [&] {
    zeva::PacketPtr out = zeva::NewPacket();
    for (int i = 0;; ++i) {
      if (int r = q.get(out.get(), true); r != 1) return -1000 - r;
      if (PacketQueue::is_tailer(out.get())) return i;
      const int size = 1 + i % 300;
      if (out->pts != i || out->size != size || out->data[size - 1] != size % 256) return -2000 - i;
      av_packet_unref(out.get());
    }
  });
  EXPECT_EQ(producer.Result(), 0);
  EXPECT_EQ(consumer.Result(), kPackets);
  EXPECT_EQ(q.size(), 0);
}

}  // namespace
