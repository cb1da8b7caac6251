// Connector groups: creation into the handle's list, references, state changes reported to the
// trace, the host and the handle, start and stop transitions, and the REST path.
#include "connector/kyrConnectorGroup.h"

#include <climits>
#include <cstdlib>

#include "connector/kyrConnector.h"
#include "connector/kyrInterestSpec.h"
#include "core/kyr.h"
#include "core/kyrProcessMessages.h"
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
  kyrPropertiesDeleteWithCopies(cg->props);
  kyrFree(cg->interestSpec);
  kyrFree(cg->name);
  kyrFree(cg->uri);
  kyrFree(cg->restURI);
  kyrDelete(cg);
  kyrReleaseRef(kyr, "kyrConnectorGroupDelete");
}

// Parses a whole decimal number of seconds or counts; false for anything else.
bool parseCount(const char* value, int* out) {
  if (value == nullptr || *value == '\0') return false;
  char* end = nullptr;
  long number = strtol(value, &end, 10);
  if (*end != '\0' || number < 0 || number > INT_MAX / 1000) return false;
  *out = static_cast<int>(number);
  return true;
}

void setEnableAdminTraffic(KyrConnectorGroup* cg, bool enable) {
  if (cg->enableAdminTraffic == static_cast<Boolean>(enable)) return;
  cg->enableAdminTraffic = enable;
  // The library's own specification names the server types it routes to: build it again.
  if (!cg->interestSpecFromHost) {
    kyrFree(cg->interestSpec);
    cg->interestSpec = nullptr;
  }
}

// The property set's setter: applies a known property and names its key. Runs under the
// control lock (kyrConnectorGroupSetProperty takes it).
const char* applyGroupProperty(void* owner, const char* name, const char* value) {
  auto* cg = static_cast<KyrConnectorGroup*>(owner);
  static const char* const kNames[] = {
      "maxRetries", "retryInterval", "uri", "maxWaitOffset", "enableRoutingToAdminConsole",
      "waitTime"};
  int* counts[] = {&cg->maxRetries, &cg->maxRetryInterval, nullptr, &cg->maxWaitOffset,
                   nullptr,         &cg->waitTime};
  for (size_t i = 0; i < sizeof kNames / sizeof kNames[0]; ++i) {
    if (kyrStrCmpIgnoreCase(name, kNames[i]) != 0) continue;
    if (counts[i] != nullptr) return parseCount(value, counts[i]) ? kNames[i] : nullptr;
    if (value == nullptr) return nullptr;
    if (i == 2) {
      kyrReplaceCountedStr(&cg->uri, value);
      kyrConnectorGroupUpdateRestURI(cg);
    } else {
      setEnableAdminTraffic(cg, kyrStrCmpIgnoreCase(value, "true") == 0);
    }
    return kNames[i];
  }
  return nullptr;
}

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
  kyrReplaceCountedStr(&cg->restURI, sbStr(sb));
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
  // The client processes show the server's groups in their state reports.
  kyrUpdateControlState(cg->kyr, -1);
}

const char* kyrConnectorGroupGetInterestSpec2(KyrConnectorGroup* cg) {
  if (cg->interestSpec == nullptr) cg->interestSpec = kyrGetInterestSpec(cg);
  return cg->interestSpec;
}

int kyrConnectorGroupStart2(KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  if (cg->state != STOPPED && cg->state != FAILED) {
    trDebug(cg->trCtx, cg->debugCtl, "KYR connector group %s is not startable; state is %s\n",
            cg->name, kyrState2String(cg->state));
    return -1;
  }
  cg->consecutiveFailures = 0;
  kyrConnectorGroupSetState(cg, STARTING, "starting");
  // The state change may have told the host, which may have stopped the group again.
  if (cg->state == STARTING) kyrConnectorGroupRun(cg);
  return 0;
}

int kyrConnectorGroupStop2(KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  if (cg->state == STOPPED) return 0;
  kyrConnectorGroupSetState(cg, STOPPING, "stopping");
  ++cg->runTicket;  // a queued run or a pending retry is for the run that ends here
  for (KyrListEle* e = kyrListGetHead(cg->connectorList); e != nullptr; e = kyrListGetNext(e)) {
    kyrConnectorStop(static_cast<KyrConnector*>(kyrListEleGetObject(e)));
  }
  cg->curConnector = nullptr;
  cg->consecutiveFailures = 0;
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
  cg->props = kyrPropertiesCreate(applyGroupProperty, cg);
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

Boolean kyrConnectorGroupSetProperty(KyrConnectorGroup* cg, const char* name, const char* value) {
  if (cg == nullptr || name == nullptr) return false;
  ControlLockGuard guard("kyrConnectorGroupSetProperty");
  return kyrPropertySet(cg->props, name, value, true) >= 0;
}

void kyrConnectorGroupSetURI(KyrConnectorGroup* cg, const char* uri) {
  if (cg == nullptr || uri == nullptr) return;
  ControlLockGuard guard("kyrConnectorGroupSetURI");
  kyrReplaceCountedStr(&cg->uri, uri);
  kyrConnectorGroupUpdateRestURI(cg);
}

void kyrConnectorGroupSetInterestSpec(KyrConnectorGroup* cg, const char* spec) {
  if (cg == nullptr) return;
  ControlLockGuard guard("kyrConnectorGroupSetInterestSpec");
  kyrFree(cg->interestSpec);
  cg->interestSpec = spec != nullptr ? kyrStrdup(spec) : nullptr;
  cg->interestSpecFromHost = spec != nullptr;
}

const char* kyrConnectorGroupGetInterestSpec(KyrConnectorGroup* cg) {
  if (cg == nullptr) return nullptr;
  ControlLockGuard guard("kyrConnectorGroupGetInterestSpec");
  return kyrConnectorGroupGetInterestSpec2(cg);
}

Boolean kyrConnectorGroupGetEnableAdminTraffic(KyrConnectorGroup* cg) {
  return cg != nullptr ? cg->enableAdminTraffic : false;
}

void kyrConnectorGroupDelete(KyrConnectorGroup* cg) {
  if (cg == nullptr) return;
  ControlLockGuard guard("kyrConnectorGroupDelete");
  kyrConnectorGroupStop2(cg);
  kyrConnectorGroupDelete2(cg);
}

}  // extern "C"
