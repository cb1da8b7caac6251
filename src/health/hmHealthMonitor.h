// The health monitor: checks each server's measurements against the policies linked to it,
// and tells the publisher when a policy becomes triggered for a server and when it no longer
// is. With several worker processes each measures its own traffic and the server process
// combines them, so the publisher hears one trigger per policy and server.
#pragma once

#include "kyrlib.h"
#include "runtime/kyrHash.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "runtime/kyrTime.h"

namespace kyr {

struct TargetServer;

struct HealthMonitor {
  Kyr* kyr;
  // Guards triggeredPolicyMap. Taken with the control lock held, and lets go before a trigger
  // goes out to the publisher.
  KyrLock* lock;
  // group, policy and server -> the worker processes (by socket; 1 for this process) that hold
  // the policy triggered for the server.
  KyrHashMap* triggeredPolicyMap;
  TrContext* trCtx;
  TrRecord* debugCtl;
  TrRecord* debugReq;
  TrRecord* logResponsePolicyTriggered;
  TrRecord* logTimeoutPolicyTriggered;
};

HealthMonitor* hmHealthMonitorCreate(Kyr* kyr);
void hmHealthMonitorDelete(HealthMonitor* hm);
// After a response, with the values of the interval just closed (avgRT all ones and
// timeoutPct -1 when none closed). The caller holds the server's selector lock; what must
// reach the publisher is queued for the worker thread.
void hmCheckHealthPolicies(Kyr* kyr, KyrHttpContext* ctx, TargetServer* server, KyrList* policyList,
                           KyrTime avgRT, long timeoutPct);
// A trigger record from a worker process (fd) or this one (fd 1); the control lock is held.
// -1 for a record that does not read as one.
int hmServerProcessHandleMessage(Kyr* kyr, const char* body, size_t length, int fd);
// A client process went away: what it alone held triggered is untriggered at the publisher.
void hmClientProcessCleanup(Kyr* kyr, int fd);
// The routing data is rebuilt from scratch: every link starts untriggered again, so the
// combined triggers are forgotten.
void hmResetInfo(Kyr* kyr);

}  // namespace kyr
