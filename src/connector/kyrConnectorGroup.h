// Connector groups: a named set of publisher connections of which one is in use at a time. This
// module owns the group's identity, state, references, REST path and its place in the handle's
// list; the handle derives its own state from the states of its groups.
#pragma once

#include <jansson.h>

#include <atomic>

#include "kyrlib.h"
#include "runtime/kyrList.h"
#include "runtime/kyrProperties.h"

struct KyrConnectorGroup {
  // Holders: the handle's group list (dropped by kyrConnectorGroupDelete2) and every thread
  // working for the group. Atomic because those threads release without a common lock.
  std::atomic<int> refcnt;
  Kyr* kyr;  // the group holds a reference on the handle for its whole life
  char* interestSpec;
  char* name;
  Boolean initialized;
  // Written under the control lock; atomic because the host may read it at any time.
  std::atomic<KyrComponentState> state;
  int waitTime;  // seconds a long poll may wait at the publisher
  kyr::KyrProperties* props;
  kyr::KyrList* connectorList;
  KyrConnector* curConnector;
  int maxRetryInterval;  // seconds to pause after every connector has failed
  int maxRetries;
  int maxWaitOffset;  // seconds added to waitTime for the local receive time-out
  Boolean enableAdminTraffic;
  int consecutiveFailures;
  char* uri;      // the REST path
  char* restURI;  // uri plus the query naming the group and the local server
  TrContext* trCtx;
  TrRecord* debugCtl;
  TrRecord* noConnectorERR;
  TrRecord* jsonSentRec;
  TrRecord* connectorStateChangeRec;
  // Counts starts, stops and retries, so that a queued run or an alarm made for an earlier one
  // knows it is stale. Under the control lock.
  int runTicket;
  bool interestSpecFromHost;  // else interestSpec is the library's own, built when first asked
};

namespace kyr {

// Each expects the caller to hold the control lock.
int kyrConnectorGroupStart2(KyrConnectorGroup* cg);
int kyrConnectorGroupStop2(KyrConnectorGroup* cg);
void kyrConnectorGroupSetState(KyrConnectorGroup* cg, KyrComponentState state, const char* reason);
// Queues the run loop on the handle's worker thread.
void kyrConnectorGroupRun(KyrConnectorGroup* cg);
// The run loop: tries the connectors in turn until one takes the initial request; after a full
// round of failures the group is FAILED and an alarm runs it again.
void kyrConnectorGroupRunWork(KyrConnectorGroup* cg, bool obtainRef);
// The alarm's function; its argument is what the loop gave the alarm.
void kyrConnectorGroupRunByAlarm(void* arg);
// The connector after the current one, or the first; it becomes the current one.
KyrConnector* kyrConnectorGroupGetNextConnectorToTry(KyrConnectorGroup* cg);
// Unlinks the group from its handle's list and drops the list's reference.
void kyrConnectorGroupDelete2(void* cg);

void kyrConnectorGroupObtainRef(KyrConnectorGroup* cg, const char* reason);
void kyrConnectorGroupReleaseRef(KyrConnectorGroup* cg, const char* reason);
void kyrAddConnectorGroup(Kyr* kyr, KyrConnectorGroup* cg);
// The interest list the initial request carries: the host's, or the library's own.
const char* kyrConnectorGroupGetInterestSpec2(KyrConnectorGroup* cg);
// Rebuilds restURI from uri, the group's name and the handle's server name.
void kyrConnectorGroupUpdateRestURI(KyrConnectorGroup* cg);

// The group and its connectors for the state report; the caller holds the control lock.
json_t* kyrConnectorGroupToJSON(KyrConnectorGroup* cg);
json_t* kyrConnectorToJSON(KyrConnector* c);

}  // namespace kyr
