#include "packet/zv_mem_pool.h"

#include <cstdlib>
#include <limits>
#include <new>

#include "platform/clock.h"

namespace qel {
namespace {

constexpr int64_t kHeader = sizeof(ZVMemNode);

int64_t round_up(int64_t n, int64_t multiple) { return (n + multiple - 1) / multiple * multiple; }

// The node linked after `node` on a free list.
ZVMemNode* next_free(const ZVMemNode* node) {
  return reinterpret_cast<ZVMemNode*>(static_cast<intptr_t>(node->reserved));
}

void set_next_free(ZVMemNode* node, ZVMemNode* next) {
  node->reserved = static_cast<int64_t>(reinterpret_cast<intptr_t>(next));
}

// data = block + 64 + headroom, aligned up; head = data - headroom or null.
void place_payload(ZVMemNode* node, int32_t headroom) {
  const uintptr_t block = reinterpret_cast<uintptr_t>(node);
  const uintptr_t payload = (block + kHeader + headroom + ZVMemPool::kAlignment - 1) &
                            ~uintptr_t{ZVMemPool::kAlignment - 1};
  node->data = reinterpret_cast<uint8_t*>(payload);
  node->head = headroom > 0 ? node->data - headroom : nullptr;
}

int32_t now_stamp() {
  return static_cast<int32_t>(static_cast<uint32_t>(zeva::platform::calendar_seconds()));
}

}  // namespace

ZVMemPool::ZVMemPool() : free_lists_(8) { free_lists_.max_load_factor(1.0f); }

ZVMemPool::~ZVMemPool() {
  std::lock_guard<std::mutex> lock(list_mutex_);
  for (auto& entry : free_lists_) {
    while (ZVMemNode* node = take_free(entry.second)) std::free(node);
  }
  free_count_ = 0;
  free_bytes_ = 0;
}

int64_t ZVMemPool::size_class(int64_t total) {
  if (total < 0) return -1;
  int64_t cls;
  if (total <= 512) {
    cls = 512;
  } else if (total <= 2048) {
    cls = 2048;
  } else if (total <= 4096) {
    cls = 4096;
  } else {
    cls = round_up(total, 4096);
  }
  // Room for the header and the alignment of the payload. A large block
  // grows by 64 bytes here, not by another page.
  if (cls - total < static_cast<int64_t>(kAlignment) + kHeader - 1) {
    const int64_t e = cls + kHeader;
    if (e <= 2048) {
      cls = 2048;
    } else if (e <= 4096) {
      cls = 4096;
    } else {
      cls = round_up(e, kAlignment);
    }
  }
  return cls <= std::numeric_limits<int32_t>::max() ? cls : -1;
}

ZVMemNode* ZVMemPool::alloc(uint32_t size, int32_t headroom) {
  const int64_t total = static_cast<int64_t>(size) + headroom;
  int64_t cls = size_class(total);
  if (cls < 0 || headroom < 0) return nullptr;
  // The slack rule leaves the header's 64 bytes; a headroom that is not a
  // multiple of the alignment can need up to 15 more, so such a request
  // moves up in alignment steps.
  const int64_t needed = round_up(kHeader + headroom, kAlignment) + size;
  while (cls < needed) cls += kAlignment;
  if (cls > std::numeric_limits<int32_t>::max()) return nullptr;

  ZVMemNode* node = nullptr;
  {
    std::lock_guard<std::mutex> lock(list_mutex_);
    auto it = free_lists_.find(static_cast<int32_t>(cls));
    if (it != free_lists_.end()) node = take_free(it->second);
    if (node != nullptr) {
      --free_count_;
      free_bytes_ -= node->capacity;
      if (free_bytes_ < 0) free_bytes_ = 0;
    }
  }
  if (node != nullptr) {
    // The payload is placed for this request's headroom: with the same
    // headroom (always 0 in the packet path) that is where it was; with
    // another, the earlier place could run past the block.
    place_payload(node, headroom);
    node->size = static_cast<int32_t>(size);
    node->reserved = 0;
    node->refs = 1;
    node->stamp = now_stamp();
    return node;
  }

  void* block = std::malloc(static_cast<size_t>(cls));
  if (block == nullptr) return nullptr;
  node = new (block) ZVMemNode{};
  int32_t id;
  {
    std::lock_guard<std::mutex> lock(list_mutex_);
    id = ++allocated_;
  }
  place_payload(node, headroom);
  node->size = static_cast<int32_t>(size);
  node->pts = 0;
  node->reserved = 0;
  node->id = id;
  node->capacity = static_cast<int32_t>(cls);
  node->refs = 1;
  node->stamp = now_stamp();
  node->pool = this;
  return node;
}

void ZVMemPool::recycle(ZVMemNode* node) {
  if (node == nullptr || node->refs < 1) return;
  if (--node->refs > 0) return;
  if (release_hook_) release_hook_(node);
  std::lock_guard<std::mutex> lock(list_mutex_);
  if (max_free_ < 0 || free_count_ < max_free_) {
    node->size = 0;
    set_next_free(node, nullptr);
    FreeList& list = free_lists_[node->capacity];
    if (list.last != nullptr) {
      set_next_free(list.last, node);
    } else {
      list.first = node;
    }
    list.last = node;
    free_bytes_ += node->capacity;
    ++free_count_;
    return;
  }
  std::free(node);
  ++freed_;
  trim_free();
}

void ZVMemPool::set_max_free(int32_t max_free) {
  std::lock_guard<std::mutex> lock(list_mutex_);
  max_free_ = max_free;
  trim_free();
}

ZVMemNode* ZVMemPool::take_free(FreeList& list) {
  ZVMemNode* node = list.first;
  if (node == nullptr) return nullptr;
  list.first = next_free(node);
  if (list.first == nullptr) list.last = nullptr;
  set_next_free(node, nullptr);
  return node;
}

void ZVMemPool::trim_free() {
  if (max_free_ < 0) return;
  for (auto& entry : free_lists_) {
    while (free_count_ > max_free_) {
      ZVMemNode* node = take_free(entry.second);
      if (node == nullptr) break;
      --free_count_;
      free_bytes_ -= node->capacity;
      if (free_bytes_ < 0) free_bytes_ = 0;
      std::free(node);
      ++freed_;
    }
  }
}

int32_t ZVMemPool::allocated() {
  std::lock_guard<std::mutex> lock(list_mutex_);
  return allocated_;
}

int32_t ZVMemPool::freed() {
  std::lock_guard<std::mutex> lock(list_mutex_);
  return freed_;
}

int32_t ZVMemPool::free_count() {
  std::lock_guard<std::mutex> lock(list_mutex_);
  return free_count_;
}

int32_t ZVMemPool::free_bytes() {
  std::lock_guard<std::mutex> lock(list_mutex_);
  return free_bytes_;
}

}  // namespace qel
