// The library handle: the one object a host creates. It owns the host's callback table, the
// trace manager and the handle's trace records, the connector groups, the current routing
// version, the request-context pool, the custom properties and the process type. This header
// is the handle's layout and the handle-level calls that are not part of the public API.
//
// Lock order. A thread holding one of these locks takes only locks further down the list:
//   1. the control lock (process-wide): start, stop, destroy, document application;
//   2. the lock of a rule set (a work class's edition rules, the request-trace rules, a trace
//      rule set), held while a document changes it and while a request matches trace rules
//      (edition rules are matched without it);
//   3. the selector lock of a version's target model;
//   4. kyr->partitionIDData.lock, taken inside selection for partition IDs and by private
//      headers and response processing;
//   5. kyr->endPointRefLock, taken while the selector lock holds to share host endpoint objects;
//   6. the server process's clientSocketListLock, held while a broadcast takes the send lock;
//   7. leaves that take nothing else: routingInfoLock, a pool shard's contextPoolLock,
//      trSpecLock, rm->lock (a version's application roots), a property set's lock, the worker
//      queue's lock, a connector's route-change lock, a process object's send lock, trace locks.
// Host callbacks that run while the library holds a lock, and so must not call back into it:
//   - stateChange.kyr, stateChange.kyrConnectorGroup, stateChange.kyrConnector: the control lock;
//   - http.connector.open, sendRequest and close, alarm and alarm_ex: the control lock (a
//     transport answers on another thread, whose handler then waits for that lock);
//   - the http.request getters (headers, cookies, path, query, client data): a rule set's lock
//     while trace rules are matched (selection reads the session before it takes the selector
//     lock);
//   - http.request.setHeaderValue: the partition lock, for the partition-table version header
//     (the other private headers and the affinity-break header are written without a lock);
//   - targetEndpoint.create and targetEndpoint.release: the selector lock and endPointRefLock;
//   - trace.printf: whatever lock the writer of the line holds.
#pragma once

#include <jansson.h>

#include <atomic>

#include "kyrlib.h"
#include "runtime/kyrHash.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "runtime/kyrProperties.h"
#include "runtime/kyrThread.h"
#include "runtime/kyrTime.h"

namespace kyr {

// Owned by modules that attach themselves to the handle; the handle only holds the pointer.
struct KyrRoutingInfo;
struct Language;
struct KyrRules;
struct HealthMonitor;

struct KyrPartitionIDData {
  KyrHashMap* map;  // cluster name -> partition data; guarded by lock
  KyrLock* lock;
  // Set under the lock, atomically, when the first table is stored. Tables are replaced but
  // never removed, so a request that finds it unset knows there is nothing to look up and
  // spares itself the lock (most cells never send a partition table).
  bool any;
};

// One shard of the handle's request-context pool. A request thread gives its contexts back to
// the shard of its thread slot and takes from it first, so two threads do not pass one lock and
// one list head between their cores on every request; a thread whose shard is empty takes from
// the others, so contexts released on another thread than the one that obtained them are still
// used again.
struct KyrContextPool {
  // The newest pooled context, linked to the older ones by their poolNext (last in, first out:
  // no list element is allocated and freed per request). Guarded by contextPoolLock.
  KyrHttpContext* contextPool;
  KyrLock* contextPoolLock;
  // The contexts' count, stored under the lock and read without it: takers skip empty shards
  // and the pool's bound is checked against the sum without taking every shard's lock.
  std::atomic<int> size;
  // Shards lie side by side in the handle: 128 bytes apiece keep each shard's fields off the
  // cache lines of its neighbours whatever the handle's alignment.
  char padding[128 - 2 * sizeof(void*) - sizeof(std::atomic<int>)];
};

using AsyncCallbackFcn = void (*)(Kyr* kyr, void* obj);

}  // namespace kyr

