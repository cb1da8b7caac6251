// The routing-data reader over a realistic cell (two nodes, one cluster of three servers with
// http and https transports, two applications per server) read from tests/data, then changed by
// publisher deltas: what reaches the target model, what the stored complete document becomes,
// that malformed documents of every shape are reported and leave the model as it was, and how
// long a routing-information version keeps the handle.
#include "core/kyrRoutingData.h"

#include <gtest/gtest.h>

#include <string>

#include "connector/kyrConnector.h"
#include "core/kyrHandleTestUtil.h"
#include "core/kyrRoutingInfo.h"
#include "runtime/kyrTime.h"
#include "support/testData.h"

namespace {

using namespace kyrtest;

constexpr const char* kS1 = "/cell/shop/node/n1/server/s1";
constexpr const char* kS3 = "/cell/shop/node/n2/server/s3";
constexpr const char* kWeb = "/cell/shop/cluster/web";

json_t* parse(const std::string& text) {
  json_error_t error;
  json_t* doc = json_loads(text.c_str(), 0, &error);
  EXPECT_NE(doc, nullptr) << error.text << " in " << text;
  return doc;
}

// The index-th child object of a document object.
json_t* child(json_t* object, size_t index) {
  return json_array_get(json_object_get(object, "objects"), index);
}

// How many cluster:server relationships the stored document holds.
size_t storedClusterServers(const KyrConnector* c) {
  json_t* add = json_object_get(c->json, "add");
  return json_array_size(json_object_get(json_object_get(add, "relationships"), "cluster:server"));
}

class RoutingData : public kyrtest::HandleFixture {
 protected:
  void SetUp() override {
    HandleFixture::SetUp();
    kyrSetServerName(kyr_, "shop_n1_webserver1");
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control:DEBUG"), 0);
    cg_ = kyrConnectorGroupCreate(kyr_, "cg1");
    c_ = kyrConnectorCreate(cg_, "http://publisher:9080");
    ASSERT_EQ(apply(cell_), 10);
    printed().clear();
  }

  // Applies a document as a publisher's connector delivers it.
  int64_t apply(const std::string& text) {
    kyr::ControlLockGuard guard("test");
    return kyrHandleJson(parse(text), text.c_str(), c_);
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

  const std::string cell_ = kyrtest::readTestData("cell-small.json");
  KyrConnectorGroup* cg_ = nullptr;
  KyrConnector* c_ = nullptr;
};

TEST_F(RoutingData, DeltasReachTheModelAndTheStoredDocumentEqualsWhatAPublisherWouldSend) {
  kyr::KyrTime now = kyr::kyrGetCurrentTime();
  EXPECT_EQ(json_array_size(c_->addRoutes), 6u);  // each routable application, for its publisher
  EXPECT_EQ(kyr::sappIsSelectableForLoadBalancing(sapp(kS3, "cart"), now), nullptr);
  // Without "delta" a document is a delta too. Weight 0 leaves a server to affinity only.
  EXPECT_EQ(apply(R"({"version": 11, "set": {"objects": {"type": "server",
      "name": "/cell/shop/node/n2/server/s3", "props": {"weight": 0}}}})"),
            11);
  EXPECT_STREQ(kyr::sappIsSelectableForLoadBalancing(sapp(kS3, "cart"), now), "server weight is 0");
  EXPECT_EQ(kyr::sappIsSelectableForAffinity(sapp(kS3, "cart"), now), nullptr);

  // A delete naming children deletes only the children; s3 itself stays.
  apply(R"({"version": 12, "delta": true, "del": {
      "relationships": {"cluster:server": [{"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n2/server/s3"}]},
      "objects": {"type": "server", "name": "/cell/shop/node/n2/server/s3",
                  "objects": {"type": "serverApplication", "name": "/serverApplication/shop"}}}})");
  EXPECT_EQ(sapp(kS3, "shop"), nullptr);
  EXPECT_EQ(json_array_size(c_->delRoutes), 1u);  // no longer routable, for its publisher
  EXPECT_EQ(storedClusterServers(c_), 2u);
  EXPECT_STREQ(kyr::sappIsSelectableForAffinity(sapp(kS3, "cart"), now),
               "no cluster associated with the server");

  // The relationship of s1 is there already and must not be stored twice.
  apply(R"({"version": 13, "delta": true, "add": {
      "objects": {"type": "serverApplication",
                  "name": "/cell/shop/node/n2/server/s3/serverApplication/admin",
                  "props": {"state": "STARTED"}},
      "relationships": {"cluster:server": [{"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n2/server/s3"},
                                           {"cluster": "/cell/shop/cluster/web",
                                            "server": "/cell/shop/node/n1/server/s1"}]}}})");
  EXPECT_NE(sapp(kS3, "admin"), nullptr);
  EXPECT_EQ(kyr::tsServerGetCluster(server(kS3)), object<kyr::Cluster>(kWeb));
  EXPECT_EQ(c_->vid, 13);

  json_t* expected = parse(cell_);
  json_object_set_new(expected, "version", json_integer(13));
  json_t* cell = json_array_get(json_object_get(json_object_get(expected, "add"), "objects"), 0);
  json_t* s3 = child(child(cell, 1), 0);
  ASSERT_STREQ(json_string_value(json_object_get(s3, "name")), "/server/s3");
  json_object_set_new(json_object_get(s3, "props"), "weight", json_integer(0));
  json_t* s3Objects = json_object_get(s3, "objects");
  json_array_remove(s3Objects, 3);  // the "shop" application
  json_array_append_new(s3Objects,
                        json_pack("{s:s, s:s, s:{s:s}}", "type", "serverApplication", "name",
                                  "/serverApplication/admin", "props", "state", "STARTED"));
  EXPECT_TRUE(json_equal(c_->json, expected))
      << json_dumps(c_->json, JSON_SORT_KEYS) << "\n--- expected ---\n"
      << json_dumps(expected, JSON_SORT_KEYS);
  json_decref(expected);
}

