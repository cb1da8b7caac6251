// Counted allocation: every block from these functions moves one process-wide counter, which
// tests and operators read as a leak indicator. The file/line arguments are filled in by
// default from the call site and are accepted for debugging builds, not used.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace kyr {

// Zero-filled block; adds 1 to the counter. No null check before the fill (callers of the
// runtime treat allocation failure as fatal everywhere except where they test for null).
void* kyrMalloc(size_t size, const char* file = __builtin_FILE(), int line = __builtin_LINE());
void kyrFree(void* p, const char* file = __builtin_FILE(), int line = __builtin_LINE());
// The unit in which cores share memory. What request threads write on every request is kept
// this far from what other threads read or write: otherwise each write takes the line from the
// other core, and the other thread waits for it back.
inline constexpr size_t kCacheLineSize = 64;
// Zero-filled block at a multiple of `alignment` (a power of two), its size rounded up to that
// multiple so that the block's last line is its own too; counted, and freed with kyrFree.
void* kyrMallocAligned(size_t size, size_t alignment);
char* kyrStrdup(const char* expr, const char* file = __builtin_FILE(), int line = __builtin_LINE());
// Copy of the first n characters; always terminated.
char* kyrStrndup(const char* expr, size_t n, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE());

int kyrGetMemCount();
void kyrResetMemCount();

// Per-thread slots for state that request threads would otherwise all write: each thread has a
// fixed slot below kThreadSlots (threads beyond that share slots), so two threads on two cores
// usually write different cache lines.
inline constexpr unsigned kThreadSlots = 16;
unsigned kyrThreadSlot();

// Counted construction of C++ objects: placement-new into kyrMalloc'd memory, so objects with
// constructors are tracked by the same counter as plain blocks. A type declared with a larger
// alignment than malloc's gets it.
template <class T, class... Args>
T* kyrNew(Args&&... args) {
  void* mem = alignof(T) > alignof(std::max_align_t) ? kyrMallocAligned(sizeof(T), alignof(T))
                                                     : kyrMalloc(sizeof(T));
  return mem ? new (mem) T(std::forward<Args>(args)...) : nullptr;
}

template <class T>
void kyrDelete(T* obj) {
  if (obj == nullptr) return;
  obj->~T();
  kyrFree(obj);
}

}  // namespace kyr
