// A blocking queue of pooled memory nodes that its one consumer can also read
// as a byte stream: the bytes an FFmpeg demuxer pulls through custom I/O.
#ifndef ZEVA_PACKET_ZV_PACKET_QUEUE_H
#define ZEVA_PACKET_ZV_PACKET_QUEUE_H

#include <cstdint>
#include <memory>

#include "packet/blocking_queue.h"
#include "packet/zv_mem_node.h"
#include "packet/zv_mem_pool.h"

namespace qel {

class ZVPacketQueue : public BlockingQueue<ZVMemNode*> {
 public:
  // Allocates from `pool` (which must outlive the queue) or, when null, from
  // a pool of the queue's own.
  explicit ZVPacketQueue(ZVMemPool* pool = nullptr);
  // Releases every queued node and the partly read one, then the own pool.
  ~ZVPacketQueue() override;

  // A node of `size` payload bytes from the pool, refs 1; null when the
  // queue is aborted or the pool has no memory. Any thread.
  ZVMemNode* alloc_node(uint32_t size);

  // Copies exactly `want` bytes of the queued payloads into `buffer`, taking
  // nodes off the queue; a node that does not fit whole stays pending and
  // the next read starts with its rest. Without `wait_forever`, each pop
  // waits at most `timeout_ms`; later pops wait again only while less than
  // `timeout_ms` has passed since the start. Results: Ok with `want` bytes;
  // Empty when nothing came in time (bytes already copied are kept pending,
  // none is lost), or at a null node, the end of stream, which aborts the
  // queue; Aborted; Invalid when `want` < 1. One reading thread.
  QueueResult read(uint8_t* buffer, int32_t want, bool wait_forever, uint32_t timeout_ms);

  // Moves up to `max` bytes of the pending rest into `buffer` and returns
  // their count (0 when nothing is pending); a rest taken whole is released.
  // The reading thread.
  int32_t take_pending(uint8_t* buffer, int32_t max);

  // Bytes of the queued nodes, 64 per header included. Any thread.
  int32_t bytes();

  ZVMemPool* pool() const { return pool_; }

 protected:
  void on_pushed(ZVMemNode*& node) override;
  void on_popped(ZVMemNode*& node) override;
  void on_clear() override;

 private:
  // The unread rest of a node a read took only in part.
  struct Pending {
    int32_t remaining = 0;
    int32_t offset = 0;
    ZVMemNode* node = nullptr;
  };

  // Makes the `copied` bytes at `buffer` the pending rest.
  void keep_partial(const uint8_t* buffer, int32_t copied);
  void drop_pending();

  std::unique_ptr<ZVMemPool> own_pool_;
  ZVMemPool* pool_;
  int32_t bytes_ = 0;  // under mutex_
  Pending pending_;
};

}  // namespace qel

#endif  // ZEVA_PACKET_ZV_PACKET_QUEUE_H
