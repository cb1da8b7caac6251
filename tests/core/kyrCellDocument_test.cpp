// A realistic cell (two nodes, one cluster of three servers with http and https transports, two
// applications per server) read from tests/data, then changed by publisher deltas: what reaches
// the target model, what the stored complete document becomes, and that malformed documents of
// every shape leave the model as it was.
#include <gtest/gtest.h>

#include <string>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrRoutingData.h"
#include "core/kyrRoutingInfo.h"
#include "runtime/kyrTime.h"
#include "selection/kyrTargetSelector.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::printed;
using kyrtest::printedContains;

constexpr const char* kCell = "/cell/shop";
constexpr const char* kS1 = "/cell/shop/node/n1/server/s1";
constexpr const char* kS3 = "/cell/shop/node/n2/server/s3";

// The index-th child object of a document object.
json_t* child(json_t* object, size_t index) {
  return json_array_get(json_object_get(object, "objects"), index);
}

class CellDocument : public ::testing::Test {
 protected:
  void SetUp() override {
    printed().clear();
    host_.env.trace.printf = kyrtest::capturePrintf;
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    kyrSetServerName(kyr_, "shop_n1_webserver1");
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control:DEBUG"), 0);
    cg_ = kyrConnectorGroupCreate(kyr_, "cg1");
    c_ = kyrConnectorCreate(cg_, "http://publisher:9080");
    ASSERT_EQ(apply(kyrtest::readTestData("cell-small.json")), 10);
    printed().clear();
  }
  void TearDown() override { kyrDestroy(kyr_); }

  int64_t apply(const std::string& text) {
    kyr::ControlLockGuard guard("test");
    json_error_t error;
    return kyrHandleJson(json_loads(text.c_str(), 0, &error), text.c_str(), c_);
  }

  template <typename T>
  T* object(const std::string& fullName) {
    return static_cast<T*>(kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo, fullName.c_str()));
  }
  kyr::TargetServer* server(const std::string& fullName) {
    return object<kyr::TargetServer>(fullName);
  }
  kyr::TargetServerApplication* sapp(const std::string& serverName, const char* app) {
    return object<kyr::TargetServerApplication>(serverName + "/serverApplication/" + app);
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnectorGroup* cg_ = nullptr;
  KyrConnector* c_ = nullptr;
};

TEST_F(CellDocument, CompleteDocumentBuildsTheWholeTargetModel) {
  kyr::Cluster* web = object<kyr::Cluster>("/cell/shop/cluster/web");
  ASSERT_NE(web, nullptr);
  for (const char* name : {kS1, "/cell/shop/node/n1/server/s2", kS3}) {
    kyr::TargetServer* s = server(name);
    ASSERT_NE(s, nullptr) << name;
    EXPECT_EQ(kyr::tsServerGetCluster(s), web) << name;
    EXPECT_EQ(kyr::tsServerGetType(s), KYRSERVERTYPE_APPLICATION_SERVER);
    EXPECT_EQ(kyr::tsServerGetConnector(s), c_);
    for (const char* app : {"cart", "shop"}) {
      kyr::TargetServerApplication* a = sapp(name, app);
      ASSERT_NE(a, nullptr) << name << " " << app;
      EXPECT_EQ(kyr::sappIsSelectableForLoadBalancing(a, kyr::kyrGetCurrentTime()), nullptr);
    }
  }
  EXPECT_STREQ(kyr::tsServerGetCloneId(server(kS3)), "c3");
  auto* https = object<KyrTargetEndpoint>(std::string(kS1) + "/transport/https");
  ASSERT_NE(https, nullptr);
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(https), "https");
  EXPECT_STREQ(kyrTargetEndpointGetHostName(https), "h1.example.com");
  EXPECT_EQ(kyrTargetEndpointGetPort(https), 9443);
  EXPECT_EQ(kyrTargetEndpointGetConnectTimeout(https), 3);
  EXPECT_STREQ(kyrTargetEndpointGetClusterName(https), "/cell/shop/cluster/web");
  // Every application that became routable is queued for its publisher.
  EXPECT_EQ(json_array_size(c_->addRoutes), 6u);
  // Our own cell's custom property reached the handle.
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 64);
}