// Documents of every wrong shape: each is reported (or, where the reader ignores such values,
// skipped silently) and the cell stays intact.
TEST_F(RoutingData, MalformedDocumentsAreReportedAndLeaveTheModelIntact) {
  struct Row {
    std::string text;                      // starting with a quote: the operations of a delta
    std::vector<const char*> diagnostics;  // lines the reader must print
  };
  const Row rows[] = {
      {"not json at all", {"Invalid JSON from http://publisher:9080"}},
      {"", {"Invalid JSON from http://publisher:9080"}},
      {"[1, 2, 3]", {"document is not a JSON object"}},
      {R"("add": "objects")", {"skip add operation; it is not a JSON object"}},
      {R"("add": {"objects": [1, 2, 3]})", {}},
      {R"("add": {"objects": "server"})", {}},
      {R"("add": {"objects": [{"type": 5}, {"type": "planet", "name": "/p/p"},
          {"type": "server", "name": 7},
          {"type": "node", "name": "/cell/shop/node/n7", "props": [1, 2], "objects": "none"}]})",
       {"object with no type", "no object handler for type planet",
        "object of type server with no name"}},
      {R"("set": {"objects": {"type": "server", "name": "/cell/shop/node/n1/server/s1",
          "props": {"weight": 1.5, "state": [], "id": {}}}})",
       {"unknown type for property weight on object /cell/shop/node/n1/server/s1"}},
      {R"("set": {"objects": {"type": "cell", "name": "/cell/shop",
          "props": {"cp.MaxHttpContextPoolSize": 5}}})",
       {"skip set property cp.MaxHttpContextPoolSize on object /cell/shop; null integer "
        "property handler for object type cell"}},
      {R"("add": {"objects": {"type": "cell", "name": "/cell/shop",
          "props": {"cp.MaxHttpContextPoolSize": "99"}}})",
       {"failed to add cell object which already exists: /cell/shop",
        "deltaObjects failure: not added because object already found"}},
      {R"("set": {"objects": {"type": "cell", "name": "/cell/nope", "props": {"p": "v"}}},
          "del": {"objects": {"type": "cluster", "name": "/cell/shop/cluster/nope"}})",
       {"deltaObjects failure: object not found; failed to set property 'p' to '\"v\"' on "
        "'/cell/nope'",
        "set operation but object of type 'cell' at '/cell/nope' was not found",
        "deltaObjects failure: delete failed because '/cell/shop/cluster/nope' was not found"}},
      {R"("add": {"relationships": {"cluster:server": [1, "x", {"cluster": 3}],
                                     "clusterserver": [], "a:b": {}}},
          "del": {"relationships": {"cluster:server": {}}})",
       {"skip relationship cluster:server; type cluster not found",
        "no relationship handler found for a:b",
        "skip relationship cluster:server; its value is not a JSON array"}},
      {R"("add": {"relationships": [1, 2]})",
       {"skip add relationships; they are not a JSON object"}},
      {R"("add": {"objects": {"type": "server", "name": "/cell/shop/node/n9/server/s9"}})",
       {"parent for /cell/shop/node/n9/server/s9 was not found"}},
      {R"("add": {"objects": {"type": "server", "name": "/cell/shop/node/n1/server/)" +
           std::string(100000, 'x') + R"("}})",
       {}},
  };
  for (const Row& row : rows) {
    bool delta = !row.text.empty() && row.text[0] == '"';
    std::string text = delta ? R"({"delta": true, )" + row.text + "}" : row.text;
    SCOPED_TRACE(text.substr(0, 120));
    printed().clear();
    {
      kyr::ControlLockGuard guard("test");
      kyrHandleJsonFromRestService(text.c_str(), c_);
    }
    for (const char* line : row.diagnostics) EXPECT_TRUE(printedContains(line)) << line;
    EXPECT_NE(server(kS1), nullptr);
    EXPECT_EQ(kyr::tsServerGetCluster(server(kS3)), object<kyr::Cluster>(kWeb));
    EXPECT_EQ(kyr_->maxHttpContextPoolSize, 64);
    EXPECT_EQ(storedClusterServers(c_), 3u);
  }
}

