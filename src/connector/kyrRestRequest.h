// REST requests to a publisher: the four kinds a connector sends, their bodies and time-outs,
// and the handling of each answer, which keeps a connector group polling its publisher.
#pragma once

#include <jansson.h>

#include "kyrlib.h"

namespace kyr {

enum KyrRestRequestType {
  RRT_INIT = 0,
  RRT_WAIT_FOR_DELTA = 1,
  RRT_ROUTE_CHANGE = 2,
  RRT_HEALTH_POLICY_TRIGGER = 3,
};

// "init", "waitForDelta", "routeChange", "healthPolicyTrigger"; "INVALID" for anything else.
const char* kyrRestRequestTypeName(int type);

struct KyrRestRequest {
  KyrRestRequestType type;
  Kyr* kyr;
  KyrConnectorGroup* cg;  // the request holds a reference on its group for its whole life
  KyrConnector* c;        // and one on its connector while it is in flight
  const EnvCallBacks* cb;
  const char* method;
  char* uri;   // owned
  char* body;  // owned when freeBody; null for none
  Boolean freeBody;
  json_t* json;  // the body as JSON, for the kinds that build it; owned
  EnvConnectorClient* client;
  int maxWait;  // seconds the answer may take
  void (*freeResponse)(KyrHttpResponse* response);
  void (*close)(EnvConnectorClient* client);
  TrContext* ctx;
  TrRecord* rec;
  // Set when its connector stops while it is in flight: the answer, whenever it comes, only
  // releases the request. Written and read under the control lock.
  bool cancelled;
};

// The caller holds the control lock. The URI is the group's REST URI, the time-out its long-poll
// wait plus the offset.
KyrRestRequest* kyrRestRequestCreate(KyrRestRequestType type, KyrConnectorGroup* cg);
// A copy of the text becomes the body.
void kyrRestRequestSetText(KyrRestRequest* req, const char* text);
// Takes over the body (a JSON value, written out as the text sent).
void kyrRestRequestSetJson(KyrRestRequest* req, json_t* json);
void kyrRestRequestCancel(KyrRestRequest* req);
void kyrRestRequestDelete(KyrRestRequest* req);

// The callback handed to the transport with each request (the request is the passback). Runs
// on the transport's thread and takes the control lock.
void kyrRestResponseHandler(KyrHttpResponse* response, KyrHttpResponseContext* passback);

}  // namespace kyr
