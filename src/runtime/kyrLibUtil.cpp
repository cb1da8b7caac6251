// Counted allocation and the process-wide memory counter, plus the counted list variants (they
// move the same counter). Everything else in the library allocates through these.
#include "runtime/kyrLibUtil.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "runtime/kyrList.h"

namespace kyr {
namespace {

// A leak indicator only, so relaxed ordering is enough; it is atomic rather than a plain int
// because request threads allocate concurrently and a racy counter would trip ThreadSanitizer.
std::atomic<int> g_memCount{0};

void countUp() { g_memCount.fetch_add(1, std::memory_order_relaxed); }
void countDown() { g_memCount.fetch_sub(1, std::memory_order_relaxed); }

}  // namespace

void* kyrMalloc(size_t size, const char* /*file*/, int /*line*/) {
  countUp();
  return calloc(1, size);
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

int kyrGetMemCount() { return g_memCount.load(std::memory_order_relaxed); }

void kyrResetMemCount() { g_memCount.store(0, std::memory_order_relaxed); }

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
