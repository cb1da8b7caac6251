// Creating the library handle (every check of the host's table, in order, before anything is
// built) and freeing it when its last holder lets go.
#include "core/kyr.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "connector/kyrBuiltinTransport.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrHandleProperties.h"
#include "core/kyrPartitionData.h"
#include "core/kyrProcessMessages.h"
#include "core/kyrRoutingInfo.h"
#include "health/hmHealthMonitor.h"
#include "ipc/kyrClientProcess.h"
#include "ipc/kyrServerProcess.h"
#include "lang/kyrHttpLanguage.h"
#include "lang/kyrRule.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

struct RequiredCallback {
  const char* name;
  bool present;
};

// Stops at the first missing callback, in the order hosts have always been told about them.
bool checkRequiredCallbacks(const EnvCallBacks* env) {
  const auto& rq = env->http.request;
  // getProtocol is deliberately checked twice: hosts see the same message order as ever.
  const RequiredCallback required[] = {
      {"http.request.getProtocol", rq.getProtocol != nullptr},
      {"http.request.getVirtualHost", rq.getVirtualHost != nullptr},
      {"http.request.getVirtualPort", rq.getVirtualPort != nullptr},
      {"http.request.getPath", rq.getPath != nullptr},
      {"http.request.getClientIpAddr", rq.getClientIpAddr != nullptr},
      {"http.request.getListeningPort", rq.getListeningPort != nullptr},
      {"http.request.getProtocolVersion", rq.getProtocolVersion != nullptr},
      {"http.request.getProtocol", rq.getProtocol != nullptr},
      {"http.request.getClientCertificate", rq.getClientCertificate != nullptr},
      {"http.request.getSSLCipherSuite", rq.getSSLCipherSuite != nullptr},
      {"http.request.getSSLSessionId", rq.getSSLSessionId != nullptr},
      {"http.request.getAuthType", rq.getAuthType != nullptr},
      {"http.request.getUserName", rq.getUserName != nullptr},
      {"http.request.setHeaderValue", rq.setHeaderValue != nullptr},
      {"http.request.getCookieValue", rq.getCookieValue != nullptr},
  };
  for (const RequiredCallback& cb : required) {
    if (!cb.present) {
      fprintf(stderr,
              "ERROR: KYR library initialization failure: EnvCallBacks.%s is invalid in call to "
              "kyrCreate\n",
              cb.name);
      return false;
    }
  }
  return true;
}

// The alarm hosts get when they bring none: one sleeping library thread per alarm.
int builtinAlarm(void (*function)(void*), void* arg, int milliseconds, void* env) {
  return kyrSetAlarm(function, arg, milliseconds, static_cast<const EnvCallBacks*>(env));
}

void fetchTraceRecords(Kyr* kyr) {
  TrMgr* mgr = kyr->trMgr;
  kyr->processRec = trRecordGet(mgr, "control.process");
  kyr->controlStateChangeRec = trRecordGet(mgr, "control.stateChange");
  kyr->jsonReceivedRec = trRecordGet(mgr, "control.json.received");
  kyr->jsonUpdatedRec = trRecordGet(mgr, "control.json.updated");
  kyr->invalidJSON = trRecordGet(mgr, "control.error.invalidJSON");
  kyr->invalidAction = trRecordGet(mgr, "control.error.invalidAction");
  kyr->invalidKey = trRecordGet(mgr, "control.error.invalidKey");
  kyr->ipcProcessRec = trRecordGet(mgr, "control.ipc");
  kyr->requestTraceSpecAdded = trRecordGet(mgr, "control.trace.requestTraceSpecAdded");
  kyr->requestTraceSpecRemoved = trRecordGet(mgr, "control.trace.requestTraceSpecRemoved");
  kyr->defaultReqTraceSpecSet = trRecordGet(mgr, "control.trace.defaultReqTraceSpecSet");
  kyr->defaultReqTraceSpecReset = trRecordGet(mgr, "control.trace.defaultReqTraceSpecReset");
  kyr->defaultTraceSpecSet = trRecordGet(mgr, "control.trace.defaultTraceSpecSet");
  kyr->defaultTraceSpecReset = trRecordGet(mgr, "control.trace.defaultTraceSpecReset");
}

