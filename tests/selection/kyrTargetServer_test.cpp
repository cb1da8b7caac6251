// Servers: the own-server rule, clone IDs, maintenance modes, the selectability tables, run
// state with its effect on host endpoint objects, and the connect back-off.
#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"
#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::hostEndpoints;
using kyrtest::TargetModel;

using ServerProps = TargetModel;
using ServerSelectability = TargetModel;
using ServerState = TargetModel;
using ConnectBackOff = TargetModel;

constexpr const char* kS1 = "/cell/c1/node/n1/server/s1";
constexpr const char* kNotStarted = "server is not started";

// The reasons a server or application is passed over for affinity and load balancing, "" for
// none.
template <class Target>
void expectReasons(const Target* t, const std::string& noAffinity, const std::string& noLb) {
  EXPECT_EQ(t->reasonForNoAffinity != nullptr ? t->reasonForNoAffinity : "", noAffinity);
  EXPECT_EQ(t->reasonForNoLoadBalancing != nullptr ? t->reasonForNoLoadBalancing : "", noLb);
}

// A server keeps its first clone ID; deleting a server must not drop another's entry.
TEST_F(ServerProps, CloneIdMapKeepsFirstIdsAndOtherServersEntries) {
  TargetNode* n = node();
  TargetServer* old = server(n, "/s/old");
  TargetServer* replacement = server(n, "/s/new");
  tsServerSetCloneId(old, "");
  EXPECT_EQ(tsServerGetCloneId(old), nullptr);
  tsServerSetPropStr(old, "id", "clone1");
  tsServerSetPropStr(old, "id", "second");
  EXPECT_STREQ(tsServerGetCloneId(old), "clone1");
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "second"), nullptr);
  tsServerSetCloneId(replacement, "clone1");
  ASSERT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), replacement);
  tsServerDelete(old);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), replacement);
  tsServerDelete(replacement);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), nullptr);
}

// Our own server's strings are the library's custom properties (the routing data tests show them
// taking effect); they must not touch the server object.
TEST_F(ServerProps, OwnServerStringsLeaveTheServerAlone) {
  kyrSetServerName(kyr_, "c1_n1_s1");
  ASSERT_STREQ(kyrGetServerPath(kyr_), kS1);
  TargetServer* own = server(node(), kS1);
  EXPECT_FALSE(tsServerSetPropStr(own, "state", "STARTED"));  // not a library property
  EXPECT_FALSE(own->started);
  EXPECT_TRUE(tsServerSetPropStr(own, "cp.vq.MaxHttpContextPoolSize", "7"));
  EXPECT_TRUE(tsServerSetPropInt(own, "weight", 3));  // the integer setter knows no such rule

  TargetServer* other = server(node("/cell/c1/node/n2"), "/cell/c1/node/n2/server/s1");
  EXPECT_TRUE(tsServerSetPropStr(other, "state", "STARTED"));
  EXPECT_TRUE(other->started);
}

TEST_F(ServerProps, ServerMaintenanceModeTakesFalseAffinityBreakOnly) {
  TargetServer* s = server(node(), kS1);
  struct {
    const char* mode;
    MaintenanceMode expected;
  } table[] = {{"affinity", AffinityMM}, {"true", AffinityMM},  // "true" is the node's word
               {"BREAK", AffinityMM},    {nullptr, AffinityMM},
               {"break", BreakMM},       {"false", NormalMM}};
  for (const auto& row : table) {
    tsServerSetMaintenanceMode(s, row.mode);
    EXPECT_EQ(s->maintenanceMode, row.expected) << (row.mode ? row.mode : "null");
  }
}

// ---- Selectability

TEST_F(ServerSelectability, FirstApplicableRuleGivesBothReasons) {
  TargetNode* n = node();
  TargetServer* s = server(n, kS1);
  tsServerSetMaintenanceMode(s, "break");
  tsNodeSetPropStr(n, "cp.node.maintenancemode", "true");
  expectReasons(s, kNotStarted, kNotStarted);  // beats everything
  tsServerSetState(s, "STARTED");
  expectReasons(s, "server is in break maintenance mode", "server is in break maintenance mode");
  tsServerSetMaintenanceMode(s, "affinity");
  expectReasons(s, "", "server weight is 0");  // the default weight -1 beats affinity mode
  tsServerSetWeight(s, 2);
  expectReasons(s, "", "server is in affinity maintenance mode");  // beats node mode
  tsServerSetMaintenanceMode(s, "false");
  expectReasons(s, "", "server is on node in maintenance mode");
  tsNodeSetPropStr(n, "cp.node.maintenancemode", "false");
  expectReasons(s, "", "");
  tsServerSetState(s, "STOPPING");
  expectReasons(s, kNotStarted, kNotStarted);
}

