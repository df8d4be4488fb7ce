// A pooled memory block: a 64-byte header at the start of one malloc'd block,
// the payload after it. Nodes carry host packets from the host's threads to
// the demuxers; every holder gives its reference back with release_node().
#ifndef ZEVA_PACKET_ZV_MEM_NODE_H
#define ZEVA_PACKET_ZV_MEM_NODE_H

#include <cstdint>

namespace qel {

class iMemNodePool;

struct ZVMemNode {
  uint8_t* data;       // payload: block + 64 + headroom, aligned up to the pool's alignment
  uint8_t* head;       // data - headroom when a headroom was asked for, else null
  int32_t size;        // payload bytes asked for by the last allocation
  int64_t pts;         // microseconds; 0 on a fresh block, kept on reuse
  int64_t reserved;    // 0 once allocated; links the node while it sits on a free list
  int32_t id;          // the pool's count of blocks obtained from malloc at creation
  int32_t capacity;    // the block's size class, header included
  int32_t refs;        // references; 1 after allocation
  int32_t stamp;       // low 32 bits of the calendar seconds at the last allocation
  iMemNodePool* pool;  // owner, or null
};

// Every byte counter treats the header as 64 bytes, and the payload offset
// assumes it.
static_assert(sizeof(ZVMemNode) == 64, "ZVMemNode header must be 64 bytes");

// What release_node() needs of a node's owner.
class iMemNodePool {
 public:
  virtual ~iMemNodePool() = default;
  // Serialise reference counting of this pool's nodes (recursive).
  virtual void lock() = 0;
  virtual void unlock() = 0;
  // Drops one reference of `node` (taken under lock()); at the last one the
  // block is kept for reuse or freed.
  virtual void recycle(ZVMemNode* node) = 0;
};

// Gives back one reference to `node`: decrements `refs`, and at the last one
// hands the block back to its pool. A count already below 1 is set to 0 and
// nothing else happens. A node without a pool is reported on standard error
// and freed. Null is ignored. Any thread.
void release_node(ZVMemNode* node);

}  // namespace qel

#endif  // ZEVA_PACKET_ZV_MEM_NODE_H
