// Lifetimes: objects the routing data deletes stay alive while a request holds them and go with
// its last reference, parents after their children, and a version's deletion frees what never
// reached the lists.
// Changes racing request threads are the routing concurrency suite's.
#include <gtest/gtest.h>

#include "runtime/kyrLibUtil.h"
#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::hostEndpoints;
using kyrtest::TargetModel;

using ReferenceCounting = TargetModel;

TEST_F(ReferenceCounting, DeletedTargetStaysAliveUntilTheLastRequestLetsGo) {
  int before = kyrtest::settledMemCount();
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  TargetServer* s = runningServer(n, cl, "/cell/c1/node/n1/server/s1");
  tsServerSetCloneId(s, "clone1");
  TargetServerApplication* a = sapp(s, "/cell/c1/node/n1/server/s1/serverApplication/app1");
  serverApplicationSetState(a, "STARTED");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http");
  ASSERT_TRUE(tsEndPointInit(tep));
  {  // what a routed request holds on its target, taken under the selector lock
    KyrLockGuard guard(ts_->lock, "test");
    tsServerApplicationObtainRef(a);
    tsEndPointObtainRef(tep);
    tsServerObtainRef(s);
    tsNodeObtainRef(n);
    tsClusterObtainRef(cl);
  }

  tsLinkClusterServer(cl, s, false);
  tsEndPointDelete(tep);
  tsServerApplicationDelete(a);
  tsServerDelete(s);
  tsNodeDelete(n);
  tsClusterDelete(cl);

  // Still usable by the request, but no longer found by a new one.
  EXPECT_STREQ(s->name, "/cell/c1/node/n1/server/s1");
  EXPECT_NE(tsEndPointGetEnvEndPoint(tep), nullptr);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), nullptr);
  EXPECT_EQ(kyrListFind(n->servers, s), nullptr);

  {
    KyrLockGuard guard(ts_->lock, "test");
    tsServerApplicationReleaseRef(a);
    tsEndPointReleaseRef(tep);
    tsServerReleaseRef(s);
    tsNodeReleaseRef(n);
    tsClusterReleaseRef(cl);
  }
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), nullptr);
  EXPECT_TRUE(kyrListIsEmpty(ts_->nodes));
  EXPECT_EQ(hostEndpoints().deletes, hostEndpoints().creates);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST_F(ReferenceCounting, VersionDeletionFreesObjectsThatNeverReachedTheLists) {
  int before = kyrtest::settledMemCount();
  kyr::KyrRoutingInfo ri2{};
  ri2.kyr = kyr_;
  TargetSelector* ts2 = tsCreate(&ri2);
  TargetNode* n = tsNodeCreate(ts2, "/n");
  TargetServer* s = tsServerCreate(n, "/n/server/s", c_);  // never initialised
  tsServerSetState(s, "STARTED");
  KyrTargetEndpoint* noProtocol = tsEndPointCreate(s, "/t/none");  // init fails
  EXPECT_FALSE(tsEndPointInit(noProtocol));
  tsServerApplicationCreate(s, "/n/server/s/serverApplication/app", c_);
  tsLinkServerToWebModuleByName(s, "mod", "other", true);  // stays waiting
  tsVirtualClusterCreate(ts2, nullptr, "mod2");
  tsLinkClusterServer(tsClusterCreate(ts2, "cl"), s, true);
  tsDelete(ts2);
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