struct _Kyr {
  // Holders: the creator (dropped by kyrDestroy), each connector group, each request context
  // and each routing-information version. Atomic because those holders release under
  // different locks (control lock, routingInfoLock, contextPoolLock).
  std::atomic<int> refcnt;
  EnvCallBacks env;
  // Written under the control lock; atomic because request threads and the host read it
  // without that lock.
  std::atomic<KyrComponentState> state;
  KyrSSLMapMode sslMapMode;
  kyr::KyrList* connectorGroupList;  // of KyrConnectorGroup; changed under the control lock
  kyr::KyrProperties* props;
  kyr::KyrHashMap* defaultProps;  // cell-level custom property values (malloc'd copies)
  kyr::KyrHashMap* serverProps;   // web-server-level custom property values (malloc'd copies)
  int maxHttpContextPoolSize;
  kyr::KyrContextPool contextPools[kyr::kThreadSlots];
  KyrTargetEndpoint* targetEndpoint;
  int maxTargetEndpointsPerRequest;
  kyr::KyrLock* routingInfoLock;  // guards routingInfo, newRoutingInfo and version refcounts
  kyr::KyrRoutingInfo* routingInfo;
  kyr::KyrRoutingInfo* newRoutingInfo;
  // Endpoint name -> EndPointRef. Guarded by endPointRefLock: the target selectors of several
  // routing versions, each under its own lock, obtain and release host objects concurrently.
  kyr::KyrHashMap* endPointRefMap;
  kyr::KyrLock* endPointRefLock;  // guards endPointRefMap and the counts of its references
  kyr::KyrHashMap* sappMap;
  kyr::KyrPartitionIDData partitionIDData;
  TrMgr* trMgr;
  // Guarded by trSpecLock, and stored atomically: requests test it for null without the lock.
  TrSpec* customPropDefaultRequestTraceSpec;
  kyr::KyrLock* trSpecLock;  // guards the default and default-request trace specifications
  TrContext* trCtx;
  TrRecord* processRec;
  TrRecord* controlStateChangeRec;
  TrRecord* jsonReceivedRec;
  TrRecord* jsonUpdatedRec;
  TrRecord* invalidJSON;
  TrRecord* invalidAction;
  TrRecord* invalidKey;
  TrRecord* ipcProcessRec;
  TrRecord* requestTraceSpecAdded;
  TrRecord* requestTraceSpecRemoved;
  TrRecord* defaultReqTraceSpecSet;
  TrRecord* defaultReqTraceSpecReset;
  TrRecord* defaultTraceSpecSet;
  TrRecord* defaultTraceSpecReset;
  KyrProcessType processType;
  char* unixDomainSocketPath;
  uid_t unixDomainSocketUid;
  KyrServerProcess* serverProcess;  // owned; made by kyrMarkAsServerProcess
  KyrClientProcess* clientProcess;  // owned; made by kyrMarkAsClientProcess
  kyr::Language* httpLanguage;
  kyr::KyrRules* requestTraceRules;
  int maxSecondsToWaitDuringAtomicRollout;
  char* serverName;
  char* ppid;
  char* serverPath;
  char* cellPath;
  kyr::HealthMonitor* healthMonitor;
  kyr::KyrCondition* asyncWorkCondition;  // its lock guards asyncWorkQueue and the handshakes
  kyr::KyrList* asyncWorkQueue;           // of KyrAsyncWork, first in first out
  kyr::KyrThread* asyncWorkThread;
  json_t* controlState;  // owned reference; NULL unless a server process sent one
  Boolean privateHeadersDisabled;
  kyr::KyrTime maxElapsedTimePerRequestInMillis;
  // Worker start and shutdown handshakes: the worker raises the first once it runs; kyrDestroy2
  // raises the second, and the worker answers with the third once the queue is empty and it
  // will touch the handle no more.
  bool asyncWorkStarted;
  bool asyncWorkStopRequested;
  bool asyncWorkStopped;
  // Set when the last reference went on the worker thread itself (a work item destroyed the
  // handle): the worker frees the handle as its own last step. Only the worker touches it.
  bool asyncWorkFreesHandle;
  // REST requests the connector transport holds: raised by each send it accepts, lowered under
  // the control lock as each answer's handling ends. Destroy waits for it to fall to zero, so
  // that no transport thread calls into the host after destroy has returned.
  std::atomic<int> restRequestsInFlight;
  // Set by a destroy that gave up waiting (a host transport still holds requests): the last of
  // them drops the creator's reference in its place. Under the control lock.
  bool destroyLeftToRequests;
};

namespace kyr {

// Holds the process-wide control lock for the lifetime of the guard.
class ControlLockGuard {
 public:
  explicit ControlLockGuard(const char* who) { kyrControlLock(who); }
  ~ControlLockGuard() { kyrControlUnlock(); }
  ControlLockGuard(const ControlLockGuard&) = delete;
  ControlLockGuard& operator=(const ControlLockGuard&) = delete;
};

// Creates the control lock on first use; kyrCreate and kyrControlLock both call it.
void kyrControlLockInit();
// Asserts that the calling thread holds the control lock (builds that check assertions).
void kyrControlLockAssertHeld();

// Lifecycle internals; each expects the caller to hold the control lock.
int kyrStart2(Kyr* kyr, int timeoutInSecs);
int kyrStop2(Kyr* kyr);
void kyrDestroy2(Kyr* kyr);
void kyrSetState(Kyr* kyr, KyrComponentState state, const char* reason);

// Frees the handle and everything it still owns; only for the holder of its last reference.
void kyrHandleFree(Kyr* kyr);

// Cell-level custom property from the routing data (the cell object's "cp." properties).
void kyrCellSetPropStr(Kyr* kyr, const char* cellName, const char* name, const char* value);

// Internal getters (their types are not part of the public API).
KyrProperties* kyrGetProperties(Kyr* kyr);
Language* kyrGetHttpLanguage(Kyr* kyr);
KyrRules* kyrGetRequestTraceRules(Kyr* kyr);
HealthMonitor* kyrGetHealthMonitor(Kyr* kyr);

// Host endpoint objects shared by every endpoint of the same name: the first obtain asks the
// host to create one, the last release hands it back. NULL when the host gives none. Any thread
// may call them; endPointRefLock is taken inside.
EnvTargetEndpoint* endPointRefObtain(Kyr* kyr, const char* name, KyrTargetEndpoint* endpoint);
void endPointRefRelease(Kyr* kyr, const char* name);
void endPointRefDelete(void* ref);

// The worker thread: queued items run on it one at a time, in queue order.
void kyrProcessAsync(Kyr* kyr, void* obj, AsyncCallbackFcn handler);
bool kyrAsyncWorkStart(Kyr* kyr);
// Ends the worker once everything queued has run. Called by kyrDestroy2 with the control lock
// held, which is released while waiting; on the worker itself it only asks and returns.
void kyrAsyncWorkStop(Kyr* kyr);
// Called by the last release before the handle is freed. Waits until the worker has ended and
// returns true; on the worker thread returns false, and the worker frees the handle itself.
bool kyrAsyncWorkReadyForFree(Kyr* kyr);
void kyrAsyncWorkDelete(void* item);

}  // namespace kyr
