// The handle's life: the process-wide control lock, start with its optional wait for the
// connector groups, stop, destroy, and the handle state derived from the groups' states.
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "ipc/kyrClientProcess.h"
#include "ipc/kyrServerProcess.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Serialises start, stop, destroy, routing-data application and the handle's asynchronous
// work across every handle of the process. Created once and never destroyed: handles of the
// process may come and go, the lock stays.
KyrLock* controlLock = nullptr;
std::once_flag controlLockOnce;

std::string formatReason(const char* format, const KyrConnectorGroup* cg) {
  char text[512];
  snprintf(text, sizeof text, format, cg != nullptr ? cg->name : "");
  return text;
}

bool initializationDone(KyrComponentState state) {
  return state == STARTED || state == FAILED || state == STOPPING || state == STOPPED;
}

// The caller holds the control lock; it is released around each one-second sleep so that the
// connector groups' threads can report their progress meanwhile.
void waitForInitializationCompletion(Kyr* kyr, int timeoutInSecs) {
  if (timeoutInSecs == -1) {
    trDebug(kyr->trCtx, kyr->processRec, "KYR was started asynchronously\n");
    return;
  }
  while (!initializationDone(kyr->state)) {
    // Counting down before the sleep means N allows N-1 sleeps; hosts rely on 1 never sleeping.
    if (timeoutInSecs > 0 && --timeoutInSecs == 0) {
      trDebug(kyr->trCtx, kyr->processRec,
              "Timed out waiting for KYR initialization to complete\n");
      return;
    }
    trDebug(kyr->trCtx, kyr->processRec, "Waiting for KYR initialization to complete ...\n");
    kyrControlUnlock();
    kyrSleep(1);
    kyrControlLock("kyr.waitForInitializationCompletion");
  }
  trDebug(kyr->trCtx, kyr->processRec, "KYR initialization is complete\n");
}

// Stopped groups cancelled their requests and shut the transport's sockets, so the answers come
// back at once; their handling needs the control lock. A host transport that holds on to a
// request longer is not waited for beyond a bound.
void awaitRestRequests(Kyr* kyr) {
  if (kyr->restRequestsInFlight == 0) return;
  kyrControlUnlock();
  for (int i = 0; i < 2000 && kyr->restRequestsInFlight > 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kyrControlLock("kyrDestroy2");
  if (kyr->restRequestsInFlight > 0) {
    trDebug(kyr->trCtx, kyr->processRec, "kyrDestroy2: %d REST requests still unanswered\n",
            kyr->restRequestsInFlight.load());
    kyr->destroyLeftToRequests = true;
  }
}

template <class Fn>
void forEachConnectorGroup(Kyr* kyr, Fn fn) {
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    fn(static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e)));
  }
}

}  // namespace

void kyrControlLockInit() {
  std::call_once(controlLockOnce, [] { controlLock = kyrLockCreate("kyr.controlLock"); });
}

void kyrControlLockAssertHeld() { kyrLockAssertHeld(controlLock); }

void kyrSetState(Kyr* kyr, KyrComponentState state, const char* reason) {
  if (kyr->state == state) return;
  KyrComponentState old = kyr->state;
  trLog(kyr->trCtx, kyr->controlStateChangeRec, kyrState2String(old), kyrState2String(state),
        reason);
  kyr->state = state;
  if (kyr->env.stateChange.kyr != nullptr) {
    kyr->env.stateChange.kyr(kyr, state, const_cast<char*>(reason));
  }
}

int kyrStart2(Kyr* kyr, int timeoutInSecs) {
  kyrControlLockAssertHeld();
  if (kyr->state != STOPPED && kyr->state != FAILED) {
    trDebug(kyr->trCtx, kyr->processRec, "KYR is not startable; state=%s\n",
            kyrState2String(kyr->state));
    return -1;
  }
  kyrSetState(kyr, STARTING, "starting");
  if (kyrIsClientProcess(kyr)) {
    // The routing data comes from the server process; it says when all of it is here.
    if (kyrClientProcessStart(kyr->clientProcess) != 0) {
      trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrStart2: the client process did not start\n");
    }
    waitForInitializationCompletion(kyr, timeoutInSecs);
    return 0;
  }
  forEachConnectorGroup(kyr, kyrConnectorGroupStart2);
  waitForInitializationCompletion(kyr, timeoutInSecs);
  if (kyrIsServerProcess(kyr) && kyrServerProcessStart(kyr->serverProcess) != 0) {
    trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrStart2: the server process did not start\n");
  }
  return 0;
}

