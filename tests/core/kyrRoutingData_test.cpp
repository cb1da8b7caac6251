// The routing-data reader: what reaches the stored complete document under deltas, what reaches
// the model, the diagnostics for bad documents, and the life of routing-information versions.
#include <gtest/gtest.h>

#include <string>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrHandleProperties.h"
#include "core/kyrRoutingData.h"
#include "core/kyrRoutingInfo.h"
#include "core/kyrStoredDocument.h"
#include "support/kyrTestHost.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::printed;
using kyrtest::printedContains;

json_t* parse(const char* text) {
  json_error_t error;
  json_t* doc = json_loads(text, 0, &error);
  EXPECT_NE(doc, nullptr) << error.text << " in " << text;
  return doc;
}

std::string dump(json_t* json) {
  char* text = json_dumps(json, JSON_COMPACT | JSON_SORT_KEYS);
  std::string s = text != nullptr ? text : "null";
  free(text);
  return s;
}

class RoutingData : public ::testing::Test {
 protected:
  void SetUp() override {
    printed().clear();
    host_.env.trace.printf = kyrtest::capturePrintf;
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control:DEBUG"), 0);
    cg_ = kyrConnectorGroupCreate(kyr_, "cg1");
    c_ = kyrConnectorCreate(cg_, "http://publisher:9080");
  }
  void TearDown() override { kyrDestroy(kyr_); }

  // Applies a document as a publisher's connector delivers it.
  int64_t apply(const char* text) {
    kyr::ControlLockGuard guard("test");
    return kyrHandleJson(parse(text), text, c_);
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnectorGroup* cg_ = nullptr;
  KyrConnector* c_ = nullptr;
};

constexpr const char* kComplete = R"({"version": 7, "restVersion": 2, "delta": false,
  "add": {"objects": [
    {"type": "cell", "name": "/cell/kyrlib", "props": {"cp.MaxHttpContextPoolSize": "20"},
     "objects": [{"type": "node", "name": "/node/n1"}]}]}})";

TEST_F(RoutingData, CompleteDocumentIsStoredWithItsVersionAndReachesTheModel) {
  EXPECT_EQ(apply(kComplete), 7);
  ASSERT_NE(c_->json, nullptr);
  EXPECT_EQ(c_->vid, 7);
  EXPECT_EQ(c_->restVersion, 2);
  EXPECT_EQ(json_integer_value(json_object_get(c_->json, "version")), 7);
  // The cell's custom property reached the handle, and the cell is recorded in the version.
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
  ASSERT_NE(kyr_->routingInfo->cell, nullptr);
  EXPECT_STREQ(kyr_->routingInfo->cell->name, "/cell/kyrlib");
  EXPECT_EQ(kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo, "/cell/kyrlib"),
            kyr_->routingInfo->cell);
}

TEST_F(RoutingData, ProblemsInsideADocumentSkipOnlyTheObjectConcerned) {
  apply(R"({"version": 1, "delta": false, "add": {"objects": [
      {"name": "/x/nameless"},
      {"type": "planet", "name": "/planet/p"},
      {"type": "cell"},
      {"type": "cell", "name": "/cell/kyrlib", "props": {"cp.MaxHttpContextPoolSize": 5,
       "cp.MaxSecondsToWaitDuringAtomicRollout": "9", "cp.bogus": "1"}}]}})");
  EXPECT_TRUE(printedContains("object with no type"));
  EXPECT_TRUE(printedContains("no object handler for type planet"));
  EXPECT_TRUE(printedContains("object of type cell with no name"));
  EXPECT_TRUE(printedContains(
      "skip set property cp.MaxHttpContextPoolSize on object /cell/kyrlib; null integer property "
      "handler for object type cell"));
  EXPECT_TRUE(printedContains("kyrCellSetPropStr: bogus is not a supported custom property"));
  EXPECT_EQ(kyr_->maxSecondsToWaitDuringAtomicRollout, 9);
}

TEST_F(RoutingData, OnlyTheOwnCellSetsCustomProperties) {
  apply(R"({"delta": false, "add": {"objects": {"type": "cell", "name": "/cell/other",
      "props": {"cp.MaxHttpContextPoolSize": "20"}}}})");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
}

TEST_F(RoutingData, WebServerValueWinsOverTheCellUntilCleared) {
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", "10"));
  apply(kComplete);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  EXPECT_TRUE(printedContains("MaxHttpContextPoolSize custom property is set at the web server"));
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", nullptr));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
}

