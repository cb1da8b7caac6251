// Servers: defaults, every property name each setter accepts or refuses, the own-server rule,
// clone IDs, maintenance modes and weights, the selectability table, run state with its effect
// on host endpoint objects, and the connect back-off.
#include <gtest/gtest.h>

#include "runtime/kyrLibUtil.h"
#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::hostEndpoints;
using kyrtest::printed;
using kyrtest::TargetModel;

using ServerProps = TargetModel;
using ServerSelectability = TargetModel;
using ServerState = TargetModel;
using ConnectBackOff = TargetModel;

constexpr const char* kS1 = "/cell/c1/node/n1/server/s1";

TEST_F(ServerProps, NewServerHasTheDocumentedDefaultsAndIsNotOnItsNodeUntilInit) {
  TargetNode* n = node();
  TargetServer* s = tsServerCreate(n, kS1, c_);
  EXPECT_STREQ(tsServerGetName(s), kS1);
  EXPECT_EQ(tsServerGetType(s), KYRSERVERTYPE_UNKNOWN);
  EXPECT_EQ(tsServerGetNode(s), n);
  EXPECT_EQ(tsServerGetConnector(s), c_);
  EXPECT_STREQ(s->state, "STOPPED");
  EXPECT_EQ(tsServerGetCloneId(s), nullptr);
  EXPECT_FALSE(s->started);
  EXPECT_EQ(s->weight, -1);
  EXPECT_EQ(s->connectTimeout, 5);
  EXPECT_EQ(s->ioTimeout, 900);
  EXPECT_EQ(s->wsIoTimeout, 30);
  EXPECT_EQ(s->wsIdleTimeout, 900);
  EXPECT_EQ(s->maxConnections, 99999);
  EXPECT_FALSE(s->waitForContinue);
  EXPECT_FALSE(s->extendedHandshake);
  EXPECT_EQ(s->maintenanceMode, NormalMM);
  EXPECT_EQ(s->nextRetryInterval, 50u);
  EXPECT_EQ(s->nextRetryTime, 0u);
  EXPECT_EQ(s->avgResponseTimeCalc.intervalLength, 15000u);
  EXPECT_EQ(s->timeoutCalc.intervalLength, 60000u);
  EXPECT_EQ(tsServerGetCluster(s), nullptr);
  EXPECT_TRUE(kyrListIsEmpty(n->servers));
  EXPECT_TRUE(tsServerInit(s));
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(n->servers)), s);
  EXPECT_EQ(tsServerCreate(nullptr, kS1, c_), nullptr);
}

TEST_F(ServerProps, StringSettersAcceptExactlyTheirNames) {
  TargetServer* s = server(node(), kS1);
  EXPECT_TRUE(tsServerSetPropStr(s, "id", "clone1"));
  EXPECT_STREQ(tsServerGetCloneId(s), "clone1");
  EXPECT_TRUE(tsServerSetPropStr(s, "state", "STARTED"));
  EXPECT_TRUE(s->started);
  EXPECT_TRUE(tsServerSetPropStr(s, "server.maintenancemode", "break"));
  EXPECT_EQ(s->maintenanceMode, BreakMM);
  EXPECT_TRUE(tsServerSetPropStr(s, "sessionAffinityCookies", "A,B"));
  EXPECT_TRUE(tsServerSetPropStr(s, "sessionAffinityCookies", nullptr));  // ignored
  EXPECT_STREQ(tsServerGetSessionAffinityCookies(s), "A,B");
  EXPECT_TRUE(tsServerSetPropStr(s, "type", "NODE_AGENT"));
  EXPECT_EQ(tsServerGetType(s), KYRSERVERTYPE_NODE_AGENT);
  EXPECT_TRUE(tsServerSetPropStr(s, "type", nullptr));
  EXPECT_EQ(tsServerGetType(s), KYRSERVERTYPE_UNKNOWN);

  for (const char* refused : {"ID", "State", "maintenancemode", "cloneId", "weight", ""}) {
    EXPECT_FALSE(tsServerSetPropStr(s, refused, "x")) << refused;
  }
  EXPECT_FALSE(tsServerSetPropStr(s, nullptr, "x"));
}

