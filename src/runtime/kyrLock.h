// Mutexes, the reader/writer lock, guarded counters and conditions, plus RAII guards so no
// path forgets a release. None of these call the host.
#pragma once

#include <pthread.h>

namespace kyr {

struct KyrLock {
  const char* name;    // not filled in by creation
  const char* heldBy;  // the `who` of the last obtainer, cleared on release; guarded by lock
  pthread_mutex_t lock;
  // The holder, so functions that need the lock held can assert it (debug and sanitizer
  // builds). Written by the holder, read atomically by whoever asks.
  pthread_t owner;
  bool owned;
};

// Deliberately the same exclusive lock: read acquisitions exclude each other too.
using KyrRWLock = KyrLock;

struct KyrAtomicCounter {
  int count;  // guarded by lock
  KyrLock lock;
};

struct KyrCondition {
  KyrLock* lock;  // owned; the waiter holds it around kyrConditionWait
  pthread_cond_t condition;
};

KyrLock* kyrLockCreate(const char* name);
void lockInit(KyrLock* lock, const char* name);  // for a KyrLock held inside another structure
void kyrLockObtain(KyrLock* lock, const char* who);
void kyrLockRelease(KyrLock* lock);
void kyrLockDestroy(KyrLock* lock);
// Asserts that the calling thread holds the lock; nothing in builds without assertions.
void kyrLockAssertHeld(const KyrLock* lock);

KyrRWLock* kyrRWLockCreate(const char* name);
void kyrRWLockObtainRead(KyrRWLock* lock, const char* who);
void kyrRWLockReleaseRead(KyrRWLock* lock);
void kyrRWLockObtainWrite(KyrRWLock* lock, const char* who);
void kyrRWLockReleaseWrite(KyrRWLock* lock);
void kyrRWLockDestroy(KyrRWLock* lock);

KyrAtomicCounter* kyrAtomicCounterCreate(const char* name, int initialValue);
int kyrAtomicCounterGetValue(KyrAtomicCounter* counter);
int kyrAtomicCounterIncrement(KyrAtomicCounter* counter, const char* who);
int kyrAtomicCounterDecrement(KyrAtomicCounter* counter, const char* who);
void kyrAtomicCounterDestroy(KyrAtomicCounter* counter);

KyrCondition* kyrConditionCreate(const char* name);
void kyrConditionObtainLock(KyrCondition* condition, const char* who);
void kyrConditionReleaseLock(KyrCondition* condition);
void kyrConditionWait(KyrCondition* condition);
void kyrConditionSignal(KyrCondition* condition);
void kyrConditionDestroy(KyrCondition* condition);

// Holds a KyrLock for the lifetime of the guard.
class KyrLockGuard {
 public:
  KyrLockGuard(KyrLock* lock, const char* who) : lock_(lock) { kyrLockObtain(lock_, who); }
  ~KyrLockGuard() { kyrLockRelease(lock_); }
  KyrLockGuard(const KyrLockGuard&) = delete;
  KyrLockGuard& operator=(const KyrLockGuard&) = delete;

 private:
  KyrLock* lock_;
};

}  // namespace kyr
