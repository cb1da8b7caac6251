// The selector's own objects: the edition rollout flag, cluster links, and virtual clusters
// following their cluster list.
#include <gtest/gtest.h>

#include "runtime/kyrLibUtil.h"
#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::TargetModel;

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

TEST_F(TargetModel, ClusterMembershipFollowsLinksAndUnlinkNeedsTheSameCluster) {
  Cluster* a = tsClusterCreate(ts_, "a");
  Cluster* b = tsClusterCreate(ts_, "b");
  TargetServer* s = server(node(), "/cell/c1/node/n1/server/s1");
  EXPECT_TRUE(tsLinkClusterServer(a, s, true));
  EXPECT_TRUE(tsLinkClusterServer(b, s, false));  // not b's member: nothing changes
  EXPECT_EQ(tsServerGetCluster(s), a);
  EXPECT_TRUE(tsLinkClusterServer(a, s, true));  // again: still listed once
  EXPECT_EQ(kyrListGetCount(a->servers), 1);

  EXPECT_TRUE(tsLinkClusterServer(b, s, true));  // moving leaves no stale membership
  EXPECT_EQ(tsServerGetCluster(s), b);
  EXPECT_EQ(kyrListGetCount(a->servers), 0);
  EXPECT_TRUE(tsLinkClusterServer(b, s, false));
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  EXPECT_EQ(kyrListGetCount(b->servers), 0);
}

TEST_F(TargetModel, VirtualClusterFollowsTheHeadOfItsClusterList) {
  Cluster* a = tsClusterCreate(ts_, "a");
  Cluster* b = tsClusterCreate(ts_, "b");
  VirtualCluster* vc = tsVirtualClusterCreate(ts_, reinterpret_cast<WebModule*>(0x1), "mod1");
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, true));
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, b, true));
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, true));
  EXPECT_EQ(kyrListGetCount(vc->clusterList), 2);
  EXPECT_EQ(vc->cluster, a);
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, a, false));
  EXPECT_EQ(vc->cluster, b);
  EXPECT_TRUE(tsLinkVirtualClusterToCluster(vc, b, false));
  EXPECT_EQ(vc->cluster, nullptr);

  // Creating it again keeps the object but forgets the cluster and the module.
  tsLinkVirtualClusterToCluster(vc, a, true);
  EXPECT_EQ(tsVirtualClusterCreate(ts_, nullptr, "mod1"), vc);
  EXPECT_EQ(vc->cluster, nullptr);
  EXPECT_EQ(vc->webModule, nullptr);
  tsVirtualClusterDelete(vc);
  EXPECT_EQ(kyrHashGet(ts_->virtualClusterMap, "mod1"), nullptr);
}

TEST_F(TargetModel, DeletedClusterLeavesNoPointerInServersOrModules) {
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  TargetServer* s = runningServer(node(), cl, "/cell/c1/node/n1/server/s1");
  VirtualCluster* vc = tsVirtualClusterCreate(ts_, nullptr, "mod1");
  tsLinkVirtualClusterToCluster(vc, cl, true);
  tsClusterDelete(cl);
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  EXPECT_EQ(vc->cluster, nullptr);
  EXPECT_TRUE(kyrListIsEmpty(ts_->clusters));
}

}  // namespace