TEST_F(ServerProps, IntegerAndBooleanSettersStoreTheirFields) {
  TargetServer* s = server(node(), kS1);
  struct {
    const char* name;
    int TargetServer::*field;
  } ints[] = {{"weight", &TargetServer::weight},
              {"connectTimeout", &TargetServer::connectTimeout},
              {"ioTimeout", &TargetServer::ioTimeout},
              {"wsIoTimeout", &TargetServer::wsIoTimeout},
              {"wsIdleTimeout", &TargetServer::wsIdleTimeout},
              {"maxConnections", &TargetServer::maxConnections}};
  int value = 11;
  for (const auto& f : ints) {
    EXPECT_TRUE(tsServerSetPropInt(s, f.name, value)) << f.name;
    EXPECT_EQ(s->*f.field, value) << f.name;
    ++value;
  }
  for (const char* refused : {"Weight", "connecttimeout", "maxconnections", "id", "port"}) {
    EXPECT_FALSE(tsServerSetPropInt(s, refused, 1)) << refused;
  }

  EXPECT_TRUE(tsServerSetPropBool(s, "cloneSeparatorChange", true));
  EXPECT_TRUE(tsServerGetCloneSeparatorChange(s));
  EXPECT_TRUE(tsServerSetPropBool(s, "waitForContinue", true));
  EXPECT_TRUE(s->waitForContinue);
  EXPECT_TRUE(tsServerSetPropBool(s, "extendedHandshake", true));
  EXPECT_TRUE(s->extendedHandshake);
  for (const char* refused : {"isActive", "WaitForContinue", "weight", "state"}) {
    EXPECT_FALSE(tsServerSetPropBool(s, refused, true)) << refused;
  }
  // A null value on another server is accepted and changes nothing.
  tsServerSetState(s, "STARTED");
  EXPECT_TRUE(tsServerSetPropNull(s, "state"));
  EXPECT_TRUE(s->started);
}

TEST_F(ServerProps, SecondCloneIdIsIgnoredAndTheServerStaysUnderItsFirst) {
  TargetServer* s = server(node(), kS1);
  tsServerSetCloneId(s, "");
  tsServerSetCloneId(s, nullptr);
  EXPECT_EQ(tsServerGetCloneId(s), nullptr);
  tsServerSetPropStr(s, "id", "first");
  tsServerSetPropStr(s, "id", "second");
  EXPECT_STREQ(tsServerGetCloneId(s), "first");
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "first"), s);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "second"), nullptr);
}

TEST_F(ServerProps, DeletingAServerKeepsAnotherServersEntryUnderTheSameCloneId) {
  TargetNode* n = node();
  TargetServer* old = server(n, "/s/old");
  TargetServer* replacement = server(n, "/s/new");
  tsServerSetCloneId(old, "clone1");
  tsServerSetCloneId(replacement, "clone1");
  ASSERT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), replacement);
  tsServerDelete(old);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), replacement);
  tsServerDelete(replacement);
  EXPECT_EQ(kyrHashGet(ts_->serverMapByCloneId, "clone1"), nullptr);
}

TEST_F(ServerProps, OwnServerStringsBecomeLibraryCustomPropertiesAndLeaveTheServerAlone) {
  kyrSetServerName(kyr_, "c1_n1_s1");
  ASSERT_STREQ(kyrGetServerPath(kyr_), kS1);
  TargetServer* own = server(node(), kS1);

  EXPECT_FALSE(tsServerSetPropStr(own, "state", "STARTED"));  // not a library property
  EXPECT_STREQ(own->state, "STOPPED");
  EXPECT_FALSE(own->started);
  EXPECT_FALSE(tsServerSetPropStr(own, "id", "clone1"));
  EXPECT_EQ(tsServerGetCloneId(own), nullptr);

  EXPECT_TRUE(tsServerSetPropStr(own, "cp.vq.MaxHttpContextPoolSize", "7"));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 7);
  EXPECT_TRUE(tsServerSetPropNull(own, "MaxHttpContextPoolSize"));
  EXPECT_NE(kyr_->maxHttpContextPoolSize, 7);

  // The integer and Boolean setters know no such rule.
  EXPECT_TRUE(tsServerSetPropInt(own, "weight", 3));
  EXPECT_EQ(own->weight, 3);
  EXPECT_TRUE(tsServerSetPropBool(own, "waitForContinue", true));
  EXPECT_TRUE(own->waitForContinue);

  TargetServer* other = server(node("/cell/c1/node/n2"), "/cell/c1/node/n2/server/s1");
  EXPECT_TRUE(tsServerSetPropStr(other, "state", "STARTED"));
  EXPECT_TRUE(other->started);
}

TEST_F(ServerProps, ServerMaintenanceModeTakesFalseAffinityBreakOnly) {
  TargetServer* s = server(node(), kS1);
  tsServerSetMaintenanceMode(s, "affinity");
  EXPECT_EQ(s->maintenanceMode, AffinityMM);
  // "true" belongs to the node property; here it is not a mode and changes nothing.
  for (const char* unknown : {"true", "normal", "BREAK", ""}) {
    tsServerSetMaintenanceMode(s, unknown);
    EXPECT_EQ(s->maintenanceMode, AffinityMM) << unknown;
  }
  tsServerSetMaintenanceMode(s, nullptr);
  EXPECT_EQ(s->maintenanceMode, AffinityMM);
  tsServerSetMaintenanceMode(s, "break");
  EXPECT_EQ(s->maintenanceMode, BreakMM);
  tsServerSetMaintenanceMode(s, "false");
  EXPECT_EQ(s->maintenanceMode, NormalMM);
}

