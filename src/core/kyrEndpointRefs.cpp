// Host objects for target endpoints. The host creates one object per endpoint name, however
// many routing versions hold an endpoint of that name; the handle counts the holders and hands
// the object back to the host when the last one lets go. Versions are built and torn down under
// their own selectors' locks, so the map has a lock of its own (endPointRefLock). The host's
// create and delete run under it too: a host sees at most one object per name at any time,
// and never a create of a name overtaking the delete of its predecessor.
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

struct EndPointRef {
  int refcnt;  // one per endpoint object holding the host object
  char* key;   // the endpoint name; the map borrows it as its key
  EnvCallBacks* cb;
  EnvTargetEndpoint* endPoint;
};

}  // namespace

EnvTargetEndpoint* endPointRefObtain(Kyr* kyr, const char* name, KyrTargetEndpoint* endpoint) {
  KyrLockGuard guard(kyr->endPointRefLock, "envTargetEndPointObtainRef");
  auto* ref = static_cast<EndPointRef*>(kyrHashGet(kyr->endPointRefMap, name));
  if (ref == nullptr) {
    if (kyr->env.targetEndpoint.create == nullptr) return nullptr;
    EnvTargetEndpoint* hostObject = kyr->env.targetEndpoint.create(endpoint);
    if (hostObject == nullptr) return nullptr;
    ref = kyrNew<EndPointRef>();
    *ref = EndPointRef{0, kyrStrdup(name), &kyr->env, hostObject};
    kyrHashPut(kyr->endPointRefMap, ref->key, ref);
  }
  ++ref->refcnt;
  trDebug(kyr->trCtx, kyr->processRec, "envTargetEndPointObtainRef ref=%p, cnt=%d, name='%s'\n",
          static_cast<void*>(ref), ref->refcnt, name);
  return ref->endPoint;
}

void endPointRefRelease(Kyr* kyr, const char* name) {
  KyrLockGuard guard(kyr->endPointRefLock, "envTargetEndPointReleaseRef");
  auto* ref = static_cast<EndPointRef*>(kyrHashGet(kyr->endPointRefMap, name));
  if (ref == nullptr) return;
  --ref->refcnt;
  trDebug(kyr->trCtx, kyr->processRec, "envTargetEndPointReleaseRef ref=%p, cnt=%d, name='%s'\n",
          static_cast<void*>(ref), ref->refcnt, name);
  if (ref->refcnt == 0) {
    kyrHashPut(kyr->endPointRefMap, name, nullptr);
    endPointRefDelete(ref);
  }
}

void endPointRefDelete(void* p) {
  auto* ref = static_cast<EndPointRef*>(p);
  if (ref->cb->targetEndpoint.KYR_DELETE_MEMBER != nullptr) {
    ref->cb->targetEndpoint.KYR_DELETE_MEMBER(ref->endPoint);
  }
  kyrFree(ref->key);
  kyrDelete(ref);
}

}  // namespace kyr
