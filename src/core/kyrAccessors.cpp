// Plain getters and setters of the handle and its process type. None of them lock: the fields
// are set before the handle is started or are single words read as a snapshot.
#include "core/kyr.h"
#include "runtime/kyrUtil.h"

namespace kyr {

KyrProperties* kyrGetProperties(Kyr* kyr) { return kyr->props; }
Language* kyrGetHttpLanguage(Kyr* kyr) { return kyr->httpLanguage; }
KyrRules* kyrGetRequestTraceRules(Kyr* kyr) { return kyr->requestTraceRules; }
HealthMonitor* kyrGetHealthMonitor(Kyr* kyr) { return kyr->healthMonitor; }

}  // namespace kyr

using namespace kyr;

extern "C" {

EnvCallBacks* kyrGetEnvCallBacks(Kyr* kyr) { return &kyr->env; }
KyrServerProcess* kyrGetServerProcess(Kyr* kyr) { return kyr->serverProcess; }
TrMgr* kyrGetTrMgr(Kyr* kyr) { return kyr->trMgr; }
TrMgr* getKyrTrMgr(Kyr* kyr) { return kyr->trMgr; }
TrContext* kyrGetTrContext(Kyr* kyr) { return kyr->trCtx; }
TrRecord* kyrGetDebugIPC(Kyr* kyr) { return kyr->ipcProcessRec; }
int kyrGetMaxSecondsToWaitDuringAtomicRollout(Kyr* kyr) {
  return kyr->maxSecondsToWaitDuringAtomicRollout;
}
const char* kyrGetServerName(Kyr* kyr) { return kyr->serverName; }
const char* kyrGetPPID(Kyr* kyr) { return kyr->ppid; }
const char* kyrGetServerPath(Kyr* kyr) { return kyr->serverPath; }
KyrSSLMapMode kyrGetSSLMapMode(Kyr* kyr) { return kyr->sslMapMode; }
void kyrSetSSLMapMode(Kyr* kyr, KyrSSLMapMode mode) { kyr->sslMapMode = mode; }
const char* kyrGetUnixDomainSocketPath(Kyr* kyr) { return kyr->unixDomainSocketPath; }
void kyrSetUnixDomainSocketPath(Kyr* kyr, const char* path) {
  kyrReplaceStr(&kyr->unixDomainSocketPath, path);
}
uid_t kyrGetUnixDomainSocketUid(Kyr* kyr) { return kyr->unixDomainSocketUid; }
void kyrSetUnixDomainSocketUid(Kyr* kyr, uid_t uid) { kyr->unixDomainSocketUid = uid; }
KyrTargetEndpoint* kyrGetTargetEndpoint(Kyr* kyr) { return kyr->targetEndpoint; }
int kyrGetMaxTargetEndpointsPerRequest(Kyr* kyr) { return kyr->maxTargetEndpointsPerRequest; }
void kyrSetMaxTargetEndpointsPerRequest(Kyr* kyr, int max) {
  kyr->maxTargetEndpointsPerRequest = max;
}
Boolean kyrPrivateHeadersDisabled(Kyr* kyr) { return kyr->privateHeadersDisabled; }
unsigned int kyrGetMaxElapsedTimePerRequest(Kyr* kyr) {
  return kyr->maxElapsedTimePerRequestInMillis;
}

Boolean kyrIsServerProcess(Kyr* kyr) { return kyr->processType == KYR_SERVER_PROCESS; }
Boolean kyrIsClientProcess(Kyr* kyr) { return kyr->processType == KYR_CLIENT_PROCESS; }
Boolean kyrIsStandaloneProcess(Kyr* kyr) { return kyr->processType == KYR_STANDALONE_PROCESS; }

const char* kyrGetProcessTypeName(KyrProcessType type) {
  switch (type) {
    case KYR_STANDALONE_PROCESS:
      return "StandaloneProcess";
    case KYR_SERVER_PROCESS:
      return "ServerProcess";
    case KYR_CLIENT_PROCESS:
      return "ClientProcess";
    default:
      return "InvalidProcessType";
  }
}

}  // extern "C"
