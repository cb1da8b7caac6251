// The interest specification read back as JSON (its single quotes turned into double ones):
// every object type in order, the conditions with the publisher's quotes intact, and the
// admin-traffic setting deciding whether deployment managers count as cluster members.
#include "connector/kyrInterestSpec.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

#include "connector/kyrConnectorGroup.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"

namespace {

// The quotes of the JSON form become double quotes; escaped ones are the conditions' own.
json_t* parse(const char* spec) {
  std::string text;
  for (const char* c = spec; *c != '\0'; ++c) {
    if (*c == '\\' && c[1] == '\'') {
      text += *++c;
    } else {
      text += *c == '\'' ? '"' : *c;
    }
  }
  json_error_t error;
  json_t* doc = json_loads(text.c_str(), 0, &error);
  EXPECT_NE(doc, nullptr) << error.text << " in " << text;
  return doc;
}

std::string types(json_t* objects) {
  std::string out;
  size_t i;
  json_t* o;
  json_array_foreach(objects, i, o) {
    out += std::string(out.empty() ? "" : " ") + json_string_value(json_object_get(o, "type"));
    if (json_t* children = json_object_get(o, "objects")) out += "(" + types(children) + ")";
  }
  return out;
}

TEST(InterestSpec, AsksForEveryTypeItReadsWithThePublishersConditions) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr, "cg");
  for (bool admin : {false, true}) {
    SCOPED_TRACE(admin);
    cg->enableAdminTraffic = admin;
    char* spec = kyr::kyrGetInterestSpec(cg);
    json_t* doc = parse(spec);
    json_t* interests = json_object_get(doc, "interests");
    json_t* objects = json_object_get(interests, "objects");
    EXPECT_EQ(types(objects),
              "cell application webModule(uri) webRouteWorkClass(rule) vHostGroup(vHost) "
              "healthPolicy cluster node(server server(transport serverApplication)) "
              "ruleSet(rule)");
    EXPECT_STREQ(
        json_string_value(json_object_get(
            json_array_get(json_object_get(json_array_get(objects, 2), "objects"), 0), "cond")),
        "parentType = 'webModule'");
    std::string cluster = json_string_value(json_object_get(json_array_get(objects, 6), "cond"));
    EXPECT_EQ(cluster.rfind("propStr$serverType in ('APPLICATION_SERVER','TOMCAT_SERVER',", 0), 0u)
        << cluster;
    EXPECT_EQ(cluster.find("DEPLOYMENT_MANAGER") != std::string::npos, admin);
    char* dumped = json_dumps(json_object_get(json_array_get(objects, 0), "props"), 0);
    std::string cellProps = dumped;
    free(dumped);
    EXPECT_NE(cellProps.find("\"cp.MaxHttpContextPoolSize\""), std::string::npos) << cellProps;
    EXPECT_EQ(json_array_size(json_object_get(interests, "relationships")), 5u);
    json_decref(doc);
    kyr::kyrFree(spec);
  }
  kyrDestroy(kyr);
}

}  // namespace
