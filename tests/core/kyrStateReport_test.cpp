// The state report over a loaded cell: what a host's status page shows, and what a client
// process shows instead of its own groups.
#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

#include "connector/kyrConnector.h"
#include "core/kyrHandleTestUtil.h"
#include "support/testData.h"

namespace {

json_t* at(json_t* o, std::initializer_list<const char*> path) {
  for (const char* key : path) o = json_object_get(o, key);
  return o;
}

using StateReport = kyrtest::HandleFixture;

TEST_F(StateReport, ShowsApplicationsClustersVersionAndConnectorGroupsOrTheControlState) {
  KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "cg1"), "http://p:9080");
  {
    kyr::ControlLockGuard guard("test");
    ASSERT_EQ(kyrHandleJsonFromRestService(kyrtest::readTestData("cell-web.json").c_str(), c), 20);
  }
  char* text = kyrGetStateInfo(kyr_, "ignored=1");
  json_t* report = json_loads(text, 0, nullptr);
  free(text);
  ASSERT_NE(report, nullptr);
  EXPECT_STREQ(json_string_value(at(report, {"version"})), kyrGetVersion());
  json_t* shop = at(report, {"applications", "applications", "/cell/shop/application/shop"});
  EXPECT_EQ(json_array_size(json_object_get(shop, "editions")), 2u);
  json_t* servers = at(report, {"clusters", "/cell/shop/cluster/web", "servers"});
  EXPECT_EQ(json_object_size(servers), 3u);
  EXPECT_STREQ(json_string_value(at(servers, {"/cell/shop/node/n1/server/s1", "state"})),
               "STARTED");
  json_t* group = at(report, {"connectorGroups", "cg1"});
  EXPECT_STREQ(json_string_value(json_object_get(group, "state")), "STOPPED");
  EXPECT_EQ(json_integer_value(at(group, {"connectors", "http://p:9080", "versionId"})), 20);
  json_decref(report);
  // A client process shows the control state it was sent instead of its own groups.
  kyr_->controlState = json_pack("{s:{s:s}}", "fromServer", "state", "STARTED");
  report = kyrToJSON(kyr_);
  EXPECT_TRUE(json_equal(json_object_get(report, "connectorGroups"), kyr_->controlState));
  json_decref(report);
}

// A host that keeps a reference past kyrDestroy may still ask: the routing data is gone, the
// rest is reported.
TEST_F(StateReport, ADestroyedHandleStillHeldReportsWithoutRoutingData) {
  kyrObtainRef(kyr_, "test");
  kyrDestroy(kyr_);
  json_t* report = kyrToJSON(kyr_);
  ASSERT_NE(report, nullptr);
  EXPECT_EQ(json_object_get(report, "applications"), nullptr);
  EXPECT_EQ(json_object_get(report, "clusters"), nullptr);
  EXPECT_STREQ(json_string_value(json_object_get(report, "version")), kyrGetVersion());
  EXPECT_EQ(json_object_size(json_object_get(report, "connectorGroups")), 0u);
  json_decref(report);
  kyrReleaseRef(kyr_, "test");
  kyr_ = nullptr;
}

}  // namespace
