// Server applications and module links: the routing changes posted to the publisher as an
// application becomes routable or stops being so, and links that wait for their application.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::TargetModel;
using Strings = std::vector<std::string>;

using ServerApplication = TargetModel;
using ModuleLinks = TargetModel;

constexpr const char* kApp = "/cell/c1/node/n1/server/s1/serverApplication/app1";

TEST_F(ServerApplication, TakesItsNameFromThePathAndJoinsItsServer) {
  TargetServer* s = server(node(), "/cell/c1/node/n1/server/s1");
  int connectorRefs = c_->refcnt;
  TargetServerApplication* a = sapp(s, kApp);
  EXPECT_STREQ(a->name, "app1");
  EXPECT_STREQ(a->path, kApp);
  EXPECT_EQ(tsServerApplicationGetServer(a), s);
  EXPECT_STREQ(a->state, "STOPPED");
  EXPECT_FALSE(a->routable);
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(s->serverApplications)), a);
  EXPECT_EQ(c_->refcnt, connectorRefs + 1);
  tsServerApplicationDelete(a);
  EXPECT_EQ(c_->refcnt, connectorRefs);
  EXPECT_TRUE(kyrListIsEmpty(s->serverApplications));
  EXPECT_EQ(tsServerApplicationCreate(nullptr, kApp, c_), nullptr);
}

TEST_F(ServerApplication, OnlyTheStateStringPropertyIsKnown) {
  TargetServerApplication* a = sapp(server(node(), "/s1"), kApp);
  EXPECT_TRUE(tsServerApplicationSetPropStr(a, "state", "STARTED"));
  EXPECT_STREQ(a->state, "STARTED");
  EXPECT_FALSE(tsServerApplicationSetPropStr(a, "State", "STOPPED"));
  EXPECT_FALSE(tsServerApplicationSetPropStr(a, "name", "x"));
  EXPECT_FALSE(tsServerApplicationSetPropInt(a, "state", 1));
  EXPECT_FALSE(tsServerApplicationSetPropBool(a, "state", true));
  EXPECT_STREQ(a->state, "STARTED");
}

TEST_F(ServerApplication, RoutableTransitionsArePostedOnceEach) {
  TargetServerApplication* a = sapp(server(node(), "/s1"), kApp);
  serverApplicationSetState(a, "STARTED");
  EXPECT_TRUE(a->routable);
  EXPECT_EQ(addedRoutes(), Strings{kApp});

  serverApplicationSetState(a, "AFFINITY");  // still routable: affinity may pick it
  serverApplicationSetState(a, "AFFINITY");
  EXPECT_EQ(addedRoutes(), Strings{kApp});
  EXPECT_TRUE(removedRoutes().empty());

  serverApplicationSetState(a, "QUIESCED");
  EXPECT_FALSE(a->routable);
  EXPECT_EQ(removedRoutes(), Strings{kApp});
  serverApplicationSetState(a, "STOPPED");
  EXPECT_EQ(removedRoutes(), Strings{kApp});
}

TEST_F(ServerApplication, NotRoutableIsHeldBackWhileRequestsAreOutstanding) {
  TargetServerApplication* a = sapp(server(node(), "/s1"), kApp);
  serverApplicationSetState(a, "STARTED");
  a->outstandingRequestCount = 1;  // a request routed to it
  serverApplicationSetState(a, "STOPPED");
  EXPECT_TRUE(a->routable);  // the completion of that request tells the publisher
  EXPECT_TRUE(removedRoutes().empty());
  a->outstandingRequestCount = 0;
}

TEST_F(ServerApplication, DeletingARoutableApplicationTellsThePublisher) {
  TargetServerApplication* a = sapp(server(node(), "/s1"), kApp);
  serverApplicationSetState(a, "STARTED");
  tsServerApplicationDelete(a);
  EXPECT_EQ(removedRoutes(), Strings{kApp});
}

TEST_F(ServerApplication, DeletingTheWholeVersionPostsNothing) {
  // A rebuilt version re-announces its routes; the old one must not withdraw them after it.
  serverApplicationSetState(sapp(server(node(), "/s1"), kApp), "STARTED");
  tsDelete(ts_);
  ts_ = nullptr;
  EXPECT_TRUE(removedRoutes().empty());
}

// ---- Module links

