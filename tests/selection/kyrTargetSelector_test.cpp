// The selector's own objects: text conversions, nodes, clusters with their properties, cluster
// and virtual-cluster links, partition data and the state dumps.
#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"
#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::TargetModel;

std::string dump(json_t* json) {
  char* text = json_dumps(json, JSON_COMPACT);
  std::string s = text != nullptr ? text : "null";
  free(text);
  json_decref(json);
  return s;
}

TEST(TargetModelText, ServerTypeTextMatchesExactlyAndElseIsUnknown) {
  EXPECT_EQ(convertToKyrServerTypeEnum("APPLICATION_SERVER"), KYRSERVERTYPE_APPLICATION_SERVER);
  EXPECT_EQ(convertToKyrServerTypeEnum("NODE_AGENT"), KYRSERVERTYPE_NODE_AGENT);
  EXPECT_EQ(convertToKyrServerTypeEnum("DEPLOYMENT_MANAGER"), KYRSERVERTYPE_DEPLOYMENT_MANAGER);
  EXPECT_EQ(convertToKyrServerTypeEnum("WEB_SERVER"), KYRSERVERTYPE_WEB_SERVER);
  EXPECT_EQ(convertToKyrServerTypeEnum("BRAMBLE_SERVER"), KYRSERVERTYPE_BRAMBLE_SERVER);
  EXPECT_EQ(convertToKyrServerTypeEnum("application_server"), KYRSERVERTYPE_UNKNOWN);
  EXPECT_EQ(convertToKyrServerTypeEnum("APPLICATION_SERVER "), KYRSERVERTYPE_UNKNOWN);
  EXPECT_EQ(convertToKyrServerTypeEnum(nullptr), KYRSERVERTYPE_UNKNOWN);
}

TEST(TargetModelText, MaintenanceModeAndProtocolTexts) {
  EXPECT_STREQ(mm2str(NormalMM), "normal");
  EXPECT_STREQ(mm2str(AffinityMM), "affinity");
  EXPECT_STREQ(mm2str(BreakMM), "break");
  EXPECT_STREQ(mm2str(static_cast<MaintenanceMode>(7)), "unknown server maintenance mode");
  EXPECT_EQ(getProtoIndex("http"), 0);
  EXPECT_EQ(getProtoIndex("https"), 1);
  EXPECT_EQ(getProtoIndex("HTTP"), -1);
  EXPECT_EQ(getProtoIndex("ftp"), -1);
  EXPECT_EQ(getProtoIndex(nullptr), -1);
  EXPECT_STREQ(getProtoName(0), "http");
  EXPECT_STREQ(getProtoName(1), "https");
  EXPECT_STREQ(getProtoName(-1), "invalidProtocol");
  EXPECT_STREQ(getProtoName(2), "invalidProtocol");
}

TEST_F(TargetModel, SelectorKnowsItsVersionAndTraceRecords) {
  EXPECT_EQ(tsGetRoutingInfo(ts_), &ri_);
  EXPECT_EQ(ts_->kyr, kyr_);
  for (TrRecord* rec : {ts_->selectRec, ts_->rolloutRec, ts_->affinityRec, ts_->keepAffinityRec,
                        ts_->breakAffinityRec, ts_->balanceRec, ts_->error503Rec, ts_->controlRec,
                        ts_->serverStateRec}) {
    EXPECT_NE(rec, nullptr);
  }
}

// ---- Nodes

TEST_F(TargetModel, NodeMaintenanceTakesTrueOrFalseAndRecomputesItsServers) {
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  TargetServer* s = runningServer(n, cl, "/cell/c1/node/n1/server/s1");
  ASSERT_EQ(s->reasonForNoLoadBalancing, nullptr);

  EXPECT_TRUE(tsNodeSetPropStr(n, "cp.node.maintenancemode", "true"));
  EXPECT_TRUE(n->maintenanceMode);
  EXPECT_STREQ(s->reasonForNoLoadBalancing, "server is on node in maintenance mode");
  EXPECT_EQ(s->reasonForNoAffinity, nullptr);

  for (const char* refused : {"TRUE", "yes", "affinity", ""}) {
    EXPECT_FALSE(tsNodeSetPropStr(n, "cp.node.maintenancemode", refused)) << refused;
    EXPECT_TRUE(n->maintenanceMode) << refused;
  }
  EXPECT_FALSE(tsNodeSetPropStr(n, "cp.node.maintenancemode", nullptr));
  EXPECT_FALSE(tsNodeSetPropStr(n, "cp.node.MaintenanceMode", "false"));
  EXPECT_FALSE(tsNodeSetPropStr(n, "maintenancemode", "false"));

  EXPECT_TRUE(tsNodeSetPropStr(n, "cp.node.maintenancemode", "false"));
  EXPECT_EQ(s->reasonForNoLoadBalancing, nullptr);
  EXPECT_STREQ(tsNodeGetName(n), "/cell/c1/node/n1");
}

// ---- Clusters

