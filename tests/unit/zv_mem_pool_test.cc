#include "packet/zv_mem_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using qel::ZVMemNode;
using qel::ZVMemPool;

// Size classes with the slack rule: a class keeps room for the 64-byte
// header and the payload's alignment, so a near-full one moves up. Each
// request reuses the block the one before it of its class released.
TEST(ZVMemPoolTest, SizeClassesLeaveRoomForHeaderAndAlignment) {
  const struct {
    uint32_t size;
    int32_t headroom, capacity;
  } cases[] = {{400, 0, 512},  {1969, 0, 2048}, {1970, 0, 4096}, {4033, 0, 4160}, {8190, 0, 8256},
               {100, 20, 512}, {8185, 5, 8272}, {433, 0, 512}};
  ZVMemPool pool;
  for (const auto& c : cases) {
    ZVMemNode* n = pool.alloc(c.size, c.headroom);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->capacity, c.capacity) << c.size << "+" << c.headroom;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(n->data) % ZVMemPool::kAlignment, 0u);
    EXPECT_GE(n->data, reinterpret_cast<uint8_t*>(n) + 64 + c.headroom);
    std::memset(n->data, 0xab, c.size);  // ASan checks the block really holds it
    qel::release_node(n);
  }
  EXPECT_EQ(pool.alloc(UINT32_MAX, 0), nullptr);
}

// A node with two references is freed by the second release only and never
// twice, is reused within its class, and the pool keeps at most the nodes
// it was told to.
TEST(ZVMemPoolTest, ReuseReferencesAndKeptNodeLimit) {
  ZVMemPool pool;
  ZVMemNode* a = pool.alloc(1000, 0);
  a->refs = 2;
  qel::release_node(a);
  EXPECT_EQ(pool.free_count(), 0);
  qel::release_node(a);
  qel::release_node(a);  // already free: not kept twice
  EXPECT_EQ(pool.free_count(), 1);
  EXPECT_EQ(pool.alloc(1500, 0), a);
  qel::release_node(a);
  std::vector<ZVMemNode*> nodes;
  for (int i = 0; i < 4; ++i) nodes.push_back(pool.alloc(3000, 0));
  pool.set_max_free(2);
  for (ZVMemNode* m : nodes) qel::release_node(m);
  EXPECT_EQ(pool.free_count(), 2);
}

}  // namespace
