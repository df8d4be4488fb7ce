#include "packet/zv_packet_queue.h"

#include <cstring>

#include "platform/clock.h"

namespace qel {
namespace {

constexpr int32_t kHeaderBytes = sizeof(ZVMemNode);

}  // namespace

ZVPacketQueue::ZVPacketQueue(ZVMemPool* pool)
    : own_pool_(pool == nullptr ? std::make_unique<ZVMemPool>() : nullptr),
      pool_(pool != nullptr ? pool : own_pool_.get()) {
  set_disposer([](ZVMemNode*& node) { release_node(node); });
}

ZVPacketQueue::~ZVPacketQueue() {
  // While still a ZVPacketQueue, so that on_clear releases the pending node
  // before the own pool goes.
  clear_items();
}

ZVMemNode* ZVPacketQueue::alloc_node(uint32_t size) {
  if (aborted()) return nullptr;
  return pool_->alloc(size, 0);
}

int32_t ZVPacketQueue::bytes() {
  std::lock_guard<std::mutex> lock(mutex_);
  return bytes_;
}

void ZVPacketQueue::on_pushed(ZVMemNode*& node) {
  if (node != nullptr) bytes_ += node->size + kHeaderBytes;
}

void ZVPacketQueue::on_popped(ZVMemNode*& node) {
  if (node != nullptr) bytes_ -= node->size + kHeaderBytes;
}

void ZVPacketQueue::on_clear() {
  bytes_ = 0;
  drop_pending();
}

void ZVPacketQueue::drop_pending() {
  release_node(pending_.node);
  pending_ = Pending{};
}

void ZVPacketQueue::keep_partial(const uint8_t* buffer, int32_t copied) {
  if (copied <= 0) return;
  ZVMemNode* node = pool_->alloc(static_cast<uint32_t>(copied), 0);
  if (node == nullptr) return;  // out of memory: these bytes are lost
  std::memcpy(node->data, buffer, static_cast<size_t>(copied));
  pending_ = Pending{copied, 0, node};
}

int32_t ZVPacketQueue::take_pending(uint8_t* buffer, int32_t max) {
  if (pending_.node == nullptr || max < 1) return 0;
  const int32_t n = pending_.remaining < max ? pending_.remaining : max;
  std::memcpy(buffer, pending_.node->data + pending_.offset, static_cast<size_t>(n));
  pending_.offset += n;
  pending_.remaining -= n;
  if (pending_.remaining == 0) drop_pending();
  return n;
}

QueueResult ZVPacketQueue::read(uint8_t* buffer, int32_t want, bool wait_forever,
                                uint32_t timeout_ms) {
  if (want < 1) return Invalid;
  if (pending_.node != nullptr && pending_.remaining >= want) {
    take_pending(buffer, want);
    return Ok;
  }
  int32_t copied = take_pending(buffer, want);
  const int64_t start_ms = zeva::platform::monotonic_ms();
  uint32_t wait_ms = timeout_ms;
  while (copied < want) {
    ZVMemNode* node = nullptr;
    const QueueResult r = pop(node, wait_forever, wait_ms, true);
    if (r == Empty) {
      keep_partial(buffer, copied);
      return Empty;
    }
    if (r != Ok) return r;  // Aborted, Interrupted
    if (node == nullptr) {
      // End of stream: what was copied is handed out by the next reads.
      abort();
      keep_partial(buffer, copied);
      return Empty;
    }
    const int32_t room = want - copied;
    if (node->size <= room) {
      std::memcpy(buffer + copied, node->data, static_cast<size_t>(node->size));
      copied += node->size;
      release_node(node);
    } else {
      std::memcpy(buffer + copied, node->data, static_cast<size_t>(room));
      pending_ = Pending{node->size - room, room, node};
      return Ok;
    }
    if (!wait_forever) {
      const int64_t elapsed = zeva::platform::monotonic_ms() - start_ms;
      wait_ms = elapsed < static_cast<int64_t>(timeout_ms) ? timeout_ms : 0;
    }
  }
  return Ok;
}

}  // namespace qel
