// Endpoints: the protocol list they join, when the host is asked for an object and when it gets
// it back, the properties that make the host see new values, and the public getters that read
// through to the cluster.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "selection/targetModelFixture.h"

namespace {

using namespace kyr;
using kyrtest::hostEndpoints;
using kyrtest::TargetModel;
using Strings = std::vector<std::string>;

using Endpoint = TargetModel;

constexpr const char* kS1 = "/cell/c1/node/n1/server/s1";

TEST_F(Endpoint, InitJoinsTheProtocolListButAStoppedServerNeedsNoHostObject) {
  TargetServer* s = server(node(), kS1);
  EXPECT_FALSE(tsEndPointInit(tsEndPointCreate(s, "/t/none")));  // no protocol
  KyrTargetEndpoint* https = endpoint(s, "/t/https", "https");
  EXPECT_TRUE(tsEndPointInit(https));
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[0]));
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(s->endPoints[1])), https);
  tsEndPointSetPropStr(https, "host", "h2");
  EXPECT_EQ(hostEndpoints().creates, 0);
  tsEndPointSetPropStr(https, "protocol", "http");  // a listed endpoint moves
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[1]));
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(s->endPoints[0])), https);
}

TEST_F(Endpoint, OnARunningServerInitNeedsTheHostObjectAndDeleteReturnsIt) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "STARTED");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http", "h1", 9080);
  EXPECT_TRUE(tsEndPointInit(tep));
  EXPECT_NE(tsEndPointGetEnvEndPoint(tep), nullptr);
  EXPECT_EQ(hostEndpoints().createdFor, Strings{"h1:9080"});
  tsEndPointDelete(tep);
  EXPECT_EQ(hostEndpoints().deletes, 1);
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[0]));

  hostEndpoints().refuse = true;
  KyrTargetEndpoint* refused = endpoint(s, "/t/other", "http");
  EXPECT_FALSE(tsEndPointInit(refused));
  EXPECT_EQ(tsEndPointGetEnvEndPoint(refused), nullptr);
}

TEST_F(Endpoint, AcceptedPropertyRecreatesAHeldHostObjectSoTheHostSeesNewValues) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "STARTED");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http", "h1", 9080);
  ASSERT_TRUE(tsEndPointInit(tep));
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "host", "h2"));
  EXPECT_TRUE(tsEndPointSetPropInt(tep, "port", 9081));
  EXPECT_EQ(hostEndpoints().createdFor, (Strings{"h1:9080", "h2:9080", "h2:9081"}));
  EXPECT_EQ(hostEndpoints().deletes, 2);
  EXPECT_FALSE(tsEndPointSetPropStr(tep, "bogus", "x"));  // refused: left alone
  EXPECT_EQ(hostEndpoints().creates, 3);
}

TEST_F(Endpoint, VersionsShareOneHostObjectPerEndpointName) {
  kyr::KyrRoutingInfo ri2{};
  ri2.kyr = kyr_;
  TargetSelector* ts2 = tsCreate(&ri2);
  TargetServer* a = server(node(), kS1);
  TargetServer* b = tsServerCreate(tsNodeCreate(ts2, "/cell/c1/node/n1"), kS1, c_);
  tsServerInit(b);
  tsServerSetState(a, "STARTED");
  tsServerSetState(b, "STARTED");
  KyrTargetEndpoint* ta = endpoint(a, "/t/http", "http");
  KyrTargetEndpoint* tb = endpoint(b, "/t/http", "http");
  ASSERT_TRUE(tsEndPointInit(ta));
  ASSERT_TRUE(tsEndPointInit(tb));
  EXPECT_EQ(hostEndpoints().creates, 1);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(ta), tsEndPointGetEnvEndPoint(tb));
  tsDelete(ts2);
  EXPECT_EQ(hostEndpoints().deletes, 0);  // still held by the other version
  EXPECT_NE(tsEndPointGetEnvEndPoint(ta), nullptr);
}

// The host calls these for every request: some read through to the cluster, and none may fail
// for an endpoint without cluster or valid protocol, or without endpoint.
TEST_F(Endpoint, PublicGettersReadThroughToTheCluster) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* tep = endpoint(s, "/t/https", "spdy", "h1", 9443);
  EXPECT_EQ(kyrTargetEndpointGetIOTimeoutRetry(tep), -1);
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(tep), "invalidProtocol");
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  tsClusterSetPropInt(cl, "ioTimeoutRetry", 2);
  tsLinkClusterServer(cl, s, true);
  EXPECT_STREQ(kyrTargetEndpointGetClusterName(tep), "cl1");
  EXPECT_EQ(kyrTargetEndpointGetIOTimeoutRetry(tep), 2);
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(nullptr), "invalidProtocol");
  EXPECT_EQ(kyrTargetEndpointGetClusterName(nullptr), nullptr);
}

}  // namespace
