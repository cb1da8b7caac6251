// Requests routed on several threads (obtain, should-handle, get-target-endpoint, state reports,
// release) while another thread changes the model in place with deltas and switches versions
// with complete documents, or, before the connector group is initialised, applies every kind
// of change in place. Run under ThreadSanitizer; afterwards every context and version is gone
// and the memory counter is where it started.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "support/memCount.h"
#include "support/routingFixture.h"

namespace {

using kyrtest::readTestData;
using kyrtest::serverPath;

constexpr int kWorkers = 8;  // more request threads than cores, so they contend for every lock
constexpr int kRequestsPerWorker = 1000;

// The routing document with another version number and s1's weight (the first one in it)
// changed, so that each complete document really differs from the one before.
std::string completeDocument(int version, int weight) {
  std::string doc = readTestData("cell-routing.json");
  auto replaceFirst = [&doc](const std::string& from, const std::string& to) {
    doc.replace(doc.find(from), from.size(), to);
  };
  replaceFirst("\"version\": 1,", "\"version\": " + std::to_string(version) + ",");
  replaceFirst("\"weight\": 2,", "\"weight\": " + std::to_string(weight) + ",");
  return doc;
}

// One request the way a host forwards it; some connections to the three-member cluster fail
// and are retried (a failure bars its server for a while, so only there), some responses bring
// a partition table or a session cookie.
bool forward(Kyr* kyr, int worker, int i) {
  static const char* const paths[] = {"/shop/a", "/duo/x", "/vault/a;jsessionid=abc:c4",
                                      "/portal/a", "/front/a"};
  EnvHttpContext r;
  // /late comes and goes with the routing data; it takes every other /front request.
  r.path = i % 10 == 9 ? "/late/a" : paths[i % 5];
  if (i % 15 == 0) r.cookies["JSESSIONID"] = "0000abc:c2";  // on some /shop requests
  if (i % 5 == 1) r.virtualHost = "duo.example.com";
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &r);
  bool routed = false;
  if (kyrHttpContextShouldHandle(ctx) == 1) {
    KyrTargetEndpoint* tep = kyrHttpContextGetTargetEndpoint(ctx);
    if (tep != nullptr && i % 100 == 5 * worker) {
      kyrHttpContextSetState(ctx, CONNECT_FAILURE, 0, "refused");
      tep = kyrHttpContextGetTargetEndpoint(ctx);
    }
    if (tep != nullptr) {
      routed = kyrTargetEndpointGetPort(tep) > 0 && kyrTargetEndpointGetHostName(tep) != nullptr;
      kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
      kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
      r.responseHeaders["Set-Cookie"] =
          "JSESSIONID=0000abc:learnt" + std::to_string(worker) + "; Path=/";
      if (i % 11 == 0) {
        r.responseHeaders["$ZQPT"] = "p" + std::to_string(i) + ":c3";
        r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = std::to_string(i);
      }
      kyrHttpContextSetState(ctx, i % 13 == 0 ? RESPONSE_TIMEOUT : RESPONSE_ARRIVED, 0, nullptr);
      kyrHttpContextSetState(ctx, RESPONSE_SENT, 0, nullptr);
    }
  }
  kyrHttpContextRelease(ctx);
  return routed;
}

std::string delta(int version, const char* op, const std::string& body) {
  return "{\"version\":" + std::to_string(version) + ",\"restVersion\":1,\"delta\":true,\"" + op +
         "\":" + body + "}";
}

