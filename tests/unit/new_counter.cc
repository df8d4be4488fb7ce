// The replaced global allocation functions. All plain forms are replaced
// together (the aligned ones stay the runtime's and pair among themselves),
// so AddressSanitizer's new/delete pairing checks stay consistent. Kept in a
// file of their own so the compiler never sees both ends of a pair inline.
#include "new_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> g_news{0};
}  // namespace

namespace zeva::test {
long NewCount() { return g_news.load(); }
}  // namespace zeva::test

void* operator new(size_t n) {
  g_news.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n != 0 ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) { return operator new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  g_news.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(n != 0 ? n : 1);
}
void* operator new[](size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
