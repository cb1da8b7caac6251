// What the routing fuzz targets share: a handle that formats every enabled trace message but
// prints none, one publisher connector through which documents arrive, and the steps a host
// takes for one request, with every string the library hands back read so that a dangling one
// shows under AddressSanitizer.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrPartitionData.h"
#include "support/kyrTestHost.h"
#include "trace/trSpec.h"

namespace kyrfuzz {

// Formats like a host's printer would (bad arguments are caught here) and drops the text, so a
// long run neither floods the log nor spends its time writing.
inline void discardPrintf(TrContext* context, va_list args) {
  const char* format = trContextGetFormat(context);
  char text[512];
  if (format != nullptr) vsnprintf(text, sizeof text, format, args);
}

// Reads a string the library returned, to its end.
inline void touch(const char* s) {
  static volatile size_t sink;
  if (s != nullptr) sink = sink + strlen(s);
}

// One handle for the whole process (creating one per input would cost more than the input):
// not started, so nothing connects anywhere; documents arrive through its connector.
class FuzzHandle {
 public:
  FuzzHandle() {
    host_.env.trace.printf = discardPrintf;
    kyr_ = host_.create();
    if (kyr_ == nullptr) {
      fprintf(stderr, "fuzz: cannot create the library handle\n");
      abort();
    }
    KyrConnectorGroup* group = kyrConnectorGroupCreate(kyr_, "cg1");
    connector_ = kyrConnectorCreate(group, "http://publisher.invalid:9080");
    // As a running group has them after its first document: a rebuilt version is populated
    // from this connector's stored document, and every complete document rebuilds the model
    // from scratch, which is what lets each input start from a known model.
    group->curConnector = connector_;
    group->initialized = true;
    // As a running handle: released contexts go back to the pool, as they do in a web server.
    kyr_->state = STARTED;
    // Web-server values win over the cell's, so documents cannot change these: a rollout wait
    // sleeps whole seconds, and a pool of its own size keeps each input's work alike.
    kyrSetServerCustomProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", "0");
    kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", "16");
  }

  Kyr* kyr() const { return kyr_; }

  // One document as the connector delivers it; its "version", or -1.
  int64_t apply(const std::string& text) {
    kyr::ControlLockGuard guard("fuzz");
    return kyrHandleJsonFromRestService(text.c_str(), connector_);
  }

  // What the handle keeps from one input to the next besides the model, which each target
  // rebuilds with a complete document: partition tables learnt from responses go, and so do the
  // routing changes waiting for the group to post them to the publisher (the group never runs
  // here, so they would pile up for the whole run).
  void beginInput() {
    kyr::kyrLockPartitionData(kyr_, "fuzz");
    kyr::kyrHashMapClean(kyr_->partitionIDData.map);
    kyr::kyrUnlockPartitionData(kyr_);
    kyr::KyrLockGuard guard(connector_->routesLock, "fuzz");
    json_decref(connector_->addRoutes);
    json_decref(connector_->delRoutes);
    connector_->addRoutes = nullptr;
    connector_->delRoutes = nullptr;
  }

  // Dropped trace specifications wait two seconds before they are freed, in case another
  // thread still reads one. Between inputs no request is in flight and no other thread works,
  // so they go at once: each input then gives back what it took, and libFuzzer's leak check
  // (which runs after any input that did not) stays quiet unless something really leaked.
  void endInput() { kyr::trPurgeDeathRow(); }

  // A document of the harness itself: one that does not apply means the harness is broken, not
  // the input, so it ends the run at once.
  void applyKnown(const std::string& text, int64_t version, const char* what) {
    if (apply(text) != version) {
      fprintf(stderr, "fuzz: the %s document did not apply\n", what);
      abort();
    }
  }

 private:
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnector* connector_ = nullptr;
};

// A request between its routing and its release.
struct InFlight {
  KyrHttpContext* ctx = nullptr;
  KyrTargetEndpoint* endpoint = nullptr;
};

inline void readEndpoint(KyrTargetEndpoint* endpoint) {
  touch(kyrTargetEndpointGetName(endpoint));
  touch(kyrTargetEndpointGetProtocol(endpoint));
  touch(kyrTargetEndpointGetHostName(endpoint));
  touch(kyrTargetEndpointGetCloneId(endpoint));
  touch(kyrTargetEndpointGetClusterName(endpoint));
  kyrTargetEndpointGetPort(endpoint);
}

inline void readDecision(KyrHttpContext* ctx) {
  touch(kyrHttpContextGetURL(ctx));
  touch(kyrHttpContextGetApplicationName(ctx));
  touch(kyrHttpContextGetModuleName(ctx));
  touch(kyrHttpContextGetMatchedVHostName(ctx));
  touch(kyrHttpContextGetErrorMsg(ctx));
  touch(kyrHttpContextGetRedirectURL(ctx));
  touch(kyrHttpContextGetTargetEndpointServerName(ctx));
}

// Obtain, should-handle and, for a permitted request, the target, as a host asks for them.
inline InFlight routeRequest(Kyr* kyr, EnvHttpContext* request) {
  InFlight f;
  f.ctx = kyrHttpContextObtain(kyr, request);
  if (f.ctx == nullptr) return f;
  if (kyrHttpContextShouldHandle(f.ctx) == 1 && kyrHttpContextGetAction(f.ctx) == PERMIT) {
    touch(kyrHttpContextGetApplicationEditionName(f.ctx));
    f.endpoint = kyrHttpContextGetTargetEndpoint(f.ctx);
    if (f.endpoint != nullptr) readEndpoint(f.endpoint);
  }
  readDecision(f.ctx);
  return f;
}

// The forwarded request's progress up to its response (which runs the response processing),
// then the release that every obtained context gets.
inline void completeRequest(InFlight& f) {
  if (f.ctx == nullptr) return;
  if (f.endpoint != nullptr) {
    for (KyrHttpContextState state :
         {CONNECT_SUCCESS, REQUEST_SENDING, REQUEST_SENT, RESPONSE_ARRIVED, RESPONSE_SENT}) {
      kyrHttpContextSetState(f.ctx, state, 0, nullptr);
    }
  }
  readDecision(f.ctx);
  kyrHttpContextRelease(f.ctx);
  f = InFlight{};
}

}  // namespace kyrfuzz