TEST_F(RoutingData, CompleteDocumentRebuildsTheModelOnlyOnceTheGroupIsInitialised) {
  kyr::KyrRoutingInfo* before = kyr_->routingInfo;
  cg_->curConnector = c_;
  apply(cell_);
  EXPECT_EQ(kyr_->routingInfo, before);
  cg_->initialized = true;
  apply(cell_);
  EXPECT_NE(kyr_->routingInfo, before);
  EXPECT_NE(server(kS3), nullptr);  // the rebuilt version was populated from the stored document
}

TEST_F(RoutingData, RestDocumentsCarryTheirConnectorAndAMissingOneIsNamed) {
  kyr::ControlLockGuard guard("test");
  EXPECT_EQ(kyrHandleJsonFromRestService(R"({"version": 30, "delta": false})", c_), 30);
  EXPECT_EQ(kyr::kyrFindConnectorFromJson(kyr_, c_->json, false), c_);
  json_t* doc = parse(R"({"connectorGroupName": "cg1", "connectorURL": "http://other:1"})");
  EXPECT_EQ(kyr::kyrFindConnectorFromJson(kyr_, doc, false), nullptr);
  EXPECT_TRUE(printedContains("did not find connector with URL http://other:1"));
  KyrConnector* created = kyr::kyrFindConnectorFromJson(kyr_, doc, true);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->cg, cg_);
  json_object_set_new(doc, "connectorGroupName", json_string("nope"));
  EXPECT_EQ(kyr::kyrFindConnectorFromJson(kyr_, doc, true), nullptr);
  EXPECT_TRUE(printedContains("did not find connector group nope"));
  json_decref(doc);
}

TEST(RoutingInfoVersions, ARequestKeepsItsVersionAcrossASwitchAndTheHandleUntilItsRelease) {
  int baseline = kyrtest::settledMemCount();
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  kyr::KyrRoutingInfo* held = kyr::kyrRoutingInfoObtain(kyr);
  EXPECT_EQ(held->refCount, 2);
  int handleRefs = kyr->refcnt;
  kyr::kyrResetRoutingInfo(kyr);
  EXPECT_NE(kyr->routingInfo, held);
  EXPECT_EQ(held->refCount, 1);            // only the request holds it now
  EXPECT_EQ(kyr->refcnt, handleRefs + 1);  // and the new version holds the handle too
  kyrDestroy(kyr);
  EXPECT_EQ(kyr->refcnt, 1);         // destroyed, yet the request's version still holds it
  kyr::kyrRoutingInfoRelease(held);  // last holder: the handle goes with it
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
