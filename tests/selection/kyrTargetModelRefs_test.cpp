// Lifetimes: objects the routing data deletes stay alive while a request holds them, deletes
// in any order free everything, a version's deletion frees what never reached the lists; and
// state changes racing target reads under the selector lock.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

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

TEST_F(ReferenceCounting, ParentDeletedBeforeItsChildrenIsFreedWithTheLastChild) {
  int before = kyrtest::settledMemCount();
  TargetNode* n = node();
  TargetServer* s = server(n, "/s1");
  TargetServerApplication* a = sapp(s, "/s1/serverApplication/app1");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http");
  tsEndPointInit(tep);

  tsNodeDelete(n);
  tsServerDelete(s);
  EXPECT_EQ(kyrListGetCount(ts_->nodes), 1);  // still there for its children

  tsServerApplicationDelete(a);
  tsEndPointDelete(tep);
  EXPECT_TRUE(kyrListIsEmpty(ts_->nodes));
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

// ---- Concurrency: routing data changes the model while request threads read it.

using TargetModelConcurrency = TargetModel;

TEST_F(TargetModelConcurrency, StateChangesRaceSelectabilityReadsAndRequestReferences) {
  TargetNode* n = node();
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  std::vector<TargetServer*> servers;
  std::vector<TargetServerApplication*> sapps;
  std::vector<KyrTargetEndpoint*> teps;
  for (int i = 0; i < 3; ++i) {
    std::string name = "/s" + std::to_string(i);
    TargetServer* s = runningServer(n, cl, name.c_str());
    servers.push_back(s);
    sapps.push_back(sapp(s, (name + "/serverApplication/app").c_str()));
    teps.push_back(endpoint(s, (name + "/t").c_str(), "http"));
    tsEndPointInit(teps.back());
    tsLinkServerToWebModuleByName(s, "mod", "app", true);
  }
  auto* vc = static_cast<VirtualCluster*>(kyrHashGet(ts_->virtualClusterMap, "mod"));
  ASSERT_NE(vc, nullptr);

  std::atomic<bool> stop{false};
  std::atomic<int> selectable{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&, r] {
      while (!stop.load()) {
        KyrTime now = kyrGetCurrentTime();
        TargetServerApplication* chosen = nullptr;
        {
          KyrLockGuard guard(ts_->lock, "reader");
          for (TargetServerApplication** p = vc->sappArray; *p != nullptr; ++p) {
            if (sappIsSelectableForLoadBalancing(*p, now) == nullptr) chosen = *p;
          }
          if (chosen != nullptr) {
            tsServerApplicationObtainRef(chosen);
            tsServerObtainRef(chosen->server);
            chosen->outstandingRequestCount++;
            chosen->server->outstandingRequestCount++;
          }
        }
        if (chosen == nullptr) continue;
        selectable++;
        if (r == 0) tsServerConnectFailure(chosen->server);
        if (r == 1) tsServerConnectSuccess(chosen->server);
        KyrLockGuard guard(ts_->lock, "reader");
        chosen->outstandingRequestCount--;
        chosen->server->outstandingRequestCount--;
        tsServerReleaseRef(chosen->server);
        tsServerApplicationReleaseRef(chosen);
      }
    });
  }
  std::thread dumper([&] {
    while (!stop.load()) json_decref(tsToJSON(ts_));
  });

  const char* serverStates[] = {"STARTED", "STOPPING", "STOPPED", "STARTED"};
  const char* sappStates[] = {"STARTED", "AFFINITY", "QUIESCED", "STARTED"};
  const char* modes[] = {"false", "affinity", "break", "false"};
  for (int round = 0; round < 200; ++round) {
    int i = round % 3;
    int k = round % 4;
    tsServerSetState(servers[i], serverStates[k]);
    serverApplicationSetState(sapps[i], sappStates[k]);
    tsServerSetMaintenanceMode(servers[i], modes[k]);
    tsServerSetWeight(servers[i], round % 5 == 0 ? 0 : 2);
    tsNodeSetPropStr(n, "cp.node.maintenancemode", round % 7 == 0 ? "true" : "false");
    tsEndPointSetPropInt(teps[i], "port", 9000 + round);
  }
  stop = true;
  for (auto& t : readers) t.join();
  dumper.join();
  for (TargetServer* s : servers) EXPECT_EQ(s->outstandingRequestCount, 0);
  for (TargetServerApplication* a : sapps) EXPECT_EQ(a->refcnt, 1);
}

}  // namespace
