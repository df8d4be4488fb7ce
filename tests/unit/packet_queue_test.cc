#include "output/packet_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <vector>

extern "C" {
#include <libavcodec/packet.h>
}

#include "platform/av_ptr.h"
#include "support/log_capture.h"

namespace {

using zeva::PacketQueue;

// A packet of `size` bytes, each `size` % 256, with pts `pts`.
zeva::PacketPtr MakePacket(int size, int64_t pts = 0) {
  zeva::PacketPtr pkt = zeva::NewPacket();
  if (av_new_packet(pkt.get(), size) < 0) return nullptr;
  std::memset(pkt->data, size % 256, static_cast<size_t>(size));
  pkt->pts = pts;
  return pkt;
}

int RefCount(const AVBufferRef* buf) { return buf ? av_buffer_get_ref_count(buf) : 0; }

// The result of a worker thread; one still blocked after 10 s fails the test
// and is released by aborting the queue, so a lost wake-up never hangs.
int Result(PacketQueue* q, std::future<int>& f) {
  if (f.wait_for(std::chrono::seconds(10)) == std::future_status::ready) return f.get();
  ADD_FAILURE() << "worker still blocked at the deadline";
  q->abort();
  return f.get();
}

// First in, first out, sharing the caller's bytes; a full queue refuses at
// once without `block` and releases the packet. The end-of-recording marker
// enters a full queue, and no free touches it.
TEST(PacketQueueTest, KeepsOrderSharesBuffersAndRefusesWhenFull) {
  zeva::test::LogCapture log;
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(100, 1), b = MakePacket(200, 2), c = MakePacket(20);
  ASSERT_EQ(q.put_bounded(a.get(), 2, false), 0);
  ASSERT_EQ(q.put_bounded(b.get(), 2, false), 0);
  EXPECT_EQ(RefCount(a->buf), 2);  // the caller keeps its own reference
  EXPECT_EQ(q.put_bounded(c.get(), 2, false), -2);  // exactly at the limit
  EXPECT_EQ(c->buf, nullptr);
  ASSERT_EQ(q.put(PacketQueue::tailer()), 0);
  zeva::PacketPtr out = zeva::NewPacket();
  for (const AVPacket* want : {a.get(), b.get()}) {
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_EQ(out->data, want->data);
    av_packet_unref(out.get());
    EXPECT_EQ(RefCount(want->buf), 1);
  }
  ASSERT_EQ(q.get(out.get(), false), 1);
  EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
  PacketQueue::safe_free(out.get());  // a copy: still a tailer, left alone
  EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
  EXPECT_EQ(q.get(out.get(), false), 0);
}

// A put blocked on a full queue goes on when a get makes room; one blocked
// again is woken by abort, which fails it and releases its reference; after
// abort every put and get fails, and queued packets go with the queue.
TEST(PacketQueueTest, BlockedPutWaitsForRoomOrAbort) {
  zeva::test::LogCapture log;
  // A putter logs "write full" just before it waits.
  const auto wait_full = [&] {
    return log.WaitFor("5:write full: maxNpkt=1, have=1", std::chrono::seconds(10));
  };
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10, 1), b = MakePacket(20, 2), c = MakePacket(30, 3);
  ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
  auto putter = std::async(std::launch::async, [&] { return q.put_bounded(b.get(), 1, true); });
  ASSERT_TRUE(wait_full());
  zeva::PacketPtr out = zeva::NewPacket();
  ASSERT_EQ(q.get(out.get(), true), 1);
  EXPECT_EQ(Result(&q, putter), 0);
  log.Take();
  AVBufferRef* keep = av_buffer_ref(c->buf);
  putter = std::async(std::launch::async, [&] { return q.put_bounded(c.get(), 1, true); });
  ASSERT_TRUE(wait_full());
  q.abort();
  EXPECT_EQ(Result(&q, putter), -1);
  EXPECT_EQ(RefCount(keep), 1);
  av_buffer_unref(&keep);
  EXPECT_EQ(q.get(out.get(), true), -1);
  EXPECT_EQ(q.put_bounded(a.get(), 5, true), -1);
  EXPECT_EQ(RefCount(b->buf), 2);  // released with the queue
}

TEST(PacketQueueTest, OneProducerOneConsumerKeepEveryPacketInOrder) {
  constexpr int kPackets = 5000;
  // The producer keeps its references until both threads are joined: buffer
  // counts are atomics inside libavutil, which the thread sanitizer does not
  // see, so freeing a buffer the consumer has just read would look like a race.
  std::vector<zeva::PacketPtr> sent(kPackets);
  PacketQueue q;
  auto producer = std::async(std::launch::async, [&] {
    for (int i = 0; i < kPackets; ++i) {
      sent[i] = MakePacket(1 + i % 300, i);
      if (int r = q.put_bounded(sent[i].get(), 8, true); r != 0) return r;
    }
    return q.put(PacketQueue::tailer());
  });
  auto consumer = std::async(std::launch::async, [&] {
    zeva::PacketPtr out = zeva::NewPacket();
    for (int i = 0;; ++i) {
      if (int r = q.get(out.get(), true); r != 1) return -1000 - r;
      if (PacketQueue::is_tailer(out.get())) return i;
      const int size = 1 + i % 300;
      if (out->pts != i || out->size != size || out->data[size - 1] != size % 256) return -2000 - i;
      av_packet_unref(out.get());
    }
  });
  EXPECT_EQ(Result(&q, producer), 0);
  EXPECT_EQ(Result(&q, consumer), kPackets);
}

}  // namespace
