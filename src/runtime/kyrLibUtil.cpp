// Counted allocation and the process-wide memory counter, plus the counted list variants (they
// move the same counter). Everything else in the library allocates through these.
#include "runtime/kyrLibUtil.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "runtime/kyrList.h"

namespace kyr {
namespace {

std::atomic<unsigned> g_nextSlot{0};
thread_local const unsigned t_slot =
    g_nextSlot.fetch_add(1, std::memory_order_relaxed) % kThreadSlots;

// A leak indicator only, so relaxed ordering is enough. Request threads allocate on every
// request, and one shared counter would move its cache line between the cores each time: each
// thread counts in its own slot, a block freed by another thread than its allocator's leaves
// both slots off by one, and only the sum means anything.
struct alignas(kCacheLineSize) CountSlot {
  std::atomic<int> count{0};
};
CountSlot g_memCount[kThreadSlots];

void countUp() { g_memCount[t_slot].count.fetch_add(1, std::memory_order_relaxed); }
void countDown() { g_memCount[t_slot].count.fetch_sub(1, std::memory_order_relaxed); }

}  // namespace

void* kyrMalloc(size_t size, const char* /*file*/, int /*line*/) {
  countUp();
  return calloc(1, size);
}

void* kyrMallocAligned(size_t size, size_t alignment) {
  size = (size + alignment - 1) / alignment * alignment;
  void* p = aligned_alloc(alignment, size);
  if (p == nullptr) return nullptr;
  countUp();
  return memset(p, 0, size);
}

void kyrFree(void* p, const char* /*file*/, int /*line*/) {
  if (p == nullptr) return;
  countDown();
  free(p);
}

char* kyrStrdup(const char* expr, const char* file, int line) {
  if (expr == nullptr) return nullptr;
  return kyrStrndup(expr, strlen(expr), file, line);
}

char* kyrStrndup(const char* expr, size_t n, const char* file, int line) {
  if (expr == nullptr) return nullptr;
  auto* copy = static_cast<char*>(kyrMalloc(n + 1, file, line));
  if (copy != nullptr) memcpy(copy, expr, strnlen(expr, n));  // zero fill terminates it
  return copy;
}

unsigned kyrThreadSlot() { return t_slot; }

int kyrGetMemCount() {
  int sum = 0;
  for (const CountSlot& slot : g_memCount) sum += slot.count.load(std::memory_order_relaxed);
  return sum;
}

void kyrResetMemCount() {
  for (CountSlot& slot : g_memCount) slot.count.store(0, std::memory_order_relaxed);
}

KyrList* kyrListCreateDbg(KyrDestructorFcn destructor, const char* /*file*/, int /*line*/) {
  KyrList* list = kyrListCreate(destructor);
  if (list != nullptr) countUp();
  return list;
}

void kyrListDestroyDbg(KyrList* list, const char* /*file*/, int /*line*/) {
  if (list != nullptr) countDown();
  kyrListDestroy(list);
}

}  // namespace kyr
