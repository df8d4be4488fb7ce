#include "packet/zv_mem_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using qel::ZVMemNode;
using qel::ZVMemPool;

struct ClassCase {
  uint32_t size;
  int32_t headroom;
  int32_t capacity;
};

// Size classes with the slack rule: a class keeps room for the 64-byte
// header and the payload's alignment, so a near-full one moves up.
TEST(ZVMemPoolTest, SizeClassesLeaveRoomForHeaderAndAlignment) {
  const ClassCase cases[] = {
      {400, 0, 512},     {500, 0, 2048},  {1969, 0, 2048}, {1970, 0, 4096},
      {4033, 0, 4160},   {5000, 0, 8192}, {8190, 0, 8256}, {0, 0, 512},
      {100, 20, 512},    // headroom counts into the class
      {8185, 5, 8272},   // an unaligned headroom needs up to 15 bytes more
      {433, 0, 512},     // reuses the block of 100+20: the payload moves back
  };
  ZVMemPool pool;
  for (const ClassCase& c : cases) {
    // Each request also reuses the block the previous one of its class
    // released, with its own headroom.
    ZVMemNode* n = pool.alloc(c.size, c.headroom);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->capacity, c.capacity) << c.size << "+" << c.headroom;
    const auto* block = reinterpret_cast<uint8_t*>(n);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(n->data) % ZVMemPool::kAlignment, 0u);
    EXPECT_GE(n->data, block + 64 + c.headroom);
    EXPECT_LE(n->data + c.size, block + n->capacity);
    EXPECT_EQ(n->head, c.headroom > 0 ? n->data - c.headroom : nullptr);
    std::memset(n->data, 0xab, c.size);  // ASan checks the block really holds it
    EXPECT_EQ(n->size, static_cast<int32_t>(c.size));
    EXPECT_EQ(n->refs, 1);
    EXPECT_EQ(n->pool, &pool);
    qel::release_node(n);
  }
  EXPECT_EQ(pool.alloc(10, -20), nullptr);
  EXPECT_EQ(pool.alloc(UINT32_MAX, 0), nullptr);
}

// A released node is reused within its class (its pts kept), a node with
// two references is freed by the second release only and never twice, and
// the pool keeps at most the nodes it was told to.
TEST(ZVMemPoolTest, ReuseReferencesAndKeptNodeLimit) {
  ZVMemPool pool;
  ZVMemNode* a = pool.alloc(1000, 0);
  a->pts = 42;
  a->refs = 2;
  qel::release_node(a);
  EXPECT_EQ(pool.free_count(), 0);
  qel::release_node(a);
  qel::release_node(a);  // already free: not kept twice
  EXPECT_EQ(a->refs, 0);
  EXPECT_EQ(pool.free_count(), 1);
  EXPECT_EQ(pool.free_bytes(), 2048);
  ZVMemNode* other = pool.alloc(100, 0);  // another class: a new block
  ZVMemNode* b = pool.alloc(1500, 0);
  EXPECT_EQ(b, a);
  EXPECT_EQ(b->pts, 42);
  EXPECT_EQ(b->size, 1500);
  EXPECT_EQ(b->refs, 1);
  EXPECT_EQ(pool.allocated(), 2);
  EXPECT_EQ(pool.free_bytes(), 0);
  qel::release_node(b);
  qel::release_node(other);

  std::vector<ZVMemNode*> nodes;
  for (int i = 0; i < 4; ++i) nodes.push_back(pool.alloc(3000, 0));
  pool.set_max_free(2);
  for (ZVMemNode* m : nodes) qel::release_node(m);
  EXPECT_EQ(pool.free_count(), 2);
  EXPECT_EQ(pool.freed(), 4);
  EXPECT_EQ(pool.allocated(), 6);
}

}  // namespace