TEST_F(CellDocument, DeltasOfEachOperationReachTheModel) {
  // set: weight 0 takes a server out of load balancing but leaves it to affinity.
  EXPECT_EQ(apply(R"({"version": 11, "delta": true, "set": {"objects": {"type": "server",
      "name": "/cell/shop/node/n2/server/s3", "props": {"weight": 0}}}})"),
            11);
  kyr::KyrTime now = kyr::kyrGetCurrentTime();
  EXPECT_STREQ(kyr::sappIsSelectableForLoadBalancing(sapp(kS3, "cart"), now), "server weight is 0");
  EXPECT_EQ(kyr::sappIsSelectableForAffinity(sapp(kS3, "cart"), now), nullptr);

  // del: an application leaves the model and is reported as no longer routable.
  apply(R"({"version": 12, "delta": true, "del": {"objects": {"type": "serverApplication",
      "name": "/cell/shop/node/n2/server/s3/serverApplication/shop"}}})");
  EXPECT_EQ(sapp(kS3, "shop"), nullptr);
  EXPECT_EQ(json_array_size(c_->delRoutes), 1u);

  // add: a new server with its link to the cluster, in one delta.
  apply(R"({"version": 13, "delta": true, "add": {
      "objects": {"type": "server", "name": "/cell/shop/node/n2/server/s4",
                  "props": {"id": "c4", "state": "STARTED", "weight": 1}},
      "relationships": {"cluster:server": [{"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n2/server/s4"}]}}})");
  kyr::TargetServer* s4 = server("/cell/shop/node/n2/server/s4");
  ASSERT_NE(s4, nullptr);
  EXPECT_EQ(kyr::tsServerGetCluster(s4), object<kyr::Cluster>("/cell/shop/cluster/web"));

  // del of a relationship: the server leaves its cluster.
  apply(R"({"version": 14, "delta": true, "del": {"relationships": {"cluster:server": [
      {"cluster": "/cell/shop/cluster/web", "server": "/cell/shop/node/n1/server/s1"}]}}})");
  EXPECT_EQ(kyr::tsServerGetCluster(server(kS1)), nullptr);
  EXPECT_STREQ(kyr::sappIsSelectableForAffinity(sapp(kS1, "cart"), now),
               "no cluster associated with the server");
  EXPECT_EQ(c_->vid, 14);
}

TEST_F(CellDocument, StoredDocumentAfterDeltasEqualsWhatAPublisherWouldSendComplete) {
  apply(R"({"version": 11, "delta": true, "set": {"objects": {"type": "server",
      "name": "/cell/shop/node/n2/server/s3", "props": {"weight": 5}}}})");
  apply(R"({"version": 12, "delta": true, "del": {
      "relationships": {"cluster:server": [{"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n2/server/s3"}]},
      "objects": {"type": "serverApplication",
                  "name": "/cell/shop/node/n2/server/s3/serverApplication/shop"}}})");
  apply(R"({"version": 13, "delta": true, "add": {
      "objects": {"type": "serverApplication",
                  "name": "/cell/shop/node/n2/server/s3/serverApplication/admin",
                  "props": {"state": "STARTED"}},
      "relationships": {"cluster:server": [{"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n2/server/s3"}]}}})");

  // The same cell as a publisher would now send it whole.
  json_error_t error;
  json_t* expected = json_loads(kyrtest::readTestData("cell-small.json").c_str(), 0, &error);
  ASSERT_NE(expected, nullptr);
  json_object_set_new(expected, "version", json_integer(13));
  json_t* cell = json_array_get(json_object_get(json_object_get(expected, "add"), "objects"), 0);
  json_t* s3 = child(child(cell, 1), 0);
  ASSERT_STREQ(json_string_value(json_object_get(s3, "name")), "/server/s3");
  json_object_set_new(json_object_get(s3, "props"), "weight", json_integer(5));
  json_t* s3Objects = json_object_get(s3, "objects");
  json_array_remove(s3Objects, 3);  // the "shop" application
  json_array_append_new(s3Objects, json_pack("{s:s, s:s, s:{s:s}}", "type", "serverApplication",
                                             "name", "/serverApplication/admin", "props",
                                             "state", "STARTED"));
  EXPECT_TRUE(json_equal(c_->json, expected))
      << json_dumps(c_->json, JSON_SORT_KEYS) << "\n--- expected ---\n"
      << json_dumps(expected, JSON_SORT_KEYS);
  json_decref(expected);
}

TEST_F(CellDocument, ServerWithoutItsNodeIsSkippedAndClusterNeedsNoParent) {
  apply(R"({"version": 11, "delta": true, "add": {"objects": [
      {"type": "server", "name": "/cell/shop/node/n9/server/s9"},
      {"type": "cluster", "name": "/cell/shop/cluster/batch"}]}})");
  EXPECT_EQ(server("/cell/shop/node/n9/server/s9"), nullptr);
  EXPECT_TRUE(printedContains("parent for /cell/shop/node/n9/server/s9 was not found"));
  EXPECT_NE(object<kyr::Cluster>("/cell/shop/cluster/batch"), nullptr);
}

TEST_F(CellDocument, OwnServerStringPropertiesReachTheHandleNotTheModel) {
  // The web server itself appears in the cell; its string properties are the library's.
  apply(R"({"version": 11, "delta": true, "add": {"objects": {"type": "server",
      "name": "/cell/shop/node/n1/server/webserver1",
      "props": {"MaxHttpContextPoolSize": "12", "state": "STARTED"}}}})");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 12);
  EXPECT_EQ(kyr::sappIsSelectableForLoadBalancing(sapp(kS1, "cart"), kyr::kyrGetCurrentTime()),
            nullptr);
}

