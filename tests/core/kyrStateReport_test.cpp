// The state report over a loaded cell: what a host's status page shows.
#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

#include "connector/kyrConnector.h"
#include "core/kyr.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"

namespace {

json_t* at(json_t* o, std::initializer_list<const char*> path) {
  for (const char* key : path) o = json_object_get(o, key);
  return o;
}

TEST(StateReport, ShowsApplicationsClustersVersionAndConnectorGroups) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg1"), "http://p:9080");
  {
    kyr::ControlLockGuard guard("test");
    ASSERT_EQ(kyrHandleJsonFromRestService(kyrtest::readTestData("cell-web.json").c_str(), c), 20);
  }
  char* text = kyrGetStateInfo(kyr, "ignored=1");
  ASSERT_NE(text, nullptr);
  json_error_t error;
  json_t* report = json_loads(text, 0, &error);
  free(text);
  ASSERT_NE(report, nullptr) << error.text;

  EXPECT_STREQ(json_string_value(json_object_get(report, "version")), kyrGetVersion());
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
  kyrDestroy(kyr);
}

TEST(StateReport, AClientProcessReportsTheControlStateItWasSent) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  kyrConnectorGroupCreate(kyr, "local");
  kyr->controlState = json_pack("{s:{s:s}}", "fromServer", "state", "STARTED");
  json_t* report = kyrToJSON(kyr);
  EXPECT_TRUE(json_equal(json_object_get(report, "connectorGroups"), kyr->controlState));
  json_decref(report);
  kyrDestroy(kyr);
}

}  // namespace
