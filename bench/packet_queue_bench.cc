// Nodes per second through one ZVPacketQueue (pooled nodes, one producer,
// one consumer, bounded at 256 queued) against the plain alternative: a
// std::mutex + std::condition_variable + std::deque queue of heap buffers
// of the same sizes, same bound, same threads.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "packet/zv_packet_queue.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kNodes = 2000000;
constexpr int kCapacity = 256;

uint32_t SizeOf(int i) { return 200 + static_cast<uint32_t>(i) * 7919u % 3000; }

double RunOurs() {
  qel::ZVPacketQueue q;
  const auto t0 = Clock::now();
  std::thread producer([&] {
    for (int i = 0; i < kNodes; ++i) {
      qel::ZVMemNode* n = q.alloc_node(SizeOf(i));
      n->data[0] = static_cast<uint8_t>(i);
      q.push(n, kCapacity, true, 0);
    }
  });
  long sum = 0;
  for (int i = 0; i < kNodes; ++i) {
    qel::ZVMemNode* n = nullptr;
    q.pop(n, true, 0, true);
    sum += n->data[0];
    qel::release_node(n);
  }
  producer.join();
  const double s = std::chrono::duration<double>(Clock::now() - t0).count();
  if (sum < 0) std::puts("");
  return kNodes / s / 1e6;
}

// The peer: what one would write without a pool.
class PlainQueue {
 public:
  void push(std::unique_ptr<uint8_t[]> item) {
    std::unique_lock<std::mutex> lock(mutex_);
    not_full_.wait(lock, [&] { return items_.size() < kCapacity; });
    items_.push_back(std::move(item));
    not_empty_.notify_one();
  }
  std::unique_ptr<uint8_t[]> pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    not_empty_.wait(lock, [&] { return !items_.empty(); });
    std::unique_ptr<uint8_t[]> item = std::move(items_.front());
    items_.pop_front();
    not_full_.notify_one();
    return item;
  }

 private:
  std::mutex mutex_;
  std::condition_variable not_empty_, not_full_;
  std::deque<std::unique_ptr<uint8_t[]>> items_;
};

double RunPeer() {
  PlainQueue q;
  const auto t0 = Clock::now();
  std::thread producer([&] {
    for (int i = 0; i < kNodes; ++i) {
      std::unique_ptr<uint8_t[]> b(new uint8_t[SizeOf(i)]);
      b[0] = static_cast<uint8_t>(i);
      q.push(std::move(b));
    }
  });
  long sum = 0;
  for (int i = 0; i < kNodes; ++i) sum += q.pop()[0];
  producer.join();
  const double s = std::chrono::duration<double>(Clock::now() - t0).count();
  if (sum < 0) std::puts("");
  return kNodes / s / 1e6;
}

}  // namespace

int main() {
  RunOurs();  // warm-up of both, then the measured runs
  RunPeer();
  const double ours = RunOurs();
  const double peer = RunPeer();
  std::printf("bench packet_queue: %.2f Mnodes/s vs %.2f Mnodes/s = %.2f x\n", ours, peer, ours / peer);
  return 0;
}
