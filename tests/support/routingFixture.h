// A handle loaded with one routing document of tests/data through a connector
// (cell-routing.json unless a derived fixture names another), and the steps a host takes for one
// request (obtain, should-handle, get-target-endpoint, state reports, release), for the request,
// selection and handle tests.
//
// The cell of cell-routing.json: cluster "web" (s1 weight 2, s2 and s3 weight 1; clone IDs
// c1..c3; cookie JSESSIONID, separator ":") serves /shop and /empty (no server runs it); "secure"
// (s4, https endpoints only) serves /vault; "edge" (e1, a web server without clone ID, learns
// clone IDs) serves /portal; "front" (f1, a web server with clone ID c9) serves /front; "duo" (d1
// weight 2 with a second http endpoint duo.example.com:80, d2 weight 1) serves /duo on the
// virtual host duo.example.com:80 only; /orphan has no cluster. Everything else is on any host,
// port 80/443.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrRoutingInfo.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"
#include "support/traceCapture.h"
#include "trace/trSpec.h"

namespace kyrtest {

constexpr const char* kCell = "/cell/route";

inline std::string serverPath(const char* node, const char* server) {
  return std::string(kCell) + "/node/" + node + "/server/" + server;
}

inline std::string modulePath(const char* app) {
  return std::string(kCell) + "/application/" + app + "/webModule/" + app + ".war";
}

// A delta on one object: `op` is "add", "set" or "del", `props` a JSON object text.
inline std::string delta(int version, const char* op, const std::string& type,
                         const std::string& name, const std::string& props = "{}") {
  return "{\"version\":" + std::to_string(version) + ",\"delta\":true,\"" + op +
         "\":{\"objects\":{\"type\":\"" + type + "\",\"name\":\"" + name + "\",\"props\":" + props +
         "}}}";
}

// The level a request's own trace specification allows for "http.request.process".
inline int requestTraceLevel(Kyr* kyr, KyrHttpContext* ctx) {
  TrSpec* spec = trContextGetSpec(kyrHttpContextGetTrContext(ctx));
  int level = kyr::trSpecGetMaxLevel(spec, trRecordGet(kyr->trMgr, "http.request.process"));
  trSpecRefRelease(spec);
  return level;
}

// The cookies the library set through the host's setter, "name=value" joined by " | ".
inline std::string cookiesSet(const EnvHttpContext& r) {
  std::string all;
  for (const auto& [name, value] : r.responseCookies) {
    all += (all.empty() ? "" : " | ") + name + "=" + value;
  }
  return all;
}

class RoutingFixture : public ::testing::Test {
 protected:
  // Derived fixtures change host_ and document_ in their constructors, before the handle exists.
  RoutingFixture() { host_.env.trace.printf = capturePrintf; }
  // What a derived fixture sets on the new handle before the document is read.
  virtual void prepare() {}

  void SetUp() override {
    printed().clear();
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    prepare();
    connector_ = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "cg1"), "http://p:9080");
    connector_->cg->curConnector = connector_;  // as a started group has it
    version_ = static_cast<int>(apply(readTestData(document_)));
    ASSERT_GT(version_, 0);
  }
  void TearDown() override {
    for (KyrHttpContext* ctx : open_) kyrHttpContextRelease(ctx);
    kyrDestroy(kyr_);
  }

  int64_t apply(const std::string& doc) {
    kyr::ControlLockGuard guard("test");
    return kyrHandleJsonFromRestService(doc.c_str(), connector_);
  }
  // Changes the current version in place.
  void change(const char* op, const std::string& type, const std::string& name,
              const std::string& props = "{}") {
    int version = ++version_;
    ASSERT_EQ(apply(delta(version, op, type, name, props)), version);
  }
  void set(const std::string& type, const std::string& name, const std::string& props) {
    change("set", type, name, props);
  }

  // A new toy request; it lives as long as the fixture.
  EnvHttpContext& request(const std::string& path, const std::string& host = "www.example.com",
                          int port = 80) {
    EnvHttpContext& r = requests_.emplace_back();
    r.path = path;
    r.virtualHost = host;
    r.virtualPort = port;
    return r;
  }
  KyrHttpContext* obtain(EnvHttpContext& r) {
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &r);
    open_.push_back(ctx);
    return ctx;
  }
  // Obtain, should-handle and get-target-endpoint; the context stays open.
  KyrHttpContext* route(EnvHttpContext& r) {
    KyrHttpContext* ctx = obtain(r);
    kyrHttpContextShouldHandle(ctx);
    kyrHttpContextGetTargetEndpoint(ctx);
    return ctx;
  }
  KyrHttpContext* route(const std::string& path) { return route(request(path)); }
  // The short name of the server a context was routed to, or "" without one.
  static std::string serverOf(KyrHttpContext* ctx) {
    const char* name = kyrHttpContextGetTargetEndpointServerName(ctx);
    if (name == nullptr) return "";
    std::string full = name;
    return full.substr(full.rfind('/') + 1);
  }
  // A forwarded request whose response arrived.
  static void complete(KyrHttpContext* ctx) {
    kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
    kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
    kyrHttpContextSetState(ctx, RESPONSE_ARRIVED, 0, nullptr);
  }
  void release(KyrHttpContext* ctx) {
    std::erase(open_, ctx);
    kyrHttpContextRelease(ctx);
  }
  // Routes, completes and releases one request; the server it went to.
  std::string serve(EnvHttpContext& r) {
    KyrHttpContext* ctx = route(r);
    std::string server = serverOf(ctx);
    complete(ctx);
    release(ctx);
    return server;
  }

  template <class T>
  T* object(const std::string& fullName) {
    return static_cast<T*>(kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo, fullName.c_str()));
  }
  kyr::TargetServer* server(const char* node, const char* name) {
    return object<kyr::TargetServer>(serverPath(node, name));
  }
  kyr::VirtualCluster* virtualCluster(const char* app) {
    auto* ts = kyr::kyrRoutingInfoGetTargetSelector(kyr_->routingInfo);
    return static_cast<kyr::VirtualCluster*>(
        kyr::kyrHashGet(ts->virtualClusterMap, modulePath(app).c_str()));
  }

  TestHost host_;
  const char* document_ = "cell-routing.json";
  Kyr* kyr_ = nullptr;
  KyrConnector* connector_ = nullptr;
  int version_ = 0;  // of the routing data last applied; the next delta's is one more
  std::deque<EnvHttpContext> requests_;  // stable addresses for the contexts that hold them
  std::vector<KyrHttpContext*> open_;
};

}  // namespace kyrtest
