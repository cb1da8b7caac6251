// REST requests and their answers. An answer to the initial request or a long poll is applied
// as routing data and the same request goes out again at once as the next long poll, carrying
// the version id now held; a failed one moves the group on to its next connector.
#include "connector/kyrRestRequest.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

void dropResponse(KyrRestRequest* req, KyrHttpResponse* response) {
  if (response != nullptr && req->freeResponse != nullptr) req->freeResponse(response);
}

void clearBody(KyrRestRequest* req) {
  if (req->freeBody) kyrFree(req->body);
  req->body = nullptr;
  req->freeBody = false;
  json_decref(req->json);
  req->json = nullptr;
}

// The group moves on: the connector that failed is marked and the group tries its next one.
void connectorFailed(KyrRestRequest* req, const char* reason) {
  KyrConnector* c = req->c;
  ++c->failures;
  ++req->cg->consecutiveFailures;
  kyrConnectorSetState(c, FAILED, reason);
  kyrConnectorGroupRunWork(req->cg, true);
  kyrRestRequestDelete(req);
}

// Turns the request into the next long poll for the version held and sends it.
void sendNextPoll(KyrRestRequest* req, int64_t vid) {
  char query[64];
  snprintf(query, sizeof query, "&vid=%" PRId64 "&wait=%d", vid, req->cg->waitTime);
  size_t length = strlen(req->cg->restURI) + strlen(query) + 1;
  char* uri = static_cast<char*>(kyrMalloc(length));
  snprintf(uri, length, "%s%s", req->cg->restURI, query);
  kyrFree(req->uri);
  req->uri = uri;
  req->method = "GET";
  clearBody(req);
  if (kyrConnectorRequestSend(req->c, req) != 0) connectorFailed(req, "send failure");
}

// The handling of one answer, under the control lock.
void handleResponse(KyrRestRequest* req, KyrHttpResponse* response) {
  KyrConnector* c = req->c;
  if (!req->cancelled) kyrListFindAndRemove(c->outstandingRestRequestList, req);
  bool dataRequest = req->type == RRT_INIT || req->type == RRT_WAIT_FOR_DELTA;
  if (req->cancelled || !dataRequest) {
    if (!req->cancelled) kyrConnectorValidateResponse(c, response, req);
    dropResponse(req, response);
    kyrRestRequestDelete(req);
    return;
  }
  if (!kyrConnectorValidateResponse(c, response, req)) {
    dropResponse(req, response);
    kyrConnectorCloseClient(c);
    connectorFailed(req, "no valid response");
    return;
  }
  KyrConnectorGroup* cg = req->cg;
  bool init = req->type == RRT_INIT;
  // Set before the document is applied: a complete document from a publisher replaces the model
  // instead of merging into what the host may have fed by hand.
  if (init) cg->initialized = true;
  int64_t vid = kyrHandleJsonFromRestService(response->body, c);
  dropResponse(req, response);
  if (vid < 0) {
    // Without a version id there is nothing to poll for: the publisher is not usable.
    trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_ERROR,
            "no version id in the response from %s for request type %s\n", c->URL,
            kyrRestRequestTypeName(req->type));
    kyrConnectorCloseClient(c);
    connectorFailed(req, "no version id in the response");
    return;
  }
  if (init) {
    // The states change once the document is in place, so a host that waits for STARTED
    // routes with the publisher's data.
    req->type = RRT_WAIT_FOR_DELTA;
    req->maxWait = cg->waitTime + cg->maxWaitOffset;
    kyrConnectorSetState(c, STARTED, "started");
    cg->consecutiveFailures = 0;
    kyrConnectorGroupSetState(cg, STARTED, "started");
    kyrConnectorFlushRoutingChanges(c);
  }
  sendNextPoll(req, vid);
}

}  // namespace

const char* kyrRestRequestTypeName(int type) {
  switch (type) {
    case RRT_INIT:
      return "init";
    case RRT_WAIT_FOR_DELTA:
      return "waitForDelta";
    case RRT_ROUTE_CHANGE:
      return "routeChange";
    case RRT_HEALTH_POLICY_TRIGGER:
      return "healthPolicyTrigger";
    default:
      return "INVALID";
  }
}

KyrRestRequest* kyrRestRequestCreate(KyrRestRequestType type, KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  auto* req = kyrNew<KyrRestRequest>();
  req->type = type;
  req->kyr = cg->kyr;
  req->cg = cg;
  kyrConnectorGroupObtainRef(cg, "kyrRestRequestCreate");
  req->cb = &cg->kyr->env;
  req->method = type == RRT_WAIT_FOR_DELTA ? "GET" : "POST";
  req->uri = kyrStrdup(cg->restURI);
  req->maxWait = cg->waitTime + cg->maxWaitOffset;
  req->freeResponse = req->cb->http.connector.freeResponse;
  req->close = req->cb->http.connector.close;
  req->ctx = cg->trCtx;
  req->rec = cg->jsonSentRec;
  return req;
}

void kyrRestRequestSetText(KyrRestRequest* req, const char* text) {
  clearBody(req);
  req->body = kyrStrdup(text);
  req->freeBody = true;
}

void kyrRestRequestSetJson(KyrRestRequest* req, json_t* json) {
  clearBody(req);
  req->json = json;
  char* text = json_dumps(json, JSON_COMPACT);
  req->body = kyrStrdup(text != nullptr ? text : "{}");
  free(text);
  req->freeBody = true;
}

void kyrRestRequestCancel(KyrRestRequest* req) { req->cancelled = true; }

void kyrRestRequestDelete(KyrRestRequest* req) {
  if (req == nullptr) return;
  clearBody(req);
  kyrFree(req->uri);
  if (req->c != nullptr) kyrConnectorReleaseRef(req->c, "kyrRestRequestDelete");
  kyrConnectorGroupReleaseRef(req->cg, "kyrRestRequestDelete");
  kyrDelete(req);
}

void kyrRestResponseHandler(KyrHttpResponse* response, KyrHttpResponseContext* passback) {
  auto* req = reinterpret_cast<KyrRestRequest*>(passback);
  Kyr* kyr = req->kyr;
  bool lastForDestroy;
  {
    // The count falls last and under the lock: a destroy waiting for it still holds the
    // handle, and once it sees zero it takes the lock again only after this thread let go.
    ControlLockGuard guard("kyrRestResponseHandler");
    handleResponse(req, response);
    lastForDestroy = --kyr->restRequestsInFlight == 0 && kyr->destroyLeftToRequests;
  }
  if (lastForDestroy) kyrReleaseRef(kyr, "kyrDestroy2");
}

}  // namespace kyr