TEST_F(RoutingData, DeltasKeepTheStoredDocumentCurrent) {
  apply(kComplete);
  // A document without "delta" is a delta.
  EXPECT_EQ(apply(R"({"version": 8, "add": {"objects": {"type": "server",
      "name": "/cell/kyrlib/node/n1/server/s1", "props": {"weight": 2}}}})"),
            8);
  EXPECT_EQ(apply(R"({"version": 9, "delta": true, "set": {"objects": {"type": "cell",
      "name": "/cell/kyrlib", "props": {"cp.MaxHttpContextPoolSize": "30"}}}})"),
            9);
  EXPECT_EQ(apply(R"({"version": 10, "delta": true, "del": {"objects": {"type": "node",
      "name": "/cell/kyrlib/node/n1"}}})"),
            10);
  EXPECT_EQ(dump(c_->json),
            R"({"add":{"objects":[{"name":"/cell/kyrlib","objects":[],)"
            R"("props":{"cp.MaxHttpContextPoolSize":"30"},"type":"cell"}]},)"
            R"("delta":false,"restVersion":2,"version":10})");
  EXPECT_EQ(c_->vid, 10);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 30);
}

TEST_F(RoutingData, NestedAddLandsAtTheDeepestMatchingLevel) {
  apply(kComplete);
  apply(R"({"delta": true, "add": {"objects": {"type": "serverApplication",
      "name": "/cell/kyrlib/node/n1/server/s1/serverApplication/a"}}})");
  json_t* node = json_array_get(
      json_object_get(json_array_get(json_object_get(json_object_get(c_->json, "add"), "objects"), 0),
                      "objects"),
      0);
  EXPECT_EQ(dump(json_object_get(node, "objects")),
            R"([{"name":"/server/s1/serverApplication/a","type":"serverApplication"}])");
  // The same object again is refused.
  apply(R"({"delta": true, "add": {"objects": {"type": "serverApplication",
      "name": "/cell/kyrlib/node/n1/server/s1/serverApplication/a"}}})");
  EXPECT_TRUE(printedContains("deltaObjects failure: not added because object already found"));
}

TEST_F(RoutingData, DeleteWithChildrenDeletesOnlyTheChildren) {
  apply(kComplete);
  apply(R"({"delta": true, "del": {"objects": {"type": "cell", "name": "/cell/kyrlib",
      "objects": {"type": "node", "name": "/node/n1"}}}})");
  json_t* cell = json_array_get(json_object_get(json_object_get(c_->json, "add"), "objects"), 0);
  EXPECT_STREQ(json_string_value(json_object_get(cell, "name")), "/cell/kyrlib");
  EXPECT_EQ(json_array_size(json_object_get(cell, "objects")), 0u);
  EXPECT_NE(kyr_->routingInfo->cell, nullptr);
}

TEST_F(RoutingData, DeletingAndSettingWhatIsNotThereIsReported) {
  apply(kComplete);
  apply(R"({"delta": true, "del": {"objects": {"type": "node", "name": "/cell/kyrlib/node/zz"}},
      "set": {"objects": {"type": "cell", "name": "/cell/nope", "props": {"p": "v"}}}})");
  EXPECT_TRUE(printedContains(
      "deltaObjects failure: delete failed because '/cell/kyrlib/node/zz' was not found"));
  EXPECT_TRUE(printedContains(
      "deltaObjects failure: object not found; failed to set property 'p' to '\"v\"' on "
      "'/cell/nope'"));
  EXPECT_TRUE(printedContains("set operation but object of type 'cell' at '/cell/nope' was not found"));
}

TEST_F(RoutingData, AddOfAnExistingObjectSkipsItsPropertiesAndChildren) {
  apply(kComplete);
  kyr_->maxHttpContextPoolSize = 1;
  // Applied to the model directly (as the second pass of a standalone process does).
  apply(R"({"delta": true, "add": {"objects": {"type": "cell", "name": "/cell/kyrlib",
      "props": {"cp.MaxHttpContextPoolSize": "99"}}}})");
  EXPECT_TRUE(printedContains("failed to add cell object which already exists: /cell/kyrlib"));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 1);
}