int kyrStop2(Kyr* kyr) {
  kyrControlLockAssertHeld();
  if (!kyrIsUsable(kyr)) return -1;
  kyrSetState(kyr, STOPPING, "stopping initiated");
  if (kyrIsClientProcess(kyr)) {
    kyrClientProcessStop(kyr->clientProcess);
    // A client's groups never ran, so none reports: the handle settles from them now.
    kyrCheckState(kyr);
    return 0;
  }
  if (kyrIsServerProcess(kyr)) kyrServerProcessStop(kyr->serverProcess);
  forEachConnectorGroup(kyr, kyrConnectorGroupStop2);
  return 0;
}

void kyrDestroy2(Kyr* kyr) {
  kyrControlLockAssertHeld();
  trDebug(kyr->trCtx, kyr->processRec, "kyrDestroy2: enter");
  kyrStop2(kyr);
  // A handle that was not usable (a failed one) skipped the stop, but its process loop must
  // end before the handle can go: it reads the handle and serves the socket.
  if (kyr->serverProcess != nullptr) kyrServerProcessStop(kyr->serverProcess);
  if (kyr->clientProcess != nullptr) kyrClientProcessStop(kyr->clientProcess);
  while (!kyrListIsEmpty(kyr->connectorGroupList)) {
    kyrConnectorGroupDelete2(kyrListEleGetObject(kyrListGetHead(kyr->connectorGroupList)));
  }
  awaitRestRequests(kyr);
  KyrRoutingInfo* current;
  KyrRoutingInfo* halfBuilt;  // a client process's version that the server never finished
  {
    KyrLockGuard guard(kyr->routingInfoLock, "kyrDestroy2");
    current = kyr->routingInfo;
    halfBuilt = kyr->newRoutingInfo;
    kyr->routingInfo = nullptr;
    kyr->newRoutingInfo = nullptr;
  }
  kyrRoutingInfoRelease(current);
  kyrRoutingInfoRelease(halfBuilt);
  kyrAsyncWorkStop(kyr);
  kyrSetState(kyr, DELETED, "deleted");
  // Requests a host transport still holds keep the handle; the last of them lets it go.
  if (!kyr->destroyLeftToRequests) kyrReleaseRef(kyr, "kyrDestroy2");
}

}  // namespace kyr

using namespace kyr;

extern "C" {

void kyrControlLock(const char* whoIsLocking) {
  kyrControlLockInit();
  kyrLockObtain(controlLock, whoIsLocking);
}

void kyrControlUnlock(void) { kyrLockRelease(controlLock); }

int kyrMarkAsServerProcess(Kyr* kyr, const char* unixDomainSocketPath, uid_t unixDomainSocketUid) {
  if (kyr == nullptr) return -1;
  ControlLockGuard guard("kyrMarkAsServerProcess");
  trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrMarkAsServerProcess: path='%s', uid=%u\n",
          kyrNullText(unixDomainSocketPath), static_cast<unsigned>(unixDomainSocketUid));
  if (kyr->serverProcess != nullptr || kyr->clientProcess != nullptr) return -1;
  kyr->serverProcess = kyrServerProcessCreate(kyr);
  if (kyr->serverProcess == nullptr) return -1;
  kyr->processType = KYR_SERVER_PROCESS;
  kyrSetUnixDomainSocketPath(kyr, unixDomainSocketPath);
  kyrSetUnixDomainSocketUid(kyr, unixDomainSocketUid);
  return 0;
}