// Every kind of change a document can make in place: an application with a module, its URIs
// and links comes and goes, properties of modules, servers, clusters and endpoints change, a
// work class with a rule comes, the rule's expression and action change, the rule and then the
// work class go.
std::vector<std::string> inPlaceDocuments(int& version, int round) {
  const std::string cell = kyrtest::kCell;
  const std::string late = cell + "/application/late";
  const std::string lateModule = late + "/webModule/late.war";
  const std::string lateClass = late + "/webRouteWorkClass/late_Default_HTTP_WC";
  const std::string links = R"({"relationships": {"vHostGroup:webModule": [{"vHostGroup": ")" +
                            cell + R"(/vHostGroup/default_host", "webModule": ")" + lateModule +
                            R"("}], "cluster:webModule": [{"cluster": ")" + cell +
                            R"(/cluster/web", "webModule": ")" + lateModule +
                            R"("}], "server:webModule": [{"server": ")" + serverPath("n1", "s1") +
                            R"(", "webModule": ")" + lateModule + R"("}]}})";
  return {
      delta(++version, "add",
            R"({"objects": {"type": "application", "name": ")" + late +
                R"(", "objects": {"type": "webModule", "name": "/webModule/late.war",
           "props": {"contextRoot": "/late"}, "objects": {"type": "uri", "name": "/uri/\\/*"}}}})"),
      delta(++version, "add", links),
      delta(++version, "add",
            R"({"objects": {"type": "uri", "name": ")" + lateModule + R"(/uri/*.jsp"}})"),
      delta(++version, "del",
            R"({"objects": {"type": "uri", "name": ")" + lateModule + R"(/uri/*.jsp"}})"),
      delta(++version, "set",
            R"({"objects": {"type": "webModule", "name": ")" + lateModule +
                R"(", "props": {"contextRoot": "/late", "protocolMap": "http"}}})"),
      delta(++version, "add",
            R"({"objects": {"type": "webRouteWorkClass", "name": ")" + lateClass +
                R"(", "objects": {"type": "rule", "name": "/rule/10",
           "props": {"expression": "true", "action": "reject:503"}}}})"),
      delta(++version, "set",
            R"({"objects": {"type": "rule", "name": ")" + lateClass +
                R"(/rule/10", "props": {"expression": "uri like '/late/*'"}}})"),
      delta(++version, "set",
            R"({"objects": {"type": "rule", "name": ")" + lateClass +
                R"(/rule/10", "props": {"action": "reject:502"}}})"),
      delta(++version, "del",
            R"({"objects": {"type": "rule", "name": ")" + lateClass + R"(/rule/10"}})"),
      delta(++version, "set",
            R"({"objects": [{"type": "cluster", "name": ")" + cell +
                R"(/cluster/web", "props": {"ioTimeoutRetry": )" + std::to_string(round % 3) +
                R"(}}, {"type": "transport", "name": ")" + serverPath("n1", "s2") +
                R"(/transport/http", "props": {"port": )" + std::to_string(9080 + round % 2) +
                R"(}}, {"type": "server",
           "name": ")" +
                serverPath("n1", "s2") + R"(", "props": {"connectTimeout": 7}}]})"),
      delta(++version, "del",
            R"({"objects": {"type": "webRouteWorkClass", "name": ")" + lateClass + R"("}})"),
      delta(++version, "del", links),
      delta(++version, "del",
            R"({"objects": {"type": "webModule", "name": ")" + lateModule + R"("}})"),
      delta(++version, "del", R"({"objects": {"type": "application", "name": ")" + late + R"("}})"),
  };
}

// Deltas on the current version and, every few rounds, a complete document that replaces it
// (or, before initialisation, is applied to it).
void changeRoutingData(KyrConnector* c, const std::atomic<bool>& done, std::atomic<int>& switches,
                       bool everyInPlaceKind) {
  const std::string vault = serverPath("n2", "s4") + "/serverApplication/vault";
  int version = 1;
  for (int round = 0; !done; ++round) {
    std::vector<std::string> docs = {
        kyrtest::delta(++version, "set", "server", serverPath("n1", "s2"),
                       round % 2 ? R"({"weight":3})" : R"({"weight":1})"),
        kyrtest::delta(++version, "set", "server", serverPath("n1", "s1"),
                       round % 2 ? R"({"server.maintenancemode":"affinity"})"
                                 : R"({"server.maintenancemode":"false"})"),
        kyrtest::delta(++version, "set", "serverApplication", vault,
                       round % 3 ? R"({"state":"STARTED"})" : R"({"state":"STOPPED"})"),
        kyrtest::delta(++version, "set", "server", serverPath("n4", "d2"),
                       round % 2 ? R"({"weight":0})" : R"({"weight":1})"),
    };
    if (everyInPlaceKind) {
      for (std::string& doc : inPlaceDocuments(version, round)) docs.push_back(std::move(doc));
    }
    if (round % 4 == 3) docs.push_back(completeDocument(++version, 2 + round % 3));
    for (const std::string& doc : docs) {
      kyr::ControlLockGuard guard("test updater");
      kyrHandleJsonFromRestService(doc.c_str(), c);
    }
    if (round % 4 == 3) ++switches;
    std::this_thread::yield();
  }
}

void routeWhileDocumentsArrive(bool initialised) {
  int baseline = kyrtest::settledMemCount();
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg1"), "http://p:9080");
  c->cg->curConnector = c;
  {
    kyr::ControlLockGuard guard("test");
    ASSERT_EQ(kyrHandleJsonFromRestService(readTestData("cell-routing.json").c_str(), c), 1);
  }
  // Initialised, a complete document builds a new version; before, everything is in place.
  c->cg->initialized = initialised;
  kyr->state = STARTED;  // released contexts go back to the pool

  std::atomic<bool> done{false};
  std::atomic<int> routed{0};
  std::atomic<int> switches{0};
  std::latch go(kWorkers + 1);
  std::thread updater([&] {
    go.arrive_and_wait();
    changeRoutingData(c, done, switches, !initialised);
  });
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      go.arrive_and_wait();
      // At least a few versions come and go under the requests, however fast they are.
      for (int i = 0; i < kRequestsPerWorker || switches < 3; ++i) {
        routed += forward(kyr, w, i) ? 1 : 0;
      }
    });
  }
  for (auto& worker : workers) worker.join();
  done = true;
  updater.join();

  EXPECT_GT(routed.load(), kWorkers * kRequestsPerWorker / 2);

  // Every request gave its count back in the version it was routed with; the current one is
  // checked (the others are gone with their last request).
  auto* ts = kyr::kyrRoutingInfoGetTargetSelector(kyr->routingInfo);
  for (kyr::KyrListEle* e = kyr::kyrListGetHead(ts->allServers); e != nullptr;
       e = kyr::kyrListGetNext(e)) {
    auto* server = static_cast<kyr::TargetServer*>(kyr::kyrListEleGetObject(e));
    EXPECT_EQ(server->outstandingRequestCount, 0) << server->name;
  }
  EXPECT_EQ(kyr->routingInfo->refCount, 1);  // only the handle holds it
  kyr->state = STOPPED;
  kyrDestroy(kyr);
  kyr::trPurgeDeathRow();
  EXPECT_EQ(kyr::kyrGetMemCount(), baseline);
}

TEST(RoutingConcurrency, RequestsRouteWhileDeltasAndNewVersionsArrive) {
  routeWhileDocumentsArrive(true);
}

TEST(RoutingConcurrency, RequestsRouteWhileEveryKindOfChangeIsAppliedInPlace) {
  routeWhileDocumentsArrive(false);
}

}  // namespace