// The initial values of the remaining fields, in field order.
void initFields(Kyr* kyr) {
  kyr->state = STOPPED;
  kyr->sslMapMode = NullMapMode;
  kyr->connectorGroupList = kyrListCreate(kyrConnectorGroupDelete2);
  kyr->props = kyrPropertiesCreate(kyrSetPropertyFcn, kyr);
  kyr->defaultProps = kyrHashMapCreate2(free);
  kyr->serverProps = kyrHashMapCreate2(free);
  kyr->maxHttpContextPoolSize = -1;
  for (KyrContextPool& pool : kyr->contextPools) {
    pool.contextPoolLock = kyrLockCreate("Kyr.contextPoolLock");
  }
  kyr->targetEndpoint = nullptr;
  kyr->maxTargetEndpointsPerRequest = 9999;
  kyr->routingInfoLock = kyrLockCreate("Kyr.routingInfoLock");
  kyr->routingInfo = kyrRoutingInfoCreate(kyr);
  kyr->endPointRefMap = kyrHashMapCreate2(endPointRefDelete);
  kyr->endPointRefLock = kyrLockCreate("Kyr.endPointRefLock");
  kyr->sappMap = kyrHashMapCreate2(kyrSappEntryDelete);
  kyr->partitionIDData.map = kyrHashMapCreate2(partitionIDDataDelete);
  kyr->partitionIDData.lock = kyrLockCreate("Kyr.partitionIDData.lock");
  kyr->customPropDefaultRequestTraceSpec = nullptr;
  kyr->processType = KYR_STANDALONE_PROCESS;
  kyr->unixDomainSocketUid = static_cast<uid_t>(-1);
  kyr->maxSecondsToWaitDuringAtomicRollout = 3;
  kyr->controlState = nullptr;
  kyr->privateHeadersDisabled = false;
  kyr->maxElapsedTimePerRequestInMillis = static_cast<KyrTime>(-1);
  kyr->healthMonitor = hmHealthMonitorCreate(kyr);
  kyr->httpLanguage = langCreateHttpLanguage(kyr->trCtx, kyr->processRec);
  kyr->requestTraceRules = kyrRulesCreate(kyr->httpLanguage, kyr);
  kyrRulesSetType(kyr->requestTraceRules, KYRRULESTYPE_VQTRACESPEC);
}

}  // namespace

// Everything the handle owns, in release order; safe on a partly built handle. The current
// routing version is not among them: it holds a reference of its own, so kyrDestroy2 has
// released it before the count can reach zero.
void kyrHandleFree(Kyr* kyr) {
  hmHealthMonitorDelete(kyr->healthMonitor);
  kyrContextPoolsEmpty(kyr);
  kyrListDestroy(kyr->connectorGroupList);
  kyrServerProcessDelete(kyr->serverProcess);
  kyrClientProcessDelete(kyr->clientProcess);
  kyrRulesFree(kyr->requestTraceRules);
  langFree(kyr->httpLanguage);
  kyrHashMapDestroy(kyr->endPointRefMap);
  kyrLockDestroy(kyr->endPointRefLock);
  kyrHashMapDestroy(kyr->sappMap);
  kyrPropertiesDeleteWithCopies(kyr->props);
  kyrHashMapDestroy(kyr->defaultProps);
  serverPropsDestroy(kyr);
  kyrHashMapDestroy(kyr->partitionIDData.map);
  kyrLockDestroy(kyr->partitionIDData.lock);
  kyrLockDestroy(kyr->routingInfoLock);
  for (KyrContextPool& pool : kyr->contextPools) kyrLockDestroy(pool.contextPoolLock);
  trSpecRefRelease(kyr->customPropDefaultRequestTraceSpec);
  kyrLockDestroy(kyr->trSpecLock);
  kyrFree(kyr->unixDomainSocketPath);
  kyrFree(kyr->serverName);
  kyrFree(kyr->ppid);
  kyrFree(kyr->serverPath);
  kyrFree(kyr->cellPath);
  kyrListDestroy(kyr->asyncWorkQueue);
  kyrConditionDestroy(kyr->asyncWorkCondition);
  json_decref(kyr->controlState);
  trMgrDelete(kyr->trMgr);
  kyrDelete(kyr);
}

}  // namespace kyr

