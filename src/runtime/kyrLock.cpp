// Mutexes, the reader/writer lock (deliberately the same exclusive lock), counters guarded by
// their own lock, and conditions that own their lock.
#include "runtime/kyrLock.h"

#include <atomic>
#include <cassert>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// Only builds that check assertions pay for knowing the holder.
void markOwned([[maybe_unused]] KyrLock* lock) {
#ifndef NDEBUG
  std::atomic_ref<pthread_t>(lock->owner).store(pthread_self(), std::memory_order_relaxed);
  std::atomic_ref<bool>(lock->owned).store(true, std::memory_order_relaxed);
#endif
}

void markFree([[maybe_unused]] KyrLock* lock) {
#ifndef NDEBUG
  std::atomic_ref<bool>(lock->owned).store(false, std::memory_order_relaxed);
#endif
}

// The request path's critical sections last well under a microsecond, far less than a sleep and
// wake-up in the kernel: a thread that finds the lock taken first tries again for a short while,
// so it usually takes the lock as it comes free instead of sleeping. Bounded, so that a holder
// that lost its processor costs the waiter little more than before.
constexpr int kSpinTries = 100;

void spinPause() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

void lockMutex(pthread_mutex_t* mutex) {
  for (int i = 0; i < kSpinTries; ++i) {
    if (pthread_mutex_trylock(mutex) == 0) return;
    spinPause();
  }
  pthread_mutex_lock(mutex);
}

}  // namespace

KyrLock* kyrLockCreate(const char* name) {
  // Request threads take some locks on every request: a lock in a block of its own shares its
  // cache lines with no other allocation, whose writes would take them from the lock's waiters.
  auto* lock = static_cast<KyrLock*>(kyrMallocAligned(sizeof(KyrLock), kCacheLineSize));
  if (lock != nullptr) lockInit(lock, name);
  return lock;
}

// The name is accepted for readability at the call site and deliberately not kept.
void lockInit(KyrLock* lock, const char* /*name*/) {
  lock->name = nullptr;
  lock->heldBy = nullptr;
  pthread_mutex_init(&lock->lock, nullptr);
}

void kyrLockObtain(KyrLock* lock, const char* who) {
  lockMutex(&lock->lock);
  lock->heldBy = who;
  markOwned(lock);
}

void kyrLockRelease(KyrLock* lock) {
  markFree(lock);
  lock->heldBy = nullptr;
  pthread_mutex_unlock(&lock->lock);
}

void kyrLockAssertHeld([[maybe_unused]] const KyrLock* lock) {
  assert(std::atomic_ref<bool>(const_cast<KyrLock*>(lock)->owned).load(std::memory_order_relaxed) &&
         pthread_equal(std::atomic_ref<pthread_t>(const_cast<KyrLock*>(lock)->owner)
                           .load(std::memory_order_relaxed),
                       pthread_self()));
}

void kyrLockDestroy(KyrLock* lock) {
  if (lock == nullptr) return;
  pthread_mutex_destroy(&lock->lock);
  kyrFree(lock);
}

KyrRWLock* kyrRWLockCreate(const char* name) { return kyrLockCreate(name); }
void kyrRWLockObtainRead(KyrRWLock* lock, const char* who) { kyrLockObtain(lock, who); }
void kyrRWLockReleaseRead(KyrRWLock* lock) { kyrLockRelease(lock); }
void kyrRWLockObtainWrite(KyrRWLock* lock, const char* who) { kyrLockObtain(lock, who); }
void kyrRWLockReleaseWrite(KyrRWLock* lock) { kyrLockRelease(lock); }
void kyrRWLockDestroy(KyrRWLock* lock) { kyrLockDestroy(lock); }

KyrAtomicCounter* kyrAtomicCounterCreate(const char* name, int initialValue) {
  auto* counter = static_cast<KyrAtomicCounter*>(kyrMalloc(sizeof(KyrAtomicCounter)));
  if (counter == nullptr) return nullptr;
  counter->count = initialValue;
  lockInit(&counter->lock, name);
  return counter;
}

int kyrAtomicCounterGetValue(KyrAtomicCounter* counter) {
  KyrLockGuard guard(&counter->lock, "kyrAtomicCounterGetValue");
  return counter->count;
}

int kyrAtomicCounterIncrement(KyrAtomicCounter* counter, const char* who) {
  KyrLockGuard guard(&counter->lock, who);
  return ++counter->count;
}

int kyrAtomicCounterDecrement(KyrAtomicCounter* counter, const char* who) {
  KyrLockGuard guard(&counter->lock, who);
  return --counter->count;
}

void kyrAtomicCounterDestroy(KyrAtomicCounter* counter) {
  if (counter == nullptr) return;
  pthread_mutex_destroy(&counter->lock.lock);
  kyrFree(counter);
}

KyrCondition* kyrConditionCreate(const char* name) {
  auto* condition = static_cast<KyrCondition*>(kyrMalloc(sizeof(KyrCondition)));
  if (condition == nullptr) return nullptr;
  condition->lock = kyrLockCreate(name);
  if (condition->lock == nullptr) {
    kyrFree(condition);
    return nullptr;
  }
  pthread_cond_init(&condition->condition, nullptr);
  return condition;
}

void kyrConditionObtainLock(KyrCondition* condition, const char* who) {
  kyrLockObtain(condition->lock, who);
}

void kyrConditionReleaseLock(KyrCondition* condition) { kyrLockRelease(condition->lock); }

// The condition's lock must be held.
void kyrConditionWait(KyrCondition* condition) {
  markFree(condition->lock);
  pthread_cond_wait(&condition->condition, &condition->lock->lock);
  markOwned(condition->lock);
}

void kyrConditionSignal(KyrCondition* condition) { pthread_cond_signal(&condition->condition); }

void kyrConditionDestroy(KyrCondition* condition) {
  if (condition == nullptr) return;
  pthread_cond_destroy(&condition->condition);
  kyrLockDestroy(condition->lock);
  kyrFree(condition);
}

}  // namespace kyr
