// Reusable memory blocks in size classes. Steady streaming takes every block
// from a free list and gives it back there, so after warm-up it allocates
// nothing; blocks go back to the heap only when the pool is destroyed.
#ifndef ZEVA_PACKET_ZV_MEM_POOL_H
#define ZEVA_PACKET_ZV_MEM_POOL_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>

#include "packet/zv_mem_node.h"

namespace qel {

class ZVMemPool final : public iMemNodePool {
 public:
  // Called by recycle() with each node whose last reference went, before the
  // node is kept or freed. Must not call back into the pool.
  using ReleaseHook = std::function<void(ZVMemNode*)>;

  static constexpr uint32_t kAlignment = 16;

  ZVMemPool();
  // Frees every kept block. Nodes still held elsewhere must have been
  // released before: their blocks would be lost, their pool dangling.
  ~ZVMemPool() override;
  ZVMemPool(const ZVMemPool&) = delete;
  ZVMemPool& operator=(const ZVMemPool&) = delete;

  // A node with `size` payload bytes after `headroom` spare bytes, refs 1:
  // the first free node of the size class, else a new block from malloc.
  // A reused node keeps its earlier pts. Null when size +
  // headroom is negative or too large for a 32-bit class, or malloc fails.
  // Any thread.
  ZVMemNode* alloc(uint32_t size, int32_t headroom);

  // The recursive reference-count lock; taken before the free-list lock.
  void lock() override { node_mutex_.lock(); }
  void unlock() override { node_mutex_.unlock(); }

  // Drops one reference; at the last, runs the release hook and keeps the
  // block on its class's free list (or frees it beyond max_free). Null and
  // nodes with refs < 1 are ignored. Callers go through release_node().
  void recycle(ZVMemNode* node) override;

  // Set before use.
  void set_release_hook(ReleaseHook hook) { release_hook_ = std::move(hook); }
  // Free nodes kept at most; -1 (the default) keeps all. Any thread.
  void set_max_free(int32_t max_free);

  // The block size (header included) for a payload of `total` bytes
  // (size + headroom), after the slack rule; -1 when it cannot be had.
  static int64_t size_class(int64_t total);

  // Counters, each read under the free-list lock. Any thread.
  int32_t allocated();   // blocks obtained from malloc, ever
  int32_t freed();       // blocks given back to the heap before destruction
  int32_t free_count();  // nodes on the free lists
  int32_t free_bytes();  // their capacities

 private:
  // Nodes of one class, first in first out, linked through `reserved`.
  struct FreeList {
    ZVMemNode* first = nullptr;
    ZVMemNode* last = nullptr;
  };

  ZVMemNode* take_free(FreeList& list);
  void trim_free();  // frees kept nodes while free_count_ > max_free_

  std::mutex list_mutex_;
  std::recursive_mutex node_mutex_;
  std::unordered_map<int32_t, FreeList> free_lists_;
  ReleaseHook release_hook_;
  int32_t max_free_ = -1;
  int32_t freed_ = 0;
  int32_t allocated_ = 0;
  int32_t free_count_ = 0;
  int32_t free_bytes_ = 0;
};

}  // namespace qel

#endif  // ZEVA_PACKET_ZV_MEM_POOL_H