TEST_F(TargetModel, ClusterStartsUnsetAndTakesItsStringProperties) {
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  EXPECT_STREQ(tsClusterGetName(cl), "cl1");
  EXPECT_EQ(cl->refcnt, 1);
  EXPECT_EQ(cl->ioTimeoutRetry, -1);
  EXPECT_EQ(cl->serverType, KYRSERVERTYPE_UNKNOWN);
  EXPECT_EQ(cl->cloneIdSeparator, nullptr);
  EXPECT_EQ(cl->sessionAffinityCookies, nullptr);

  EXPECT_TRUE(tsClusterSetPropStr(cl, "cloneIdSeparator", "+"));
  EXPECT_TRUE(tsClusterSetPropStr(cl, "cloneIdSeparator", nullptr));  // known, value ignored
  EXPECT_STREQ(cl->cloneIdSeparator, "+");
  EXPECT_TRUE(tsClusterSetPropStr(cl, "cookieNames", "A,B"));
  EXPECT_TRUE(tsClusterSetPropStr(cl, "cookieNames", nullptr));
  EXPECT_STREQ(cl->sessionAffinityCookies, "A,B");
  EXPECT_TRUE(tsClusterSetPropStr(cl, "serverType", "APPLICATION_SERVER"));
  EXPECT_EQ(cl->serverType, KYRSERVERTYPE_APPLICATION_SERVER);
  EXPECT_TRUE(tsClusterSetPropStr(cl, "serverType", "bogus"));
  EXPECT_EQ(cl->serverType, KYRSERVERTYPE_UNKNOWN);

  EXPECT_FALSE(tsClusterSetPropStr(cl, "cookienames", "X"));
  EXPECT_FALSE(tsClusterSetPropStr(cl, "ioTimeoutRetry", "3"));
  EXPECT_FALSE(tsClusterSetPropStr(cl, "learnCloneIds", "true"));
  EXPECT_STREQ(cl->sessionAffinityCookies, "A,B");
}

TEST_F(TargetModel, EditionRolloutBeginsOnAnyValueStartingWithBegin) {
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  struct {
    const char* value;
    bool inProgress;
  } cases[] = {{"BEGIN", true},   {"END", false},   {"BEGINNING", true}, {"begin", false},
               {"BEGIN_X", true}, {nullptr, false}, {"BEGI", false},     {"", false}};
  for (const auto& c : cases) {
    EXPECT_TRUE(tsClusterSetPropStr(cl, "appEditionRolloutState", c.value));
    EXPECT_EQ(cl->editionRolloutInProgress, c.inProgress) << (c.value ? c.value : "null");
  }
}

TEST_F(TargetModel, ClusterIntegerAndBooleanProperties) {
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  EXPECT_TRUE(tsClusterSetPropInt(cl, "ioTimeoutRetry", 3));
  EXPECT_EQ(cl->ioTimeoutRetry, 3);
  EXPECT_FALSE(tsClusterSetPropInt(cl, "IoTimeoutRetry", 4));
  EXPECT_FALSE(tsClusterSetPropInt(cl, "learnCloneIds", 1));
  EXPECT_EQ(cl->ioTimeoutRetry, 3);
  EXPECT_TRUE(tsClusterSetPropBool(cl, "learnCloneIds", true));
  EXPECT_TRUE(cl->learnServerIds);
  EXPECT_FALSE(tsClusterSetPropBool(cl, "learnServerIds", false));
  EXPECT_FALSE(tsClusterSetPropBool(cl, "ioTimeoutRetry", false));
  EXPECT_TRUE(cl->learnServerIds);
}

TEST_F(TargetModel, ClusterMembershipFollowsLinksAndUnlinkNeedsTheSameCluster) {
  TargetNode* n = node();
  Cluster* a = tsClusterCreate(ts_, "a");
  Cluster* b = tsClusterCreate(ts_, "b");
  TargetServer* s = server(n, "/cell/c1/node/n1/server/s1");
  EXPECT_TRUE(tsLinkClusterServer(a, s, true));
  EXPECT_EQ(tsServerGetCluster(s), a);
  EXPECT_EQ(kyrListGetCount(a->servers), 1);

  EXPECT_TRUE(tsLinkClusterServer(b, s, false));  // not b's member: nothing changes
  EXPECT_EQ(tsServerGetCluster(s), a);
  EXPECT_EQ(kyrListGetCount(a->servers), 1);

  EXPECT_TRUE(tsLinkClusterServer(a, s, true));  // again: still listed once
  EXPECT_EQ(kyrListGetCount(a->servers), 1);

  EXPECT_TRUE(tsLinkClusterServer(b, s, true));  // moving leaves no stale membership
  EXPECT_EQ(tsServerGetCluster(s), b);
  EXPECT_EQ(kyrListGetCount(a->servers), 0);

  EXPECT_TRUE(tsLinkClusterServer(b, s, false));
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  EXPECT_EQ(kyrListGetCount(b->servers), 0);

  tsServerSetCluster(s, nullptr);
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  tsServerSetCluster(s, a);
  EXPECT_EQ(tsServerGetCluster(s), a);
}

