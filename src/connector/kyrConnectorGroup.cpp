// Connector groups: creation into the handle's list, references, state changes reported to the
// trace, the host and the handle, start and stop transitions, and the REST path.
#include "connector/kyrConnectorGroup.h"

#include <cstdlib>

#include "connector/kyrConnector.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrStringBuffer.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

constexpr const char* kDefaultUri = "/brisvane";

void connectorGroupFree(KyrConnectorGroup* cg) {
  trDebug(cg->trCtx, cg->debugCtl, "connector group deleted: %s\n", cg->name);
  Kyr* kyr = cg->kyr;
  kyrListDestroy(cg->connectorList);
  kyrPropertiesDelete(cg->props);
  kyrFree(cg->interestSpec);
  kyrFree(cg->name);
  kyrFree(cg->uri);
  kyrFree(cg->restURI);
  kyrDelete(cg);
  kyrReleaseRef(kyr, "kyrConnectorGroupDelete");
}

// Group properties arrive with the connector module; until then no name is known.
const char* noGroupProperty(void*, const char*, const char*) { return nullptr; }

}  // namespace

void kyrConnectorGroupObtainRef(KyrConnectorGroup* cg, const char* reason) {
  int count = ++cg->refcnt;
  trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_DEBUG,
          "Obtained reference to connector group %s, refcnt: %d, reason: %s\n", cg->name, count,
          reason);
}

void kyrConnectorGroupReleaseRef(KyrConnectorGroup* cg, const char* reason) {
  // Traced before the count drops, as for the handle: afterwards another holder may free it.
  trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_DEBUG,
          "Released reference to connector group %s, refcnt: %d, reason: %s\n", cg->name,
          cg->refcnt.load() - 1, reason);
  if (--cg->refcnt < 1) connectorGroupFree(cg);
}

void kyrAddConnectorGroup(Kyr* kyr, KyrConnectorGroup* cg) {
  kyrListAddTail(kyr->connectorGroupList, cg);
}

void kyrConnectorGroupUpdateRestURI(KyrConnectorGroup* cg) {
  const char* server = cg->kyr->serverName != nullptr ? cg->kyr->serverName : "";
  KyrStringBuffer* sb = sbCreate(128);
  sbAdd(sb, cg->uri);
  sbAdd(sb, "?name=");
  sbAdd(sb, cg->name);
  sbAdd(sb, "&server=");
  sbAdd(sb, server);
  kyrReplaceStr(&cg->restURI, sbStr(sb));
  sbDelete(sb);
  trDebug(cg->trCtx, cg->debugCtl, "kyrConnectorGroupUpdateRestURI restURI='%s'\n", cg->restURI);
}

void kyrConnectorGroupSetState(KyrConnectorGroup* cg, KyrComponentState state, const char* reason) {
  if (cg->state == state) return;
  KyrComponentState old = cg->state;
  cg->state = state;
  trLog(cg->trCtx, cg->connectorStateChangeRec, cg->name, kyrState2String(old),
        kyrState2String(state), reason);
  if (cg->kyr->env.stateChange.kyrConnectorGroup != nullptr) {
    cg->kyr->env.stateChange.kyrConnectorGroup(cg, state, const_cast<char*>(reason));
  }
  kyrCheckState(cg->kyr);
}

int kyrConnectorGroupStart2(KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  if (cg->state != STOPPED && cg->state != FAILED) {
    trDebug(cg->trCtx, cg->debugCtl, "KYR connector group %s is not startable; state is %s\n",
            cg->name, kyrState2String(cg->state));
    return -1;
  }
  kyrConnectorGroupSetState(cg, STARTING, "starting");
  return 0;
}

int kyrConnectorGroupStop2(KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  if (cg->state == STOPPED) return 0;
  kyrConnectorGroupSetState(cg, STOPPING, "stopping");
  kyrConnectorGroupSetState(cg, STOPPED, "stopped");
  return 0;
}

void kyrConnectorGroupDelete2(void* obj) {
  auto* cg = static_cast<KyrConnectorGroup*>(obj);
  kyrListFindAndRemove(cg->kyr->connectorGroupList, cg);
  // Connectors hold references on their group: remove them so the group can go.
  while (!kyrListIsEmpty(cg->connectorList)) {
    kyrConnectorGroupRemoveConnector(
        cg, static_cast<KyrConnector*>(kyrListEleGetObject(kyrListGetHead(cg->connectorList))));
  }
  kyrConnectorGroupReleaseRef(cg, "kyrConnectorGroupDelete2");
}

}  // namespace kyr

using namespace kyr;

extern "C" {

KyrConnectorGroup* kyrConnectorGroupCreate(Kyr* kyr, const char* name) {
  if (kyr == nullptr || name == nullptr) return nullptr;
  auto* cg = kyrNew<KyrConnectorGroup>();
  cg->refcnt = 1;  // the handle's list
  cg->kyr = kyr;
  cg->name = kyrStrdup(name);
  cg->initialized = false;
  cg->state = STOPPED;
  cg->waitTime = 300;
  cg->props = kyrPropertiesCreate(noGroupProperty, cg);
  cg->connectorList = kyrListCreate(nullptr);
  cg->maxRetryInterval = 60;
  cg->maxRetries = 10;
  cg->maxWaitOffset = 5;
  cg->enableAdminTraffic = false;
  cg->consecutiveFailures = 0;
  cg->uri = kyrStrdup(kDefaultUri);
  cg->trCtx = kyr->trCtx;
  cg->debugCtl = trRecordGet(kyr->trMgr, "control.process");
  cg->noConnectorERR = trRecordGet(kyr->trMgr, "control.error.noConnectorError");
  cg->jsonSentRec = trRecordGet(kyr->trMgr, "control.json.sent");
  cg->connectorStateChangeRec = trRecordGet(kyr->trMgr, "control.connectorStateChange");

  ControlLockGuard guard("kyrConnectorGroupCreate");
  kyrObtainRef(kyr, "kyrConnectorGroupCreate");
  kyrAddConnectorGroup(kyr, cg);
  kyrConnectorGroupUpdateRestURI(cg);
  return cg;
}

const char* kyrConnectorGroupGetName(KyrConnectorGroup* cg) {
  return cg != nullptr ? cg->name : nullptr;
}

KyrComponentState kyrConnectorGroupGetState(KyrConnectorGroup* cg) {
  return cg != nullptr ? cg->state.load() : INVALID;
}

int kyrConnectorGroupStart(KyrConnectorGroup* cg) {
  if (cg == nullptr) return -1;
  ControlLockGuard guard("kyrConnectorGroupStart");
  return kyrConnectorGroupStart2(cg);
}

int kyrConnectorGroupStop(KyrConnectorGroup* cg) {
  if (cg == nullptr) return -1;
  ControlLockGuard guard("kyrConnectorGroupStop");
  return kyrConnectorGroupStop2(cg);
}

void kyrConnectorGroupDelete(KyrConnectorGroup* cg) {
  if (cg == nullptr) return;
  ControlLockGuard guard("kyrConnectorGroupDelete");
  kyrConnectorGroupStop2(cg);
  kyrConnectorGroupDelete2(cg);
}

}  // extern "C"
