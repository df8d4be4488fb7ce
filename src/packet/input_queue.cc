#include "packet/input_queue.h"

#include <cinttypes>
#include <cstring>
#include <limits>

extern "C" {
#include <libavutil/error.h>
}

#include "log/logger.h"
#include "platform/clock.h"

namespace zeva {
namespace {

constexpr int32_t kPacketCapacity = 2000;
constexpr uint32_t kPushTimeoutMs = 50;
constexpr int32_t kUnbounded = std::numeric_limits<int32_t>::max();
constexpr uint32_t kReadPollMs = 10;
constexpr int64_t kProbeNoDataMs = 3000;

}  // namespace

InputQueue::InputQueue() = default;

InputQueue::~InputQueue() {
  for (int i = 0; i < sorted_; ++i) qel::release_node(sort_queue_[i].node);
  sorted_ = 0;
  clear_items();
}

bool InputQueue::sorted_contains(int64_t key) const {
  for (int i = 0; i < sorted_; ++i) {
    if (sort_queue_[i].key == key) return true;
  }
  return false;
}

void InputQueue::sorted_insert(int64_t key, qel::ZVMemNode* node) {
  int i = sorted_;
  while (i > 0 && sort_queue_[i - 1].key > key) {
    sort_queue_[i] = sort_queue_[i - 1];
    --i;
  }
  sort_queue_[i] = Sorted{key, node};
  ++sorted_;
}

bool InputQueue::push_data(const uint8_t* data, int32_t nbytes, int64_t usec) {
  int keep = 0;
  if (data != nullptr && nbytes >= 1) {
    qel::ZVMemNode* node = alloc_node(static_cast<uint32_t>(nbytes));
    if (node == nullptr) {
      ZEVA_LOG(kLogError, "malloc pnode==null, aborted");
      return false;
    }
    int64_t key = usec;
    while (sorted_contains(key)) ++key;
    std::memcpy(node->data, data, static_cast<size_t>(nbytes));
    node->pts = key;
    sorted_insert(key, node);
    keep = kSortDepth;
  }
  while (sorted_ > keep) {
    const Sorted oldest = sort_queue_[0];
    for (int i = 1; i < sorted_; ++i) sort_queue_[i - 1] = sort_queue_[i];
    --sorted_;
    if (push(oldest.node, kPacketCapacity, false, kPushTimeoutMs) != qel::Ok) {
      ZEVA_LOG(kLogError,
               "[%s] pb.queue(sz=%d) is full; ---> sort.queue.(sz=%d);  drop front-node.(nbytes=%d, "
               "usec=%lld)",
               name.c_str(), size(), sorted_ + 1, oldest.node->size,
               static_cast<long long>(oldest.node->pts));
      qel::release_node(oldest.node);
      continue;
    }
    pts_queue.push(oldest.key, kUnbounded, false, 0);
    ZEVA_LOG(kLogDebug, "push_data() : %s, pts=%lld  (pkt_q.size=%d, pts_q.size=%d)", name.c_str(),
             static_cast<long long>(oldest.key), size(), pts_queue.size());
  }
  return true;
}

int InputQueue::read_packet(void* opaque, uint8_t* buffer, int size) {
  auto* q = static_cast<InputQueue*>(opaque);
  if (q->gave_up_ && !q->probed.load()) return AVERROR_STREAM_NOT_FOUND;
  const int64_t start_ms = platform::monotonic_ms();
  for (;;) {
    if (q->aborted()) {
      ZEVA_LOG(kLogError, "read-buffer,EOF: ===> '%s'", q->name.c_str());
      return AVERROR_EOF;
    }
    const qel::QueueResult r = q->read(buffer, size, false, kReadPollMs);
    if (r == qel::Ok) return size;
    if (r == qel::Empty) {
      const int32_t n = q->take_pending(buffer, size);
      if (n > 0) return n;
    }
    if (!q->probed.load()) {
      const int64_t elapsed = platform::monotonic_ms() - start_ms;
      if (elapsed >= kProbeNoDataMs) {
        ZEVA_LOG(kLogError, "warning: ===> '%s' has no input data, wait timeout (time=%lldmsec)",
                 q->name.c_str(), static_cast<long long>(elapsed));
        q->gave_up_ = true;
        return AVERROR_STREAM_NOT_FOUND;
      }
    }
  }
}

}  // namespace zeva