TEST_F(RoutingData, BadJsonIsReportedAndDropped) {
  kyr::ControlLockGuard guard("test");
  EXPECT_EQ(kyrStrToJson(kyr_, "{not json", "http://publisher:9080"), nullptr);
  ASSERT_FALSE(printed().empty());
  EXPECT_EQ(printed().back().messageId, "KYR1101E");
  EXPECT_NE(printed().back().text.find("http://publisher:9080"), std::string::npos);
  EXPECT_EQ(kyrStrToJson(kyr_, nullptr, "src"), nullptr);
  EXPECT_NE(printed().back().text.find("NULL JSON"), std::string::npos);
  EXPECT_EQ(kyrHandleJson(nullptr, nullptr, c_), -1);
  EXPECT_EQ(kyrHandleJsonFromRestService("[1,", c_), -1);
  EXPECT_EQ(c_->json, nullptr);
}

TEST_F(RoutingData, RestDocumentsCarryTheirConnector) {
  kyr::ControlLockGuard guard("test");
  EXPECT_EQ(kyrHandleJsonFromRestService(R"({"version": 3, "delta": false})", c_), 3);
  EXPECT_STREQ(json_string_value(json_object_get(c_->json, "connectorGroupName")), "cg1");
  EXPECT_EQ(kyr::kyrFindConnectorFromJson(kyr_, c_->json, false), c_);
}

TEST_F(RoutingData, CompleteDocumentRebuildsTheModelOnlyOnceTheGroupIsInitialised) {
  kyr::KyrRoutingInfo* before = kyr_->routingInfo;
  cg_->curConnector = c_;
  apply(kComplete);
  EXPECT_EQ(kyr_->routingInfo, before);
  cg_->initialized = true;
  apply(kComplete);
  EXPECT_NE(kyr_->routingInfo, before);
  // The rebuilt version was populated from the stored document.
  ASSERT_NE(kyr_->routingInfo->cell, nullptr);
  EXPECT_STREQ(kyr_->routingInfo->cell->name, "/cell/kyrlib");
}

TEST_F(RoutingData, FindConnectorFromJsonNamesWhatIsMissing) {
  kyr::ControlLockGuard guard("test");
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

TEST(RoutingInfoVersions, ARequestKeepsItsVersionAcrossASwitch) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  kyr::KyrRoutingInfo* held = kyr::kyrRoutingInfoObtain(kyr);
  EXPECT_EQ(held->refCount, 2);
  int handleRefs = kyr->refcnt;
  kyr::kyrResetRoutingInfo(kyr);
  EXPECT_NE(kyr->routingInfo, held);
  EXPECT_EQ(held->refCount, 1);               // only the request holds it now
  EXPECT_EQ(kyr->refcnt, handleRefs + 1);     // and the new version holds the handle too
  kyr::kyrRoutingInfoRelease(held);
  EXPECT_EQ(kyr->refcnt, handleRefs);
  kyrDestroy(kyr);
}

TEST(RoutingInfoVersions, DestroyWhileARequestHoldsAVersionFreesAtItsRelease) {
  kyrtest::TestHost host;
  kyrDestroy(host.create());  // the process-wide lock and death row exist from here on
  kyr::trPurgeDeathRow();
  int before = kyr::kyrGetMemCount();
  Kyr* kyr = host.create();
  kyr::KyrRoutingInfo* held = kyr::kyrRoutingInfoObtain(kyr);
  kyrDestroy(kyr);
  EXPECT_EQ(held->refCount, 1);
  kyr::kyrRoutingInfoRelease(held);  // last holder: the handle goes with it
  kyr::trPurgeDeathRow();
  EXPECT_EQ(kyr::kyrGetMemCount(), before);
}

TEST(StoredDocument, RelationshipsAreAddedOnceAndRemoved) {
  json_t* operation = json_object();
  json_t* element = parse(R"({"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n/server/s"})");
  kyr::StoredDocumentTrace trace{nullptr, nullptr};
  kyr::deltaRelAdd(operation, "cluster:server", element, "a", "b", trace);
  kyr::deltaRelAdd(operation, "cluster:server", element, "a", "b", trace);
  EXPECT_EQ(json_array_size(json_object_get(json_object_get(operation, "relationships"),
                                            "cluster:server")),
            1u);
  kyr::deltaRelDelete(operation, "cluster:server", element);
  EXPECT_EQ(json_array_size(json_object_get(json_object_get(operation, "relationships"),
                                            "cluster:server")),
            0u);
  json_decref(element);
  json_decref(operation);
}

}  // namespace
