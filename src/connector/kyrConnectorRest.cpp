// A connector's side of its REST requests: sending through its client, checking answers,
// stopping with requests in flight, and posting the route changes queued for its publisher.
#include <cstdlib>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "connector/kyrRestRequest.h"
#include "core/kyr.h"
#include "core/kyrProcessMessages.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Work item: posts what request threads queued, once the control lock is free.
void flushRoutingChangesAsync(Kyr* /*kyr*/, void* obj) {
  auto* c = static_cast<KyrConnector*>(obj);
  {
    ControlLockGuard guard("flushRoutingChangesAsync");
    kyrConnectorFlushRoutingChanges(c);
  }
  kyrConnectorReleaseRef(c, "kyrConnectorPostRoutingChange");
}

void appendRoute(json_t** routes, const char* route) {
  if (*routes == nullptr) *routes = json_array();
  json_array_append_new(*routes, json_string(route));
}

}  // namespace

int kyrConnectorRequestSend(KyrConnector* c, KyrRestRequest* req) {
  kyrControlLockAssertHeld();
  if (req->c != c) {
    kyrConnectorObtainRef(c, "kyrConnectorRequestSend");
    if (req->c != nullptr) kyrConnectorReleaseRef(req->c, "kyrConnectorRequestSend");
    req->c = c;
  }
  req->client = c->client;
  KyrConnectorGroup* cg = c->cg;
  trDebug(cg->trCtx, cg->jsonSentRec, "Sending %s request %s %s to %s\n%s\n",
          kyrRestRequestTypeName(req->type), req->method, req->uri, c->URL, kyrNullText(req->body));
  // Listed before it goes out: the answer may come on another thread at once, and its handler
  // waits for the control lock this thread holds.
  kyrListAddTail(c->outstandingRestRequestList, req);
  int rc = req->cb->http.connector.sendRequest(req->client, req->method, req->uri, req->body,
                                               req->maxWait, kyrRestResponseHandler,
                                               reinterpret_cast<KyrHttpResponseContext*>(req));
  if (rc == 0) {
    ++c->kyr->restRequestsInFlight;
    return 0;
  }
  kyrListFindAndRemove(c->outstandingRestRequestList, req);
  trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_ERROR,
          "sending request type %s to %s failed with return code %d\n",
          kyrRestRequestTypeName(req->type), c->URL, rc);
  return -1;
}

bool kyrConnectorValidateResponse(KyrConnector* c, KyrHttpResponse* response, KyrRestRequest* req) {
  KyrConnectorGroup* cg = c->cg;
  const char* type = kyrRestRequestTypeName(req->type);
  // A host transport may hand over a response that timed out or was aborted: that is no answer.
  if (response == nullptr || response->timed_out != 0 || response->aborted != 0) {
    trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_ERROR,
            "no response was received from %s for request type %s\n", c->URL, type);
    return false;
  }
  if (response->responseCode < 200 || response->responseCode > 299) {
    trTrace(cg->trCtx, cg->debugCtl, TR_LEVEL_ERROR,
            "HTTP response error code %d was received from %s for request type %s\n",
            response->responseCode, c->URL, type);
    return false;
  }
  return true;
}

void kyrConnectorCloseClient(KyrConnector* c) {
  if (c->client == nullptr) return;
  EnvConnectorClient* client = c->client;
  c->client = nullptr;
  c->kyr->env.http.connector.close(client);
}

void kyrConnectorStop(KyrConnector* c) {
  kyrControlLockAssertHeld();
  trDebug(c->cg->trCtx, c->cg->debugCtl, "kyrConnectorStop - closing connector to %s\n", c->URL);
  // The requests stay with the transport until it answers; cancelled, their answers are dropped.
  while (!kyrListIsEmpty(c->outstandingRestRequestList)) {
    kyrRestRequestCancel(
        static_cast<KyrRestRequest*>(kyrListRemoveHead(c->outstandingRestRequestList)));
  }
  kyrConnectorCloseClient(c);
  kyrConnectorSetState(c, STOPPED, "stopped");
}

void kyrConnectorPostRoutingChange(KyrConnector* c, const char* route, bool add) {
  bool first;
  {
    KyrLockGuard guard(c->routesLock, "kyrConnectorPostRoutingChange");
    first = c->addRoutes == nullptr && c->delRoutes == nullptr;
    appendRoute(add ? &c->addRoutes : &c->delRoutes, route);
  }
  trDebug(c->cg->trCtx, c->cg->debugCtl, "kyrConnectorPostRoutingChange: %s %s for %s\n",
          add ? "add" : "del", route, c->URL);
  // Request threads must not wait for the control lock: the worker posts for them. One work
  // item serves everything queued until it runs. A connector that is not talking to its
  // publisher keeps the queue; it posts it once it has started.
  if (first && (c->state == STARTED || kyrIsClientProcess(c->kyr))) {
    kyrConnectorObtainRef(c, "kyrConnectorPostRoutingChange");
    kyrProcessAsync(c->kyr, c, flushRoutingChangesAsync);
  }
}

void kyrConnectorFlushRoutingChanges(KyrConnector* c) {
  kyrControlLockAssertHeld();
  bool client = kyrIsClientProcess(c->kyr);
  // A client process's connectors never talk to a publisher: the server process does, once
  // every client agrees.
  if (c->processingJSON || (!client && (c->client == nullptr || c->state != STARTED))) return;
  json_t* body = json_object();
  {
    KyrLockGuard guard(c->routesLock, "kyrConnectorFlushRoutingChanges");
    if (c->addRoutes != nullptr) json_object_set_new(body, "addRoutes", c->addRoutes);
    if (c->delRoutes != nullptr) json_object_set_new(body, "delRoutes", c->delRoutes);
    c->addRoutes = nullptr;
    c->delRoutes = nullptr;
  }
  if (json_object_size(body) == 0) {
    json_decref(body);
    return;
  }
  if (client) {
    json_object_set_new(body, "connectorGroupName", json_string(c->cg->name));
    json_object_set_new(body, "connectorURL", json_string(c->URL));
    kyrClientProcessSendJson(c->kyr, body);
    json_decref(body);
    return;
  }
  KyrRestRequest* req = kyrRestRequestCreate(RRT_ROUTE_CHANGE, c->cg);
  kyrRestRequestSetJson(req, body);
  if (kyrConnectorRequestSend(c, req) != 0) kyrRestRequestDelete(req);
}

}  // namespace kyr
