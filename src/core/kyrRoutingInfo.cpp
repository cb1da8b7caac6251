// Routing-information versions: creation, population from every connector's stored complete
// document, the switch to a new version, and the reference counts that keep a version alive
// while any request still routes with it.
#include "core/kyrRoutingInfo.h"

#include <cstring>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrObjectHandlers.h"
#include "core/kyrProcessMessages.h"
#include "core/kyrRoutingData.h"
#include "core/kyrRuleRows.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

struct RetiredBlock {
  void* object;
  RetiredFreeFcn freeFn;
};

void retiredBlockFree(void* p) {
  auto* block = static_cast<RetiredBlock*>(p);
  block->freeFn(block->object);
  kyrDelete(block);
}

void routingInfoDelete(KyrRoutingInfo* ri) {
  Kyr* kyr = ri->kyr;
  // Retired memory first: it is self-contained, while the owners below free what it could
  // still name.
  kyrListDestroy(ri->retired);
  ri->retired = nullptr;  // what the owners below give up now is freed at once
  // Objects are freed by their owners (selector, mapper); the map frees only its wrappers and
  // the objects no owner frees.
  kyrHashMapSetDestructor(ri->objectMap, objectWrapperFree);
  kyrHashMapDestroy(ri->objectMap);
  kyrListDestroy(ri->traceRuleSets);
  kyrListDestroy(ri->ruleParents);
  rmDelete(ri->requestMapper);
  tsDelete(ri->targetSelector);
  if (ri->cell != nullptr) cellDelete(ri->cell);
  kyrDelete(ri);
  kyrReleaseRef(kyr, "kyrRoutingInfoDelete");
}

}  // namespace

KyrRoutingInfo* kyrRoutingInfoCreate(Kyr* kyr) {
  auto* ri = kyrNew<KyrRoutingInfo>();
  ri->kyr = kyr;
  ri->objectMap = kyrHashMapCreate2(objectWrapperDelete);
  ri->ruleParents = kyrListCreate(ruleParentFree);
  ri->traceRuleSets = kyrListCreate(nullptr);  // the sets go with their wrappers
  ri->retired = kyrListCreate(retiredBlockFree);
  ri->requestMapper = rmCreate(ri);
  ri->targetSelector = tsCreate(ri);
  ri->refCount = 1;  // the handle's hold
  kyrObtainRef(kyr, "kyrRoutingInfoCreate");
  return ri;
}

void kyrRoutingInfoPopulate(KyrRoutingInfo* ri) {
  Kyr* kyr = ri->kyr;
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* cg = static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e));
    trDebug(kyr->trCtx, kyr->processRec, "kyrRoutingInfoPopulate connector group %s\n", cg->name);
    KyrConnector* c = cg->curConnector;
    if (c != nullptr && c->json != nullptr) jsonHandleStoredDocument(ri, c);
  }
}

KyrRoutingInfo* kyrCreateAndPopulateNewRoutingInfo(Kyr* kyr) {
  KyrRoutingInfo* ri = kyrRoutingInfoCreate(kyr);
  kyrRoutingInfoPopulate(ri);
  return ri;
}

void kyrSwitchToNewRoutingInfo(Kyr* kyr, KyrRoutingInfo* ri) {
  KyrRoutingInfo* old;
  {
    KyrLockGuard guard(kyr->routingInfoLock, "kyrSwitchToNewRoutingInfo");
    old = kyr->routingInfo;
    kyr->routingInfo = ri;
  }
  // The clients rebuild from what the server now holds. Sent after the version lock (a leaf)
  // is let go; the control lock, held by every caller, keeps the sends in order.
  if (kyrIsServerProcess(kyr)) sendAllRoutingInfoToClient(kyr, -1);
  kyrRoutingInfoRelease(old);
}

void kyrResetRoutingInfo(Kyr* kyr) {
  kyrSwitchToNewRoutingInfo(kyr, kyrCreateAndPopulateNewRoutingInfo(kyr));
}

KyrRoutingInfo* kyrRoutingInfoObtain(Kyr* kyr) {
  KyrLockGuard guard(kyr->routingInfoLock, "kyrRoutingInfoObtain");
  KyrRoutingInfo* ri = kyr->routingInfo;
  if (ri == nullptr) return nullptr;
  ++ri->refCount;
  trDebug(kyr->trCtx, kyr->processRec, "kyrRoutingInfoObtain: exit - refCount=%d, ri=%p\n",
          ri->refCount, static_cast<void*>(ri));
  return ri;
}

void kyrRoutingInfoRelease(KyrRoutingInfo* ri) {
  if (ri == nullptr) return;
  int count;
  {
    KyrLockGuard guard(ri->kyr->routingInfoLock, "kyrRoutingInfoRelease");
    count = --ri->refCount;
  }
  if (count == 0) routingInfoDelete(ri);
}

RequestMapper* kyrRoutingInfoGetRequestMapper(KyrRoutingInfo* ri) { return ri->requestMapper; }
TargetSelector* kyrRoutingInfoGetTargetSelector(KyrRoutingInfo* ri) { return ri->targetSelector; }
Kyr* kyrRoutingInfoGetKyr(KyrRoutingInfo* ri) { return ri->kyr; }

void kyrRoutingInfoRetire(KyrRoutingInfo* ri, void* object, RetiredFreeFcn freeFn, size_t bytes) {
  if (object == nullptr) return;
  if (ri == nullptr || ri->retired == nullptr) {
    freeFn(object);
    return;
  }
  auto* block = kyrNew<RetiredBlock>();
  *block = RetiredBlock{object, freeFn};
  kyrListAddTail(ri->retired, block);
  ri->retiredBytes += bytes;
}

void kyrRoutingInfoReplaceText(KyrRoutingInfo* ri, char** slot, const char* value) {
  char* old = kyrPublishExchange(*slot, value != nullptr ? kyrStrdup(value) : nullptr);
  if (old != nullptr) {
    kyrRoutingInfoRetire(
        ri, old, [](void* text) { kyrFree(text); }, strlen(old) + 1);
  }
}

bool kyrRoutingInfoRetiredTooMuch(const KyrRoutingInfo* ri) {
  return ri->retiredBytes > kMaxRetiredBytes;
}

void* kyrRoutingInfoObjectGet(KyrRoutingInfo* ri, const char* fullName) {
  auto* wrapper = static_cast<ObjectWrapper*>(kyrHashGet(ri->objectMap, fullName));
  return wrapper != nullptr ? wrapper->object : nullptr;
}

}  // namespace kyr
