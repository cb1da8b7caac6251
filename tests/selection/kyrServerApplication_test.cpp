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

VirtualCluster* virtualCluster(TargetSelector* ts, const char* module) {
  return static_cast<VirtualCluster*>(kyrHashGet(ts->virtualClusterMap, module));
}

TEST_F(ServerApplication, TakesItsNameFromThePathAndHoldsTheConnectorWhileItLives) {
  TargetServer* s = server(node(), "/cell/c1/node/n1/server/s1");
  int connectorRefs = c_->refcnt;
  TargetServerApplication* a = sapp(s, kApp);
  EXPECT_STREQ(a->name, "app1");
  EXPECT_EQ(c_->refcnt, connectorRefs + 1);  // the publisher must outlive its routes
  tsServerApplicationDelete(a);
  EXPECT_EQ(c_->refcnt, connectorRefs);
  EXPECT_TRUE(kyrListIsEmpty(s->serverApplications));
}

TEST_F(ServerApplication, RoutableTransitionsArePostedOnceEachButNotWhileRequestsAreOut) {
  TargetServerApplication* a = sapp(server(node(), "/s1"), kApp);
  serverApplicationSetState(a, "STARTED");
  serverApplicationSetState(a, "AFFINITY");  // still routable: affinity may pick it
  EXPECT_EQ(routes(c_->addRoutes), Strings{kApp});

  a->outstandingRequestCount = 1;  // the completion of that request tells the publisher
  serverApplicationSetState(a, "STOPPED");
  EXPECT_TRUE(a->routable);
  EXPECT_TRUE(routes(c_->delRoutes).empty());

  a->outstandingRequestCount = 0;
  serverApplicationSetState(a, "QUIESCED");
  serverApplicationSetState(a, "STOPPED");
  EXPECT_FALSE(a->routable);
  EXPECT_EQ(routes(c_->delRoutes), Strings{kApp});
}

// A rebuilt version re-announces its routes; the old one must not withdraw them after it.
TEST_F(ServerApplication, DeletingARoutableApplicationIsPostedButDeletingTheVersionIsNot) {
  TargetServer* s = server(node(), "/s1");
  TargetServerApplication* a = sapp(s, kApp);
  serverApplicationSetState(a, "STARTED");
  serverApplicationSetState(sapp(s, "/s1/serverApplication/app2"), "STARTED");
  tsServerApplicationDelete(a);
  EXPECT_EQ(routes(c_->delRoutes), Strings{kApp});
  tsDelete(ts_);
  ts_ = nullptr;
  EXPECT_EQ(routes(c_->delRoutes), Strings{kApp});
}

// ---- Module links

// A link withdrawn while it waits never takes effect.
TEST_F(ModuleLinks, LinksWaitUntilTheirOwnApplicationIsRoutable) {
  TargetServer* s = server(node(), "/s1");
  tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod2", "app2", true);
  tsLinkServerToWebModuleByName(s, "mod3", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod3", "app1", true);  // twice: one share all the same
  tsLinkServerToWebModuleByName(s, "mod4", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod4", "app1", false);
  TargetServerApplication* a = sapp(s, kApp);
  serverApplicationSetState(a, "QUIESCING");  // exists but not routable: still waiting
  EXPECT_EQ(virtualCluster(ts_, "mod1"), nullptr);

  serverApplicationSetState(a, "STARTED");
  ASSERT_EQ(kyrListGetCount(s->linkRequests), 1);
  auto* left = static_cast<LinkServerToWebModuleRequest*>(
      kyrListEleGetObject(kyrListGetHead(s->linkRequests)));
  EXPECT_STREQ(left->appName, "app2");
  for (const char* module : {"mod1", "mod3"}) {
    ASSERT_NE(virtualCluster(ts_, module), nullptr) << module;
    EXPECT_EQ(virtualCluster(ts_, module)->sappArray[0], a) << module;
  }
  EXPECT_EQ(virtualCluster(ts_, "mod3")->sappArray[1], nullptr);
  EXPECT_EQ(virtualCluster(ts_, "mod4"), nullptr);
}

// Only an unlink that removes something restarts the rotation.
TEST_F(ModuleLinks, UnlinkRemovesTheApplicationAndRestartsTheRotation) {
  TargetNode* n = node();
  TargetServer* s1 = server(n, "/s1");
  TargetServer* s2 = server(n, "/s2");
  sapp(s1, "/s1/serverApplication/app1");
  TargetServerApplication* a2 = sapp(s2, "/s2/serverApplication/app1");
  for (TargetServer* s : {s1, s2}) tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  VirtualCluster* vc = virtualCluster(ts_, "mod1");
  for (int indexAfter : {0, 1}) {
    vc->loadBalanceIndex = 1;
    EXPECT_TRUE(tsLinkServerToWebModuleByName(s1, "mod1", "app1", false));
    EXPECT_EQ(vc->loadBalanceIndex, indexAfter);
  }
  EXPECT_EQ(vc->sappArray[0], a2);
  EXPECT_EQ(vc->sappArray[1], nullptr);
}

TEST_F(ModuleLinks, DeletedApplicationLeavesEveryVirtualCluster) {
  TargetServer* s = server(node(), "/s1");
  TargetServerApplication* a = sapp(s, kApp);
  tsLinkServerToWebModuleByName(s, "mod1", "app1", true);
  tsLinkServerToWebModuleByName(s, "mod2", "app1", true);
  tsServerApplicationDelete(a);
  for (const char* module : {"mod1", "mod2"}) {
    ASSERT_NE(virtualCluster(ts_, module), nullptr) << module;
    EXPECT_EQ(virtualCluster(ts_, module)->sappArray[0], nullptr) << module;
  }
}

}  // namespace
