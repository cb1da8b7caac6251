// The handle's worker thread. Work queued from request or I/O threads runs here, one item at
// a time in queue order. The worker takes everything queued so far as one batch and runs it
// without the queue lock, so items queued meanwhile wait for the next batch.
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct KyrAsyncWork {
  void* obj;  // belongs to the callback
  AsyncCallbackFcn callback;
};

void kyrAsyncThread(void* arg) {
  Kyr* kyr = static_cast<Kyr*>(arg);
  KyrList* batch = kyrListCreate(kyrAsyncWorkDelete);
  for (;;) {
    kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncThread");
    if (kyrListIsEmpty(kyr->asyncWorkQueue) && !kyr->asyncWorkStopRequested) {
      kyrConditionWait(kyr->asyncWorkCondition);
    }
    if (kyr->asyncWorkStopRequested) break;
    while (!kyrListIsEmpty(kyr->asyncWorkQueue)) {
      kyrListAddTail(batch, kyrListRemoveHead(kyr->asyncWorkQueue));
    }
    kyrConditionReleaseLock(kyr->asyncWorkCondition);
    while (!kyrListIsEmpty(batch)) {
      auto* work = static_cast<KyrAsyncWork*>(kyrListRemoveHead(batch));
      work->callback(kyr, work->obj);
      kyrAsyncWorkDelete(work);
    }
  }
  // Still holding the condition's lock: after the answer below the handle may be freed at any
  // moment, so nothing of it is touched after the release.
  kyrListDestroy(batch);
  kyr->asyncWorkStopped = true;
  kyrConditionSignal(kyr->asyncWorkCondition);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
}

}  // namespace

void kyrAsyncWorkDelete(void* item) { kyrFree(item); }

bool kyrAsyncWorkStart(Kyr* kyr) {
  kyr->asyncWorkCondition = kyrConditionCreate("Kyr.asyncWorkCondition");
  kyr->asyncWorkQueue = kyrListCreate(kyrAsyncWorkDelete);
  kyr->asyncWorkThread = kyrThreadCreate(kyrAsyncThread, kyr, &kyr->env);
  return kyr->asyncWorkThread != nullptr;
}

// Called by kyrDestroy2 with the control lock held. A batch in progress finishes first; items
// still queued are dropped with the queue. The control lock is released while waiting because
// a running item may itself need it.
void kyrAsyncWorkStop(Kyr* kyr) {
  kyrConditionObtainLock(kyr->asyncWorkCondition, "kyrAsyncWorkStop");
  kyr->asyncWorkStopRequested = true;
  kyrConditionSignal(kyr->asyncWorkCondition);
  kyrControlUnlock();
  // Only the worker and this thread ever wait on the condition, and never at the same time
  // once the stop is requested, so a plain signal always reaches the right one.
  while (!kyr->asyncWorkStopped) kyrConditionWait(kyr->asyncWorkCondition);
  kyrConditionReleaseLock(kyr->asyncWorkCondition);
  kyrThreadDestroy(kyr->asyncWorkThread);
  kyr->asyncWorkThread = nullptr;
  kyrControlLock("kyrDestroy2");
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