// Documents of every wrong shape: each is reported (or, where the reader ignores such values,
// skipped silently) and the cell stays intact.
struct Malformed {
  const char* label;
  std::string text;
  const char* diagnostic;  // a line the reader must print; null when it ignores the value
};

void PrintTo(const Malformed& m, std::ostream* os) { *os << m.label; }

class MalformedDocument : public CellDocument, public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedDocument, IsReportedAndLeavesTheModelIntact) {
  const Malformed& m = GetParam();
  {
    kyr::ControlLockGuard guard("test");
    kyrHandleJsonFromRestService(m.text.c_str(), c_);
  }
  if (m.diagnostic != nullptr) {
    EXPECT_TRUE(printedContains(m.diagnostic)) << m.diagnostic;
  }
  EXPECT_NE(server(kS1), nullptr);
  EXPECT_NE(server(kS3), nullptr);
  EXPECT_EQ(kyr::tsServerGetCluster(server(kS3)), object<kyr::Cluster>("/cell/shop/cluster/web"));
  EXPECT_EQ(json_array_size(json_object_get(
                json_object_get(json_object_get(c_->json, "add"), "relationships"),
                "cluster:server")),
            3u);
}

std::string deepDocument(int depth) {
  std::string open, close;
  for (int i = 0; i < depth; ++i) {
    open += R"({"type": "node", "name": "/node/d", "objects": [)";
    close += "]}";
  }
  return R"({"version": 20, "delta": true, "add": {"objects": [)" + open + close + "]}}";
}

const std::string kHugeName = std::string(100000, 'x');

INSTANTIATE_TEST_SUITE_P(
    Shapes, MalformedDocument,
    ::testing::Values(
        Malformed{"NotJson", "not json at all", "Invalid JSON from http://publisher:9080"},
        Malformed{"Empty", "", "Invalid JSON from http://publisher:9080"},
        Malformed{"Array", "[1, 2, 3]", "document is not a JSON object"},
        Malformed{"Number", "42", "Invalid JSON from"},
        Malformed{"OperationNotObject", R"({"delta": true, "add": "objects"})",
                  "skip add operation; it is not a JSON object"},
        Malformed{"ObjectsOfNumbers", R"({"delta": true, "add": {"objects": [1, 2, 3]}})",
                  nullptr},
        Malformed{"ObjectsAString", R"({"delta": true, "add": {"objects": "server"}})", nullptr},
        Malformed{"TypeNotAString", R"({"delta": true, "add": {"objects": {"type": 5}}})",
                  "object with no type"},
        Malformed{"NameNotAString",
                  R"({"delta": true, "add": {"objects": {"type": "server", "name": 7}}})",
                  "object of type server with no name"},
        Malformed{"PropsAndChildrenOfWrongTypes",
                  R"({"delta": true, "add": {"objects": {"type": "node",
                      "name": "/cell/shop/node/n7", "props": [1, 2], "objects": "none"}}})",
                  nullptr},
        Malformed{"PropertyValuesOfWrongTypes",
                  R"({"delta": true, "set": {"objects": {"type": "server",
                      "name": "/cell/shop/node/n1/server/s1",
                      "props": {"weight": 1.5, "state": [], "id": {}}}}})",
                  "unknown type for property weight on object /cell/shop/node/n1/server/s1"},
        Malformed{"DeleteOfWhatIsNotThere",
                  R"({"delta": true, "del": {"objects": {"type": "cluster",
                      "name": "/cell/shop/cluster/nope"}}})",
                  "delete failed because '/cell/shop/cluster/nope' was not found"},
        Malformed{"RelationshipElementsOfWrongTypes",
                  R"({"delta": true, "add": {"relationships": {"cluster:server":
                      [1, "x", {"cluster": 3}]}}})",
                  "skip relationship cluster:server; type cluster not found"},
        Malformed{"UnknownRelationships",
                  R"({"delta": true, "add": {"relationships": {"clusterserver": [], "a:b": {}}}})",
                  "no relationship handler found for a:b"},
        Malformed{"RelationshipValueNotAnArray",
                  R"({"delta": true, "del": {"relationships": {"cluster:server": {}}}})",
                  "skip relationship cluster:server; its value is not a JSON array"},
        Malformed{"RelationshipsAnArray", R"({"delta": true, "add": {"relationships": [1, 2]}})",
                  "skip add relationships; they are not a JSON object"},
        Malformed{"HugeName",
                  R"({"delta": true, "add": {"objects": {"type": "server",
                      "name": "/cell/shop/node/n1/server/)" + kHugeName + R"("}}})",
                  nullptr},
        Malformed{"DeepNesting", deepDocument(900), nullptr}),
    [](const ::testing::TestParamInfo<Malformed>& info) { return std::string(info.param.label); });

TEST_F(CellDocument, DeepNestingIsAppliedLevelByLevel) {
  apply(deepDocument(900));
  std::string deepest;
  for (int i = 0; i < 900; ++i) deepest += "/node/d";
  EXPECT_NE(object<kyr::TargetNode>(deepest), nullptr);
}

}  // namespace