TEST_F(ServerSelectability, ApplicationStateTableIgnoresCase) {
  TargetServerApplication* a = sapp(server(node(), kS1), "/x/app");
  expectReasons(a, "server application is STOPPED", "server application is STOPPED");
  struct {
    const char* state;
    const char* noAffinity;
    const char* noLb;
  } table[] = {
      {"started", "", ""},
      {"Affinity", "", "in affinity mode"},
      {"QUIESCING", "in QUIESCING state", "in QUIESCING state"},
      {"quiesced", "in QUIESCE state", "in QUIESCE state"},
      {"STARTING", "not STARTED", "not STARTED"},
      {nullptr, "null state", "null state"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.state != nullptr ? row.state : "null");
    serverApplicationSetState(a, row.state);
    expectReasons(a, row.noAffinity, row.noLb);
  }
}

TEST_F(ServerSelectability, SelectableNowChecksApplicationServerBackOffThenCluster) {
  TargetServer* s = server(node(), kS1);
  TargetServerApplication* a = sapp(s, "/x/app");
  KyrTime now = kyrGetCurrentTime();
  KyrLockGuard guard(ts_->lock, "test");  // the selector lock, as target selection holds it

  EXPECT_STREQ(sappIsSelectableForAffinity(a, now), "server application is STOPPED");
  a->reasonForNoAffinity = a->reasonForNoLoadBalancing = nullptr;
  EXPECT_STREQ(sappIsSelectableForLoadBalancing(a, now), kNotStarted);

  s->reasonForNoAffinity = nullptr;
  s->reasonForNoLoadBalancing = "server weight is 0";
  s->nextRetryTime = now + 100;
  EXPECT_STREQ(sappIsSelectableForAffinity(a, now + 99), "connect failure");
  EXPECT_STREQ(sappIsSelectableForLoadBalancing(a, now), "server weight is 0");
  s->reasonForNoLoadBalancing = nullptr;
  EXPECT_STREQ(sappIsSelectableForLoadBalancing(a, now + 100),
               "no cluster associated with the server");  // with one: the selection tests
}

// ---- Run state

TEST_F(ServerState, StartedMeansExactlyStartedAndNullIsIgnored) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "started");
  EXPECT_FALSE(s->started);
  tsServerSetState(s, "STARTED");
  tsServerSetState(s, nullptr);
  EXPECT_TRUE(s->started);
}

TEST_F(ServerState, LeavingStoppedObtainsHostObjectsAndStoppingReturnsThem) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* http = endpoint(s, "/ep/http", "http");
  ASSERT_TRUE(tsEndPointInit(http));
  ASSERT_TRUE(tsEndPointInit(endpoint(s, "/ep/https", "https")));
  EXPECT_EQ(hostEndpoints().creates, 0);  // a stopped server's endpoints need none
  tsServerSetState(s, "STARTING");        // any state but STOPPED
  tsServerSetState(s, "STARTED");         // not a STOPPED transition: nothing more
  EXPECT_EQ(hostEndpoints().creates, 2);
  EXPECT_NE(tsEndPointGetEnvEndPoint(http), nullptr);
  tsServerSetState(s, "STOPPED");
  EXPECT_EQ(hostEndpoints().deletes, 2);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(http), nullptr);
}

// ---- Connect back-off

TEST_F(ConnectBackOff, FailuresBarTheServerForGrowingIntervalsUntilSuccessOrStart) {
  TargetServer* s = server(node(), kS1);
  for (KyrTime bar : {50, 500, 5000, 50000, 60000, 60000}) {  // capped at one minute
    KyrTime before = kyrGetCurrentTime();
    tsServerConnectFailure(s);
    EXPECT_GE(s->nextRetryTime - before, bar);
    EXPECT_LE(s->nextRetryTime - kyrGetCurrentTime(), bar);
  }
  tsServerConnectSuccess(s);
  EXPECT_EQ(s->nextRetryInterval, 50u);
  EXPECT_EQ(s->nextRetryTime, 0u);
  tsServerConnectFailure(s);
  tsServerConnectFailure(s);
  tsServerSetState(s, "STARTED");
  EXPECT_EQ(s->nextRetryInterval, 50u);
  EXPECT_EQ(s->nextRetryTime, 0u);
}

}  // namespace