using namespace kyr;

extern "C" {

Kyr* kyrCreate(EnvCallBacks* env, FILE* fp, const char* path) {
  kyrControlLockInit();
  if (env == nullptr) {
    fprintf(stderr, "ERROR: first argument (EnvCallBacks) to kyrCreate must not be NULL\n");
    return nullptr;
  }
  if (env->version != KYR_ENV_CALLBACKS_VERSION) {
    fprintf(stderr,
            "ERROR: KYR library initialization failure: EnvCallBacks.version is invalid in call "
            "to kyrCreate: %d != %d\n",
            env->version, KYR_ENV_CALLBACKS_VERSION);
    return nullptr;
  }
  if (!checkRequiredCallbacks(env)) return nullptr;
  bool closeTraceFile = false;
  if (fp == nullptr) {
    if (path == nullptr) {
      fprintf(stderr, "ERROR: both 2nd and 3rd arguments to kyrCreate may not be NULL\n");
      return nullptr;
    }
    fp = fopen(path, "r");
    if (fp == nullptr) {
      fprintf(stderr, "ERROR: failed to open %s in kyrCreate: %s\n", path, strerror(errno));
      return nullptr;
    }
    closeTraceFile = true;
  }

  Kyr* kyr = kyrNew<Kyr>();
  kyr->refcnt = 1;  // the creator's, dropped by kyrDestroy
  kyr->env = *env;
  // A host without a connector transport of its own gets the library's, all four members.
  if (kyr->env.http.connector.open == nullptr) kyrUseBuiltinConnectorTransport(&kyr->env);
  if (kyr->env.alarm == nullptr && kyr->env.alarm_ex == nullptr) {
    kyr->env.alarm_ex = builtinAlarm;
  }

  kyr->trMgr = trMgrCreate(fp, closeTraceFile);
  kyr->trSpecLock = kyrLockCreate("Kyr.trSpecLock");
  static const char kDefaultTraceSpec[] = ":NOTICE";
  if (kyrSetDefaultTraceSpec(kyr, kDefaultTraceSpec) < 0) {
    fprintf(stderr, "FATAL ERROR: invalid default trace spec: '%s'\n", kDefaultTraceSpec);
    exit(1);
  }
  kyr->trCtx = trMgrGetDefaultContext(kyr->trMgr);
  fetchTraceRecords(kyr);

  initFields(kyr);
  trMgrSetPrintf(kyr->trMgr, kyr->env.trace.printf);
  kyrSetServerName(kyr, "kyrlib");
  if (!kyrAsyncWorkStart(kyr)) {
    fprintf(stderr, "ERROR: failed to start the asynchronous work thread in kyrCreate\n");
    kyrRoutingInfoRelease(kyr->routingInfo);  // drops the version's reference on the handle
    kyrHandleFree(kyr);
    return nullptr;
  }
  return kyr;
}

void kyrObtainRef(Kyr* kyr, const char* reason) {
  int count = ++kyr->refcnt;
  trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_DEBUG,
          "Obtained reference to kyr, refcnt: %d, reason: %s\n", count, reason);
}

void kyrReleaseRef(Kyr* kyr, const char* reason) {
  // Traced before the count drops: once this holder's reference is gone, another holder's
  // release may free the handle, trace context included. Under a race the count shown may
  // therefore be one another thread is about to change too.
  trTrace(kyr->trCtx, kyr->processRec, TR_LEVEL_DEBUG,
          "Released reference to kyr, refcnt: %d, reason: %s\n", kyr->refcnt.load() - 1, reason);
  if (--kyr->refcnt < 1 && kyrAsyncWorkReadyForFree(kyr)) kyrHandleFree(kyr);
}

}  // extern "C"
