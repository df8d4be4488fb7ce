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
constexpr char kFullLine[] = "write full: maxNpkt=1, have=1";
constexpr char kTailerLine[] = "************ safe-free-packet(): pkt is tailer *****";

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
  Worker(PacketQueue* q, std::function<int()> fn) : q_(q) {
    std::packaged_task<int()> task(std::move(fn));
    result_ = task.get_future();
    thread_ = std::thread(std::move(task));
  }
  ~Worker() {
    if (result_.valid()) Finish();
    thread_.join();
  }
  int Result() { return Finish().get(); }

 private:
  std::future<int>& Finish() {
    if (result_.wait_for(kDeadline) != std::future_status::ready) {
      ADD_FAILURE() << "worker still blocked at the deadline";
      q_->abort();
      if (result_.wait_for(kDeadline) != std::future_status::ready) {
        std::fprintf(stderr, "worker not woken by abort; giving up\n");
        std::abort();
      }
    }
    return result_;
  }

  PacketQueue* q_;
  std::future<int> result_;
  std::thread thread_;
};

// A putter logs "write full" just before it waits, so tests wait for that line.
class PacketQueueTest : public ::testing::Test {
 protected:
  int Count(const std::string& msg) { return log_.Count("5:" + msg); }
  bool WaitForLine(const std::string& msg) {
    return log_.WaitFor("5:" + msg, std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline));
  }

 private:
  zeva::test::LogCapture log_;
};

TEST_F(PacketQueueTest, KeepsOrderAndSharesBuffersAndCountsBytes) {
  PacketQueue q;
  zeva::PacketPtr empty = MakePacket(0, 0), a = MakePacket(100, 1), b = MakePacket(200, 2);
  ASSERT_TRUE(empty && a && b);
  ASSERT_EQ(q.put_bounded(empty.get(), 10, false), 0);
  const int node = q.size();
  EXPECT_GE(node, static_cast<int>(sizeof(AVPacket)));
  ASSERT_EQ(q.put_bounded(a.get(), 10, false), 0);
  ASSERT_EQ(q.put(b.get()), 0);
  EXPECT_EQ(q.nb_packets(), 3);
  EXPECT_EQ(q.size(), 300 + 3 * node);
  // The caller keeps its packet; the queue holds a second reference to the same bytes.
  EXPECT_EQ(RefCount(a->buf), 2);

  zeva::PacketPtr out = zeva::NewPacket();
  for (const AVPacket* want : {empty.get(), a.get(), b.get()}) {
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_EQ(out->pts, want->pts);
    EXPECT_EQ(out->data, want->data);
    EXPECT_EQ(RefCount(out->buf), 2);
    av_packet_unref(out.get());
    EXPECT_EQ(RefCount(want->buf), 1);
  }
  EXPECT_EQ(q.nb_packets(), 0);
  EXPECT_EQ(q.size(), 0);
  EXPECT_EQ(q.get(out.get(), false), 0);
}

TEST_F(PacketQueueTest, FullQueueWithoutBlockingRefusesAndReleasesPacket) {
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10), b = MakePacket(20);
  ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
  ASSERT_EQ(q.put_bounded(b.get(), 1, false), -2);
  EXPECT_EQ(Count(kFullLine), 1);
  EXPECT_EQ(b->buf, nullptr);
  EXPECT_EQ(q.nb_packets(), 1);
}

TEST_F(PacketQueueTest, BlockedPutIsReleasedByGet) {
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10, 1), b = MakePacket(20, 2);
  ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
  Worker putter(&q, [&] { return q.put_bounded(b.get(), 1, true); });
  ASSERT_TRUE(WaitForLine(kFullLine));

  zeva::PacketPtr out = zeva::NewPacket();
  ASSERT_EQ(q.get(out.get(), true), 1);
  EXPECT_EQ(out->pts, 1);
  EXPECT_EQ(putter.Result(), 0);
  av_packet_unref(out.get());
  ASSERT_EQ(q.get(out.get(), false), 1);
  EXPECT_EQ(out->pts, 2);
}

TEST_F(PacketQueueTest, AbortWakesBlockedPutterAndReleasesBothReferences) {
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10), b = MakePacket(20);
  AVBufferRef* keep = av_buffer_ref(b->buf);
  ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
  Worker putter(&q, [&] { return q.put_bounded(b.get(), 1, true); });
  ASSERT_TRUE(WaitForLine(kFullLine));
  q.abort();
  EXPECT_EQ(putter.Result(), -1);
  // Neither the caller's reference nor the node's survives the failed put.
  EXPECT_EQ(RefCount(keep), 1);
  av_buffer_unref(&keep);
}

TEST_F(PacketQueueTest, AbortWakesBlockedGetter) {
  // Nothing shows when the getter has reached its wait, so the abort may come
  // before it; either way the result is -1. Waiting for the getter to start
  // and repeating make the waiting case all but certain to be met.
  for (int round = 0; round < 50; ++round) {
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

TEST_F(PacketQueueTest, AfterAbortPutsAndGetsFailAndQueuedPacketsAreFreed) {
  PacketQueue q;
  zeva::PacketPtr a = MakePacket(10), b = MakePacket(20);
  ASSERT_EQ(q.put_bounded(a.get(), 5, false), 0);
  q.abort();
  q.abort();
  EXPECT_TRUE(q.aborted());
  zeva::PacketPtr out = zeva::NewPacket();
  EXPECT_EQ(q.get(out.get(), true), -1);
  EXPECT_EQ(out->buf, nullptr);
  AVBufferRef* keep = av_buffer_ref(b->buf);
  EXPECT_EQ(q.put_bounded(b.get(), 5, true), -1);
  EXPECT_EQ(b->buf, nullptr);
  EXPECT_EQ(RefCount(keep), 1);
  av_buffer_unref(&keep);
  EXPECT_EQ(q.nb_packets(), 1);
  EXPECT_EQ(RefCount(a->buf), 2);  // released with the queue
}

TEST_F(PacketQueueTest, TailerEntersFullAndAbortedQueuesAndSurvivesThem) {
  AVPacket* tailer = PacketQueue::tailer();
  {
    PacketQueue q;
    ASSERT_EQ(tailer->data, reinterpret_cast<uint8_t*>(tailer));
    zeva::PacketPtr a = MakePacket(10);
    ASSERT_EQ(q.put_bounded(a.get(), 1, false), 0);
    ASSERT_EQ(q.put(tailer), 0);  // full
    EXPECT_EQ(q.put_bounded(tailer, 1, false), -2);
    EXPECT_EQ(Count(kTailerLine), 1);

    zeva::PacketPtr out = zeva::NewPacket();
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_FALSE(PacketQueue::is_tailer(out.get()));
    av_packet_unref(out.get());
    ASSERT_EQ(q.get(out.get(), false), 1);
    EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
    EXPECT_EQ(out->buf, nullptr);
    PacketQueue::safe_free(out.get());  // a copy: still a tailer, left alone
    EXPECT_TRUE(PacketQueue::is_tailer(out.get()));
    EXPECT_EQ(Count(kTailerLine), 2);

    q.abort();
    ASSERT_EQ(q.put(tailer), 0);
    ASSERT_EQ(q.put(tailer), 0);
    EXPECT_EQ(q.nb_packets(), 2);
  }
  EXPECT_EQ(Count(kTailerLine), 4);  // one per tailer freed with the queue
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
  EXPECT_EQ(q.nb_packets(), 0);
  EXPECT_EQ(q.size(), 0);
}

}  // namespace