TEST_F(TargetModel, VirtualClusterFollowsTheHeadOfItsClusterList) {
  Cluster* a = tsClusterCreate(ts_, "a");
  Cluster* b = tsClusterCreate(ts_, "b");
  auto* module = reinterpret_cast<WebModule*>(0x1);
  VirtualCluster* vc = tsVirtualClusterCreate(ts_, module, "mod1");
  ASSERT_NE(vc, nullptr);
  EXPECT_EQ(vc->webModule, module);
  EXPECT_EQ(vc->cluster, nullptr);

  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, true));
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, b, true));
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, true));
  EXPECT_EQ(kyrListGetCount(vc->clusterList), 2);
  EXPECT_EQ(vc->cluster, a);
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, false));
  EXPECT_EQ(vc->cluster, b);
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, b, false));
  EXPECT_EQ(vc->cluster, nullptr);

  // Creating it again keeps the object and its members but forgets the cluster.
  tsLinkVirtualClusterToCluster(vc, a, true);
  EXPECT_EQ(tsVirtualClusterCreate(ts_, nullptr, "mod1"), vc);
  EXPECT_EQ(vc->cluster, nullptr);
  EXPECT_EQ(vc->webModule, nullptr);

  tsVirtualClusterDelete(vc);
  EXPECT_EQ(kyrHashGet(ts_->virtualClusterMap, "mod1"), nullptr);
}

TEST_F(TargetModel, DeletedClusterLeavesNoPointerInServersOrModules) {
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  TargetServer* s = runningServer(n, cl, "/cell/c1/node/n1/server/s1");
  VirtualCluster* vc = tsVirtualClusterCreate(ts_, nullptr, "mod1");
  tsLinkVirtualClusterToCluster(vc, cl, true);

  tsClusterDelete(cl);
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  EXPECT_EQ(vc->cluster, nullptr);
  EXPECT_TRUE(kyrListIsEmpty(ts_->clusters));
}

// ---- Partition data

TEST(TargetModelPartitionData, DefaultIsVersionMinusOneAndEmpty) {
  int before = kyrtest::settledMemCount();
  PartitionIDData* d = tsDefaultPartitionIDData();
  EXPECT_STREQ(tsPartitionIDDataGetVersion(d), "-1");
  EXPECT_EQ(d->partition2CloneIdMap->count, 0);
  kyrHashPut(d->partition2CloneIdMap, "p1", kyrStrdup("clone1"));  // values go with the map
  tsPartitionIDDataDelete(d);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST(TargetModelPartitionData, CreateWrapsTheGivenMap) {
  KyrHashMap* map = kyrHashMapCreate();
  kyrHashPut(map, "p1", const_cast<char*>("c1"));
  PartitionIDData* d = tsPartitionIDDataCreate(map, "17");
  EXPECT_EQ(d->partition2CloneIdMap, map);
  EXPECT_STREQ(tsPartitionIDDataGetVersion(d), "17");
  EXPECT_EQ(tsPartitionIDDataGetVersion(nullptr), nullptr);
  tsPartitionIDDataDelete(d);
  tsPartitionIDDataDelete(nullptr);
}

// ---- State dumps

TEST_F(TargetModel, VerboseDumpShowsEveryClusterServerAndApplication) {
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  tsClusterCreate(ts_, "empty");
  TargetServer* s = runningServer(n, cl, "s1");
  tsServerSetPropStr(s, "id", "clone1");
  tsServerSetPropStr(s, "sessionAffinityCookies", "JSESSIONID");
  TargetServerApplication* a = sapp(s, "/cell/c1/node/n1/server/s1/serverApplication/app1");
  serverApplicationSetState(a, "STARTED");
  serverUpdateAvgResponseTime(s, 12);
  TargetServer* s2 = server(n, "s2");
  tsLinkClusterServer(cl, s2, true);

  EXPECT_EQ(dump(tsToJSON(ts_)),
            R"({"cl1":{"servers":{"s1":{"state":"STARTED","weight":1,"maintenanceMode":"normal",)"
            R"("cloneID":"clone1","averageResponseTimeInMillis":12,)"
            R"("sessionAffinityCookies":"JSESSIONID","outstandingRequests":0,)"
            R"("applications":{"app1":{"state":"STARTED","outstandingRequests":0}}},)"
            R"("s2":{"state":"STOPPED","weight":-1,"maintenanceMode":"normal",)"
            R"("noAffinity":"server is not started","noLoadBalancing":"server is not started",)"
            R"("cloneID":null,"averageResponseTimeInMillis":0,"sessionAffinityCookies":null,)"
            R"("outstandingRequests":0,"applications":{}}}},"empty":{"servers":{}}})");
}

TEST_F(TargetModel, BriefClusterDumpLeavesOutTheVerboseFields) {
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  TargetServer* s = runningServer(n, cl, "s1");
  tsServerSetMaintenanceMode(s, "affinity");
  serverApplicationSetState(sapp(s, "/x/app1"), "AFFINITY");
  EXPECT_EQ(dump(tsClusterToJSON(cl, false)),
            R"({"servers":{"s1":{"state":"STARTED","weight":1,"maintenanceMode":"affinity",)"
            R"("noLoadBalancing":"server is in affinity maintenance mode",)"
            R"("applications":{"app1":{"state":"AFFINITY"}}}}})");
}

}  // namespace
