// A real library handle with a connector, and a target selector on a hand-made routing version,
// for the target model's tests. The host's endpoint objects are counted so tests can see when
// the model asks for them and hands them back.
#pragma once

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>
#include <vector>

#include "connector/kyrConnector.h"
#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"
#include "support/hostEndpoints.h"
#include "support/kyrTestHost.h"
#include "support/memCount.h"
#include "support/traceCapture.h"

namespace kyrtest {

class TargetModel : public ::testing::Test {
 protected:
  void SetUp() override {
    printed().clear();
    EnvCallBacks env = completeCallbacks();
    useHostEndpoints(env);
    env.trace.printf = capturePrintf;
    kyr_ = kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
    ASSERT_NE(kyr_, nullptr);
    c_ = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "cg1"), "http://publisher:9080");
    ri_.kyr = kyr_;
    ts_ = kyr::tsCreate(&ri_);
  }

  void TearDown() override {
    if (ts_ != nullptr) kyr::tsDelete(ts_);
    EXPECT_EQ(hostEndpoints().creates, hostEndpoints().deletes) << "host objects not returned";
    kyrDestroy(kyr_);
  }

  kyr::TargetNode* node(const char* name = "/cell/c1/node/n1") {
    return kyr::tsNodeCreate(ts_, name);
  }

  // A server created and initialised as the routing-data reader does.
  kyr::TargetServer* server(kyr::TargetNode* n, const char* name) {
    kyr::TargetServer* s = kyr::tsServerCreate(n, name, c_);
    EXPECT_TRUE(kyr::tsServerInit(s));
    return s;
  }

  // A started, load-balanced server on a cluster: selectable in every respect.
  kyr::TargetServer* runningServer(kyr::TargetNode* n, kyr::Cluster* cl, const char* name) {
    kyr::TargetServer* s = server(n, name);
    kyr::tsServerSetWeight(s, 1);
    kyr::tsServerSetState(s, "STARTED");
    kyr::tsLinkClusterServer(cl, s, true);
    return s;
  }

  kyr::TargetServerApplication* sapp(kyr::TargetServer* s, const char* path) {
    kyr::TargetServerApplication* a = kyr::tsServerApplicationCreate(s, path, c_);
    kyr::tsServerApplicationInit(a);
    return a;
  }

  KyrTargetEndpoint* endpoint(kyr::TargetServer* s, const char* name, const char* protocol,
                              const char* host = "h1", int port = 9080) {
    KyrTargetEndpoint* tep = kyr::tsEndPointCreate(s, name);
    EXPECT_TRUE(kyr::tsEndPointSetPropStr(tep, "protocol", protocol));
    EXPECT_TRUE(kyr::tsEndPointSetPropStr(tep, "host", host));
    EXPECT_TRUE(kyr::tsEndPointSetPropInt(tep, "port", port));
    return tep;
  }

  // The routes posted to the publisher so far (the connector's add or delete list).
  static std::vector<std::string> routes(json_t* array) {
    std::vector<std::string> out;
    size_t i;
    json_t* v;
    json_array_foreach(array, i, v) out.emplace_back(json_string_value(v));
    return out;
  }

  Kyr* kyr_ = nullptr;
  KyrConnector* c_ = nullptr;
  kyr::KyrRoutingInfo ri_{};
  kyr::TargetSelector* ts_ = nullptr;
};

}  // namespace kyrtest