TEST_F(ModuleLinks, LinkToAnExistingApplicationFillsTheVirtualCluster) {
  TargetServer* s = server(node(), "/s1");
  TargetServerApplication* a = sapp(s, kApp);
  EXPECT_TRUE(tsLinkServerToWebModuleByName(s, "mod1", "app1", true));
  auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts_->virtualClusterMap, "mod1"));
  ASSERT_NE(vc, nullptr);
  EXPECT_EQ(vc->sappArray[0], a);
  EXPECT_EQ(vc->sappArray[1], nullptr);
  EXPECT_TRUE(kyrListIsEmpty(s->linkRequests));

  EXPECT_TRUE(tsLinkServerToWebModuleByName(s, "mod1", "app1", true));
  EXPECT_EQ(kyrListGetCount(vc->sappList), 1);  // a repeated link does not double its share
}

TEST_F(ModuleLinks, LinkBeforeTheApplicationWaitsUntilItIsRoutable) {
  TargetServer* s = server(node(), "/s1");
  EXPECT_TRUE(tsLinkServerToWebModuleByName(s, "mod1", "app1", true));
  EXPECT_EQ(kyrListGetCount(s->linkRequests), 1);
  EXPECT_EQ(kyrHashGet(ts_->virtualClusterMap, "mod1"), nullptr);

  TargetServerApplication* a = sapp(s, kApp);
  serverApplicationSetState(a, "QUIESCING");  // exists but not routable: still waiting
  EXPECT_EQ(kyrListGetCount(s->linkRequests), 1);

  serverApplicationSetState(a, "STARTED");
  EXPECT_TRUE(kyrListIsEmpty(s->linkRequests));
  auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts_->virtualClusterMap, "mod1"));
  ASSERT_NE(vc, nullptr);
  EXPECT_EQ(vc->sappArray[0], a);
}

TEST_F(ModuleLinks, OnlyWaitingLinksOfTheRoutableApplicationAreRetried) {
  TargetServer* s = server(node(), "/s1");
  tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod2", "app2", true);
  tsLinkServerToWebModuleByName(s, "mod3", "app1", true);
  serverApplicationSetState(sapp(s, kApp), "STARTED");
  ASSERT_EQ(kyrListGetCount(s->linkRequests), 1);
  auto* left = static_cast<LinkServerToWebModuleRequest*>(
      kyrListEleGetObject(kyrListGetHead(s->linkRequests)));
  EXPECT_STREQ(left->appName, "app2");
  EXPECT_NE(kyrHashGet(ts_->virtualClusterMap, "mod3"), nullptr);
}

TEST_F(ModuleLinks, UnlinkRemovesTheApplicationAndRestartsTheRotation) {
  TargetNode* n = node();
  TargetServer* s1 = server(n, "/s1");
  TargetServer* s2 = server(n, "/s2");
  TargetServerApplication* a1 = sapp(s1, "/s1/serverApplication/app1");
  TargetServerApplication* a2 = sapp(s2, "/s2/serverApplication/app1");
  tsLinkServerToWebModuleByName(s1, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s2, "mod1", "app1", true);
  auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts_->virtualClusterMap, "mod1"));
  ASSERT_EQ(vc->sappArray[0], a1);
  ASSERT_EQ(vc->sappArray[1], a2);
  vc->loadBalanceIndex = 1;

  EXPECT_TRUE(tsLinkServerToWebModuleByName(s1, "mod1", "app1", false));
  EXPECT_EQ(vc->sappArray[0], a2);
  EXPECT_EQ(vc->sappArray[1], nullptr);
  EXPECT_EQ(vc->loadBalanceIndex, 0);

  vc->loadBalanceIndex = 1;
  EXPECT_TRUE(tsLinkServerToWebModuleByName(s1, "mod1", "app1", false));  // not there: no reset
  EXPECT_EQ(vc->loadBalanceIndex, 1);
  EXPECT_TRUE(tsLinkServerToWebModuleByName(s1, "nomodule", "app1", false));
}

TEST_F(ModuleLinks, UnlinkWithdrawsALinkStillWaitingForItsApplication) {
  TargetServer* s = server(node(), "/s1");
  tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod1", "app1", false);
  EXPECT_TRUE(kyrListIsEmpty(s->linkRequests));
  serverApplicationSetState(sapp(s, kApp), "STARTED");
  EXPECT_EQ(kyrHashGet(ts_->virtualClusterMap, "mod1"), nullptr);
}

TEST_F(ModuleLinks, DeletedApplicationLeavesEveryVirtualCluster) {
  TargetServer* s = server(node(), "/s1");
  TargetServerApplication* a = sapp(s, kApp);
  tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod2", "app1", true);
  tsServerApplicationDelete(a);
  for (const char* module : {"mod1", "mod2"}) {
    auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts_->virtualClusterMap, module));
    ASSERT_NE(vc, nullptr);
    EXPECT_EQ(vc->sappArray[0], nullptr) << module;
  }
}

}  // namespace
