// Running a connector group: the loop that picks the next connector and sends it the initial
// request, and the retry after a full round of failures, through the host's alarm.
#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "connector/kyrInterestSpec.h"
#include "connector/kyrRestRequest.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// What a queued run or an alarm carries: the group, and the run it was made for. A stop or a
// new start makes it stale, so a run queued before a restart, or an alarm that fires late (it
// cannot be cancelled), does nothing.
struct RunTicket {
  KyrConnectorGroup* cg;  // the ticket holds a reference until it has been used
  int ticket;
};

RunTicket* runTicketCreate(KyrConnectorGroup* cg, const char* reason) {
  auto* run = kyrNew<RunTicket>();
  run->cg = cg;
  run->ticket = ++cg->runTicket;
  kyrConnectorGroupObtainRef(cg, reason);
  return run;
}

void runTicketDelete(RunTicket* run, const char* reason) {
  KyrConnectorGroup* cg = run->cg;
  kyrDelete(run);
  kyrConnectorGroupReleaseRef(cg, reason);
}

bool isStopped(const KyrConnectorGroup* cg) {
  return cg->state == STOPPING || cg->state == STOPPED || cg->state == DELETED;
}

void scheduleRetry(KyrConnectorGroup* cg) {
  trDebug(cg->trCtx, cg->debugCtl,
          "kyrConnectorGroupRunWork: waiting %d seconds before retrying %s\n", cg->maxRetryInterval,
          cg->name);
  RunTicket* run = runTicketCreate(cg, "kyrConnectorGroupRunByAlarm");
  const EnvCallBacks& env = cg->kyr->env;
  int milliseconds = cg->maxRetryInterval * 1000;
  int rc = env.alarm != nullptr ? env.alarm(kyrConnectorGroupRunByAlarm, run, milliseconds)
                                : env.alarm_ex(kyrConnectorGroupRunByAlarm, run, milliseconds,
                                               const_cast<EnvCallBacks*>(&env));
  if (rc == 0) return;
  trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_ERROR,
          "kyrConnectorGroupRunWork: no alarm could be set to retry %s\n", cg->name);
  runTicketDelete(run, "kyrConnectorGroupRunByAlarm");
}

// Work item queued by start: runs the loop with the control lock, off the starter's thread.
void runAsync(Kyr* /*kyr*/, void* obj) {
  auto* run = static_cast<RunTicket*>(obj);
  {
    ControlLockGuard guard("kyrConnectorGroupRun");
    if (run->ticket == run->cg->runTicket && !isStopped(run->cg)) {
      kyrConnectorGroupRunWork(run->cg, false);
    }
  }
  runTicketDelete(run, "kyrConnectorGroupRun");
}

}  // namespace

KyrConnector* kyrConnectorGroupGetNextConnectorToTry(KyrConnectorGroup* cg) {
  KyrListEle* next = nullptr;
  if (cg->curConnector != nullptr && cg->curConnector->listEle != nullptr) {
    next = kyrListGetNext(cg->curConnector->listEle);
  }
  if (next == nullptr) next = kyrListGetHead(cg->connectorList);
  cg->curConnector =
      next != nullptr ? static_cast<KyrConnector*>(kyrListEleGetObject(next)) : nullptr;
  return cg->curConnector;
}

void kyrConnectorGroupRun(KyrConnectorGroup* cg) {
  kyrProcessAsync(cg->kyr, runTicketCreate(cg, "kyrConnectorGroupRun"), runAsync);
}

void kyrConnectorGroupRunWork(KyrConnectorGroup* cg, bool obtainRef) {
  kyrControlLockAssertHeld();
  if (obtainRef) kyrConnectorGroupObtainRef(cg, "KyrConnectorGroupRunWork entry");
  KyrRestRequest* req = kyrRestRequestCreate(RRT_INIT, cg);
  while (!isStopped(cg)) {
    int connectors = kyrListGetCount(cg->connectorList);
    if (connectors == 0) {
      // Nothing to retry until the host adds a connector and starts the group again.
      trLog(cg->trCtx, cg->noConnectorERR);
      kyrConnectorGroupSetState(cg, FAILED, "no connectors");
      break;
    }
    if (cg->consecutiveFailures >= connectors) {
      kyrConnectorGroupSetState(cg, FAILED, "failure on all connectors");
      cg->consecutiveFailures = 0;
      scheduleRetry(cg);
      break;
    }
    KyrConnector* c = kyrConnectorGroupGetNextConnectorToTry(cg);
    kyrConnectorSetState(c, STARTING, "starting");
    if (c->client == nullptr) c->client = cg->kyr->env.http.connector.open(c);
    if (c->client == nullptr) {
      ++cg->consecutiveFailures;
      ++c->failures;
      kyrConnectorSetState(c, FAILED, "open failed");
      continue;
    }
    kyrRestRequestSetText(req, kyrConnectorGroupGetInterestSpec2(cg));
    if (kyrConnectorRequestSend(c, req) == 0) {
      req = nullptr;  // the response handler carries on with it
      break;
    }
    ++cg->consecutiveFailures;
    ++c->failures;
    kyrConnectorSetState(c, FAILED, "send failed");
  }
  kyrRestRequestDelete(req);
  if (obtainRef) kyrConnectorGroupReleaseRef(cg, "KyrConnectorGroupRunWork entry");
}

void kyrConnectorGroupRunByAlarm(void* arg) {
  auto* run = static_cast<RunTicket*>(arg);
  {
    ControlLockGuard guard("kyrConnectorGroupRunByAlarm");
    if (run->ticket == run->cg->runTicket && run->cg->state == FAILED) {
      kyrConnectorGroupRunWork(run->cg, false);
    }
  }
  runTicketDelete(run, "kyrConnectorGroupRunByAlarm");
}

}  // namespace kyr