// ---- Selectability

TEST_F(ServerSelectability, FirstApplicableRuleGivesBothReasons) {
  TargetNode* n = node();
  TargetServer* s = server(n, kS1);
  auto expect = [&](const char* noAffinity, const char* noLb, const char* what) {
    if (noAffinity == nullptr) {
      EXPECT_EQ(s->reasonForNoAffinity, nullptr) << what;
    } else {
      EXPECT_STREQ(s->reasonForNoAffinity, noAffinity) << what;
    }
    if (noLb == nullptr) {
      EXPECT_EQ(s->reasonForNoLoadBalancing, nullptr) << what;
    } else {
      EXPECT_STREQ(s->reasonForNoLoadBalancing, noLb) << what;
    }
  };
  tsServerSetMaintenanceMode(s, "break");
  tsNodeSetPropStr(n, "cp.node.maintenancemode", "true");
  expect("server is not started", "server is not started", "stopped beats everything");

  tsServerSetState(s, "STARTED");
  expect("server is in break maintenance mode", "server is in break maintenance mode", "break");

  tsServerSetMaintenanceMode(s, "affinity");
  expect(nullptr, "server weight is 0", "default weight -1 beats affinity mode");
  tsServerSetWeight(s, 0);
  expect(nullptr, "server weight is 0", "weight 0");

  tsServerSetWeight(s, 2);
  expect(nullptr, "server is in affinity maintenance mode", "affinity mode beats node mode");

  tsServerSetMaintenanceMode(s, "false");
  expect(nullptr, "server is on node in maintenance mode", "node mode");

  tsNodeSetPropStr(n, "cp.node.maintenancemode", "false");
  expect(nullptr, nullptr, "selectable");

  tsServerSetWeight(s, 0);
  expect(nullptr, "server weight is 0", "weight back to 0");
  tsServerSetState(s, "STOPPING");
  expect("server is not started", "server is not started", "stopping");
}

TEST_F(ServerSelectability, ApplicationStateTableIgnoresCase) {
  TargetServerApplication* a = sapp(server(node(), kS1), "/x/app");
  EXPECT_STREQ(a->reasonForNoAffinity, "server application is STOPPED");
  EXPECT_STREQ(a->reasonForNoLoadBalancing, "server application is STOPPED");
  struct {
    const char* state;
    const char* noAffinity;
    const char* noLb;
  } table[] = {
      {"STARTED", nullptr, nullptr},
      {"started", nullptr, nullptr},
      {"AFFINITY", nullptr, "in affinity mode"},
      {"Affinity", nullptr, "in affinity mode"},
      {"QUIESCING", "in QUIESCING state", "in QUIESCING state"},
      {"QUIESCED", "in QUIESCE state", "in QUIESCE state"},
      {"quiesced", "in QUIESCE state", "in QUIESCE state"},
      {"STOPPED", "not STARTED", "not STARTED"},
      {"STARTING", "not STARTED", "not STARTED"},
      {nullptr, "null state", "null state"},
  };
  for (const auto& row : table) {
    serverApplicationSetState(a, row.state);
    const char* label = row.state != nullptr ? row.state : "null";
    if (row.noAffinity == nullptr) {
      EXPECT_EQ(a->reasonForNoAffinity, nullptr) << label;
    } else {
      EXPECT_STREQ(a->reasonForNoAffinity, row.noAffinity) << label;
    }
    if (row.noLb == nullptr) {
      EXPECT_EQ(a->reasonForNoLoadBalancing, nullptr) << label;
    } else {
      EXPECT_STREQ(a->reasonForNoLoadBalancing, row.noLb) << label;
    }
  }
}

TEST_F(ServerSelectability, SelectableNowChecksApplicationServerBackOffThenCluster) {
  TargetNode* n = node();
  TargetServer* s = server(n, kS1);
  TargetServerApplication* a = sapp(s, "/x/app");
  Cluster* cl = tsClusterCreate(ts_, "cl");
  KyrTime now = kyrGetCurrentTime();
  KyrLockGuard guard(ts_->lock, "test");  // the selector lock, as target selection holds it

  EXPECT_STREQ(sappIsSelectableForAffinity(a, now), "server application is STOPPED");
  a->reasonForNoAffinity = a->reasonForNoLoadBalancing = nullptr;
  EXPECT_STREQ(sappIsSelectableForAffinity(a, now), "server is not started");
  EXPECT_STREQ(sappIsSelectableForLoadBalancing(a, now), "server is not started");

  s->reasonForNoAffinity = nullptr;
  s->reasonForNoLoadBalancing = "server weight is 0";
  s->nextRetryTime = now + 100;
  EXPECT_STREQ(sappIsSelectableForAffinity(a, now), "connect failure");
  EXPECT_STREQ(sappIsSelectableForLoadBalancing(a, now), "server weight is 0");

  s->reasonForNoLoadBalancing = nullptr;
  EXPECT_STREQ(sappIsSelectableForAffinity(a, now + 99), "connect failure");
  EXPECT_STREQ(sappIsSelectableForAffinity(a, now + 100), "no cluster associated with the server");

  s->cluster = cl;  // linked directly: the link call takes the lock held here
  EXPECT_EQ(sappIsSelectableForAffinity(a, now + 100), nullptr);
  EXPECT_EQ(sappIsSelectableForLoadBalancing(a, now + 100), nullptr);
  s->cluster = nullptr;
}