int kyrMarkAsClientProcess(Kyr* kyr, const char* unixDomainSocketPath) {
  if (kyr == nullptr) return -1;
  ControlLockGuard guard("kyrMarkAsClientProcess");
  trDebug(kyr->trCtx, kyr->ipcProcessRec, "kyrMarkAsClientProcess: path='%s'\n",
          kyrNullText(unixDomainSocketPath));
  if (kyr->serverProcess != nullptr || kyr->clientProcess != nullptr) return -1;
  kyr->clientProcess = kyrClientProcessCreate(kyr);
  if (kyr->clientProcess == nullptr) return -1;
  kyr->processType = KYR_CLIENT_PROCESS;
  kyrSetUnixDomainSocketPath(kyr, unixDomainSocketPath);
  return 0;
}

int kyrStart(Kyr* kyr, int timeoutInSecs) {
  if (kyr == nullptr) return -1;
  ControlLockGuard guard("kyrStart");
  return kyrStart2(kyr, timeoutInSecs);
}

int kyrStop(Kyr* kyr) {
  if (kyr == nullptr) return -1;
  ControlLockGuard guard("kyrStop");
  return kyrStop2(kyr);
}

void kyrDestroy(Kyr* kyr) {
  if (kyr == nullptr) return;
  trDebug(kyr->trCtx, kyr->processRec, "kyrDestroy entry\n");
  ControlLockGuard guard("kyrDestroy");
  kyrDestroy2(kyr);
}

void kyrCheckState(Kyr* kyr) {
  // The last group seen in each state speaks for that state.
  KyrConnectorGroup* inState[STOPPED + 1] = {};
  KyrConnectorGroup* invalid = nullptr;
  forEachConnectorGroup(kyr, [&](KyrConnectorGroup* cg) {
    if (cg->state < STARTING || cg->state > STOPPED) {
      invalid = cg;
    } else {
      inState[cg->state] = cg;
    }
  });
  KyrConnectorGroup* starting = inState[STARTING];
  KyrConnectorGroup* started = inState[STARTED];
  KyrConnectorGroup* stopped = inState[STOPPED];
  if (invalid != nullptr) {
    // Deliberately STOPPED rather than FAILED: an unknown group state says nothing of failure.
    kyrSetState(kyr, STOPPED, formatReason("%s is in an invalid state", invalid).c_str());
  } else if (inState[STOPPING] != nullptr) {
    kyrSetState(kyr, STOPPING, formatReason("%s is stopping", inState[STOPPING]).c_str());
  } else if (inState[FAILED] != nullptr) {
    kyrSetState(kyr, FAILED, formatReason("%s failed to start", inState[FAILED]).c_str());
  } else if (inState[PARTIAL_START] != nullptr) {
    kyrSetState(kyr, PARTIAL_START,
                formatReason("%s is partially started", inState[PARTIAL_START]).c_str());
  } else if (starting != nullptr && started != nullptr) {
    kyrSetState(kyr, PARTIAL_START, formatReason("%s is started", started).c_str());
  } else if (starting != nullptr) {
    kyrSetState(kyr, STARTING, formatReason("%s is starting", starting).c_str());
  } else if (stopped != nullptr && started != nullptr) {
    kyrSetState(kyr, PARTIAL_START, formatReason("%s is stopped", stopped).c_str());
  } else if (stopped != nullptr) {
    kyrSetState(kyr, STOPPED, "all connector groups are stopped");
  } else if (started != nullptr) {
    kyrSetState(kyr, STARTED, "all connector groups are started");
  } else {
    kyrSetState(kyr, STOPPED, "no connector groups");
  }
}

KyrComponentState kyrGetState(Kyr* kyr) { return kyr != nullptr ? kyr->state.load() : INVALID; }

Boolean kyrIsStopped(Kyr* kyr) { return kyr->state == STOPPED || kyr->state == DELETED; }

Boolean kyrIsUsable(Kyr* kyr) {
  return kyr->state == STARTING || kyr->state == STARTED || kyr->state == PARTIAL_START;
}

const char* kyrState2String(KyrComponentState state) {
  switch (state) {
    case STARTING:
      return "STARTING";
    case STARTED:
      return "STARTED";
    case PARTIAL_START:
      return "PARTIAL START";
    case FAILED:
      return "FAILED";
    case STOPPING:
      return "STOPPING";
    case STOPPED:
      return "STOPPED";
    default:
      return "UNKNOWN";
  }
}

}  // extern "C"
