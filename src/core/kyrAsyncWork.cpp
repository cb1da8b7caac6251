// The handle's worker thread. Work queued from request or I/O threads runs here, one item at
// a time in queue order. The worker takes everything queued so far as one batch and runs it
// without the queue lock, so items queued meanwhile wait for the next batch. The worker ends
// only when the handle is destroyed, and only after everything queued by then has run: the
// items' objects belong to their callbacks, so dropping an item would leak its object.
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct KyrAsyncWork {
  void* obj;  // belongs to the callback
  AsyncCallbackFcn callback;
};

// The handle whose worker runs on this thread; lets destroy and the last release notice that
// they were called from a work item and must not wait for the worker (which is themselves).
thread_local Kyr* workerOf = nullptr;

// Moves everything queued to the batch. Returns false, with the queue empty, once the worker
// is to end. The condition's lock must be held.
bool takeBatch(Kyr* kyr, KyrList* batch) {
  if (kyrListIsEmpty(kyr->asyncWorkQueue) && !kyr->asyncWorkStopRequested) {
    kyrConditionWait(kyr->asyncWorkCondition);
  }
  if (kyrListIsEmpty(kyr->asyncWorkQueue)) return !kyr->asyncWorkStopRequested;
  while (!kyrListIsEmpty(kyr->asyncWorkQueue)) {
    kyrListAddTail(batch, kyrListRemoveHead(kyr->asyncWorkQueue));
  }
  return true;
}

void kyrAsyncThread(void* arg) {
  Kyr* kyr = static_cast<Kyr*>(arg);
  workerOf = kyr;
  KyrList* batch = kyrListCreate(kyrAsyncWorkDelete);
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncThread");
  kyr->asyncWorkStarted = true;
  kyrConditionSignal(kyr->asyncWorkCondition);  // the creator is the only one waiting yet
  while (takeBatch(kyr, batch)) {
    kyrConditionReleaseLock(kyr->asyncWorkCondition);
    while (!kyrListIsEmpty(batch)) {
      auto* work = static_cast<KyrAsyncWork*>(kyrListRemoveHead(batch));
      work->callback(kyr, work->obj);
      kyrAsyncWorkDelete(work);
    }
    kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncThread");
  }
  kyrListDestroy(batch);
  workerOf = nullptr;
  if (kyr->asyncWorkFreesHandle) {
    // A work item dropped the last reference; nobody else can reach the handle any more.
    kyrConditionReleaseLock(kyr->asyncWorkCondition);
    kyrHandleFree(kyr);
    return;
  }
  // Still holding the condition's lock: after the answer below the handle may be freed at any
  // moment, so nothing of it is touched after the release.
  kyr->asyncWorkStopped = true;
  kyrConditionSignal(kyr->asyncWorkCondition);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
}

// Waits until the worker has answered the stop request. The condition's lock must be held.
// Once the stop is requested the worker never waits on the condition again, so the only waiter
// left is this thread and a plain signal reaches it.
void awaitWorkerEnd(Kyr* kyr) {
  while (!kyr->asyncWorkStopped) kyrConditionWait(kyr->asyncWorkCondition);
}

}  // namespace

void kyrAsyncWorkDelete(void* item) { kyrFree(item); }

bool kyrAsyncWorkStart(Kyr* kyr) {
  kyr->asyncWorkCondition = kyrConditionCreate("Kyr.asyncWorkCondition");
  kyr->asyncWorkQueue = kyrListCreate(kyrAsyncWorkDelete);
  kyr->asyncWorkThread = kyrThreadCreate(kyrAsyncThread, kyr, &kyr->env);
  if (kyr->asyncWorkThread == nullptr) return false;
  // The new thread frees its start-up record as it begins. Waiting for it keeps that free
  // inside kyrCreate, so the memory counter never moves behind the host's back.
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncWorkStart");
  while (!kyr->asyncWorkStarted) kyrConditionWait(kyr->asyncWorkCondition);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
  return true;
}

void kyrAsyncWorkStop(Kyr* kyr) {
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncWorkStop");
  kyr->asyncWorkStopRequested = true;
  kyrConditionSignal(kyr->asyncWorkCondition);
  if (workerOf == kyr) {
    // Destroyed from a work item: the worker ends after this batch and whatever is queued.
    kyrConditionReleaseLock(kyr->asyncWorkCondition);
    return;
  }
  // A queued item may itself need the control lock.
  kyrControlUnlock();
  awaitWorkerEnd(kyr);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
  kyrThreadDestroy(kyr->asyncWorkThread);
  kyr->asyncWorkThread = nullptr;
  kyrControlLock("kyrDestroy2");
}

bool kyrAsyncWorkReadyForFree(Kyr* kyr) {
  if (kyr->asyncWorkThread == nullptr) return true;  // never started, or already waited for
  if (workerOf == kyr) {
    kyr->asyncWorkFreesHandle = true;
    return false;
  }
  // The handle was destroyed from a work item and the worker is still finishing its queue (or,
  // against the rules, the references ran out without a destroy: end the worker all the same).
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncWorkReadyForFree");
  kyr->asyncWorkStopRequested = true;
  kyrConditionSignal(kyr->asyncWorkCondition);
  awaitWorkerEnd(kyr);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
  kyrThreadDestroy(kyr->asyncWorkThread);
  kyr->asyncWorkThread = nullptr;
  return true;
}

void kyrProcessAsync(Kyr* kyr, void* obj, AsyncCallbackFcn handler) {
  auto* work = static_cast<KyrAsyncWork*>(kyrMalloc(sizeof(KyrAsyncWork)));
  *work = KyrAsyncWork{obj, handler};
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrProcessAsync");
  kyrListAddTail(kyr->asyncWorkQueue, work);
  kyrConditionSignal(kyr->asyncWorkCondition);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
}

}  // namespace kyr