// ---- Run state

TEST_F(ServerState, StartedMeansExactlyStartedAndStateChangesAreLogged) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "started");
  EXPECT_FALSE(s->started);
  tsServerSetState(s, "STARTED");
  EXPECT_TRUE(s->started);
  EXPECT_TRUE(printedContains("New state STARTED (previously started) for application server " +
                              std::string(kS1)));
  printed().clear();
  tsServerSetState(s, "STARTED");
  EXPECT_FALSE(printedContains("New state"));
  tsServerSetState(s, nullptr);
  EXPECT_STREQ(s->state, "STARTED");
}

TEST_F(ServerState, LeavingStoppedObtainsHostObjectsAndStoppingReturnsThem) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* http = endpoint(s, "/ep/http", "http");
  KyrTargetEndpoint* https = endpoint(s, "/ep/https", "https");
  ASSERT_TRUE(tsEndPointInit(http));
  ASSERT_TRUE(tsEndPointInit(https));
  EXPECT_EQ(hostEndpoints().created, 0);  // a stopped server's endpoints need none

  tsServerSetState(s, "STARTING");  // any state but STOPPED
  EXPECT_FALSE(s->started);
  EXPECT_EQ(hostEndpoints().created, 2);
  EXPECT_NE(tsEndPointGetEnvEndPoint(http), nullptr);
  EXPECT_NE(tsEndPointGetEnvEndPoint(https), nullptr);

  tsServerSetState(s, "STARTED");  // not a STOPPED transition: nothing more
  EXPECT_EQ(hostEndpoints().created, 2);
  EXPECT_EQ(hostEndpoints().deleted, 0);

  tsServerSetState(s, "STOPPED");
  EXPECT_EQ(hostEndpoints().deleted, 2);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(http), nullptr);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(https), nullptr);
}

TEST_F(ServerState, ServerThatIsNotStartedRestartsItsCalculators) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "STARTED");
  kyrAvgCalcAddSample(&s->avgResponseTimeCalc, 1000, 40);
  kyrTimeoutCalcAddSample(&s->timeoutCalc, 1000, true);
  serverUpdateAvgResponseTime(s, 40);
  tsServerSetState(s, "STARTED");  // still started: measurements kept
  EXPECT_EQ(s->avgResponseTime, 40u);
  tsServerSetState(s, "STOPPING");
  EXPECT_EQ(s->avgResponseTime, 0u);
  EXPECT_EQ(s->avgResponseTimeCalc.intervalEnd, 0u);
  EXPECT_EQ(s->timeoutCalc.intervalEnd, 0u);
  EXPECT_EQ(s->timeoutCalc.completionCount, 0);
}

// ---- Connect back-off

TEST_F(ConnectBackOff, FailuresBarTheServerForGrowingIntervalsCappedAtOneMinute) {
  TargetServer* s = server(node(), kS1);
  const KyrTime bars[] = {50, 500, 5000, 50000, 60000, 60000};
  for (KyrTime bar : bars) {
    KyrTime before = kyrGetCurrentTime();
    tsServerConnectFailure(s);
    KyrTime after = kyrGetCurrentTime();
    EXPECT_GE(s->nextRetryTime - before, bar);
    EXPECT_LE(s->nextRetryTime - after, bar);
  }
  EXPECT_EQ(s->nextRetryInterval, 60000u);
  tsServerConnectSuccess(s);
  EXPECT_EQ(s->nextRetryInterval, 50u);
  EXPECT_EQ(s->nextRetryTime, 0u);
}

TEST_F(ConnectBackOff, StartingTheServerClearsTheBackOff) {
  TargetServer* s = server(node(), kS1);
  tsServerConnectFailure(s);
  tsServerConnectFailure(s);
  tsServerSetState(s, "STARTED");
  EXPECT_EQ(s->nextRetryInterval, 50u);
  EXPECT_EQ(s->nextRetryTime, 0u);
}

}  // namespace
