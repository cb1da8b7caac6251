// Connectors: one publisher URL inside a connector group. This module owns the connector's
// identity, state, references, the complete routing document it last delivered with its
// version ids, and the route changes queued for its publisher.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstdint>

#include "kyrlib.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "runtime/kyrProperties.h"

namespace kyr {
struct KyrRestRequest;
}

struct KyrConnector {
  // Holders: the group's connector list (dropped by kyrConnectorDelete) and each REST request
  // in flight. Atomic because request threads release without a common lock.
  std::atomic<int> refcnt;
  Kyr* kyr;
  KyrConnectorGroup* cg;
  char* URL;
  std::atomic<KyrComponentState> state;
  kyr::KyrProperties* props;
  EnvConnectorClient* client;
  json_t* json;         // owned: the complete document, kept current under deltas
  int64_t vid;          // version id of the data held; -1 before any
  int64_t restVersion;  // the publisher's protocol level; -1 when unknown
  Boolean isInit;
  Boolean processingJSON;  // a document from this connector is being applied
  json_t* addRoutes;       // owned arrays of server-application names waiting to be posted
  json_t* delRoutes;
  // Guards addRoutes and delRoutes: request threads post a route as its last request drains,
  // while the thread applying routing data posts under another version's selector lock.
  kyr::KyrLock* routesLock;
  int failures;
  // The requests sent and not yet answered; under the control lock.
  kyr::KyrList* outstandingRestRequestList;
  kyr::KyrListEle* listEle;  // this connector's element in the group's list
};

namespace kyr {

// Appends a new connector to the group's list; the caller holds the control lock.
KyrConnector* kyrConnectorCreate2(KyrConnectorGroup* cg, const char* url);
void kyrConnectorSetState(KyrConnector* c, KyrComponentState state, const char* reason);
// Takes over the caller's reference to the document (NULL drops the stored one).
void kyrConnectorSetJSON(KyrConnector* c, json_t* json);
void kyrConnectorSetProcessingJSON(KyrConnector* c, bool processing);
// Queues a server application's route as routable (add) or not; the queue is posted to the
// publisher by the connector's REST requests.
void kyrConnectorPostRoutingChange(KyrConnector* c, const char* route, bool add);
void kyrConnectorObtainRef(KyrConnector* c, const char* reason);
// The connector's side of REST requests; each expects the caller to hold the control lock.
// Sends through the connector's client; the request takes a reference on the connector (kept
// when it is sent again) and waits in the outstanding list for its answer. 0, or -1 when the
// transport refused it.
int kyrConnectorRequestSend(KyrConnector* c, KyrRestRequest* req);
// False, with the reason written, for no answer or an error status.
bool kyrConnectorValidateResponse(KyrConnector* c, KyrHttpResponse* response, KyrRestRequest* req);
// Cancels what is in flight, closes the client and leaves the connector STOPPED.
void kyrConnectorStop(KyrConnector* c);
void kyrConnectorCloseClient(KyrConnector* c);
// Posts the queued route changes in one request once nothing holds them back: no document of
// this connector is being applied and the connector talks to its publisher.
void kyrConnectorFlushRoutingChanges(KyrConnector* c);
void kyrConnectorReleaseRef(KyrConnector* c, const char* reason);

KyrConnector* kyrConnectorGroupFindConnector(KyrConnectorGroup* cg, const char* url);
void kyrConnectorGroupRemoveConnector(KyrConnectorGroup* cg, KyrConnector* c);
KyrConnectorGroup* kyrFindConnectorGroup(Kyr* kyr, const char* name);
// The connector named by a document's "connectorGroupName" and "connectorURL"; with create, a
// missing connector of an existing group is made.
KyrConnector* kyrFindConnectorFromJson(Kyr* kyr, json_t* json, bool create);

}  // namespace kyr
