// Endpoints: the protocol list they join, when the host is asked for an object and when it gets
// it back, the properties that make the host see new values, and the public getters.
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

TEST_F(Endpoint, NewEndpointHasDefaultsAndNeedsAServer) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* tep = tsEndPointCreate(s, "/t/http");
  ASSERT_NE(tep, nullptr);
  EXPECT_STREQ(tsEndPointGetName(tep), "/t/http");
  EXPECT_EQ(tsEndPointGetServer(tep), s);
  EXPECT_EQ(tsEndpointGetHost(tep), nullptr);
  EXPECT_EQ(tsEndpointGetPort(tep), -1);
  EXPECT_EQ(tep->protoIndex, -1);
  EXPECT_EQ(tep->persistentTimeout, 30);
  EXPECT_EQ(tep->refcnt, 1);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(tep), nullptr);
  EXPECT_EQ(tsEndPointCreate(nullptr, "/t/x"), nullptr);
}

TEST_F(Endpoint, SettersAcceptTheirNamesAndBooleansAreAllRefused) {
  KyrTargetEndpoint* tep = tsEndPointCreate(server(node(), kS1), "/t");
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "protocol", "https"));
  EXPECT_EQ(tep->protoIndex, 1);
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "protocol", "HTTPS"));
  EXPECT_EQ(tep->protoIndex, -1);
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "host", "h1"));
  EXPECT_STREQ(tsEndpointGetHost(tep), "h1");
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "host", nullptr));
  EXPECT_EQ(tsEndpointGetHost(tep), nullptr);
  EXPECT_TRUE(tsEndPointSetPropStr(tep, "namedEndpoint", "WC_defaulthost"));
  EXPECT_STREQ(tep->namedEndpoint, "WC_defaulthost");
  for (const char* refused : {"Host", "port", "sslProfile", "name"}) {
    EXPECT_FALSE(tsEndPointSetPropStr(tep, refused, "x")) << refused;
  }
  EXPECT_TRUE(tsEndPointSetPropInt(tep, "port", 9443));
  EXPECT_EQ(tsEndpointGetPort(tep), 9443);
  EXPECT_TRUE(tsEndPointSetPropInt(tep, "persistentTimeout", 5));
  EXPECT_EQ(tep->persistentTimeout, 5);
  EXPECT_FALSE(tsEndPointSetPropInt(tep, "Port", 1));
  EXPECT_FALSE(tsEndPointSetPropInt(tep, "host", 1));
  EXPECT_FALSE(tsEndPointSetPropBool(tep, "isActive", true));  // known, ignored on purpose
  EXPECT_FALSE(tsEndPointSetPropBool(tep, "port", true));
}

TEST_F(Endpoint, InitJoinsTheProtocolListAndFailsWithoutAProtocol) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* none = tsEndPointCreate(s, "/t/none");
  EXPECT_FALSE(tsEndPointInit(none));
  KyrTargetEndpoint* https = endpoint(s, "/t/https", "https");
  EXPECT_TRUE(tsEndPointInit(https));
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[0]));
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(s->endPoints[1])), https);
  EXPECT_EQ(hostEndpoints().created, 0);  // the server is stopped
}

TEST_F(Endpoint, InitOnARunningServerNeedsTheHostObject) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "STARTED");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http", "h1", 9080);
  EXPECT_TRUE(tsEndPointInit(tep));
  EXPECT_NE(tsEndPointGetEnvEndPoint(tep), nullptr);
  EXPECT_EQ(hostEndpoints().createdFor, Strings{"h1:9080"});

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
  EXPECT_EQ(hostEndpoints().deleted, 2);
  EXPECT_FALSE(tsEndPointSetPropStr(tep, "bogus", "x"));  // refused: left alone
  EXPECT_EQ(hostEndpoints().created, 3);
}

TEST_F(Endpoint, EndpointWithoutHostObjectIsNotGivenOneByAProperty) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http");
  ASSERT_TRUE(tsEndPointInit(tep));
  tsEndPointSetPropStr(tep, "host", "h2");
  EXPECT_EQ(hostEndpoints().created, 0);
}

TEST_F(Endpoint, ProtocolChangeMovesAListedEndpoint) {
  TargetServer* s = server(node(), kS1);
  KyrTargetEndpoint* tep = endpoint(s, "/t", "http");
  ASSERT_TRUE(tsEndPointInit(tep));
  tsEndPointSetPropStr(tep, "protocol", "https");
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[0]));
  EXPECT_EQ(kyrListEleGetObject(kyrListGetHead(s->endPoints[1])), tep);
  tsEndPointDelete(tep);
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[1]));
}

TEST_F(Endpoint, DeleteReturnsTheHostObjectAndLeavesTheList) {
  TargetServer* s = server(node(), kS1);
  tsServerSetState(s, "STARTED");
  KyrTargetEndpoint* tep = endpoint(s, "/t/http", "http");
  ASSERT_TRUE(tsEndPointInit(tep));
  tsEndPointDelete(tep);
  EXPECT_EQ(hostEndpoints().deleted, 1);
  EXPECT_TRUE(kyrListIsEmpty(s->endPoints[0]));
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
  EXPECT_EQ(hostEndpoints().created, 1);
  EXPECT_EQ(tsEndPointGetEnvEndPoint(ta), tsEndPointGetEnvEndPoint(tb));
  tsDelete(ts2);
  EXPECT_EQ(hostEndpoints().deleted, 0);  // still held by the other version
  EXPECT_NE(tsEndPointGetEnvEndPoint(ta), nullptr);
}

TEST_F(Endpoint, PublicGettersReadTheEndpointItsServerAndCluster) {
  TargetServer* s = server(node(), kS1);
  tsServerSetPropStr(s, "id", "clone1");
  tsServerSetPropInt(s, "connectTimeout", 7);
  tsServerSetPropInt(s, "ioTimeout", 8);
  tsServerSetPropInt(s, "wsIoTimeout", 9);
  tsServerSetPropInt(s, "wsIdleTimeout", 10);
  tsServerSetPropBool(s, "extendedHandshake", true);
  tsServerSetPropBool(s, "waitForContinue", true);
  KyrTargetEndpoint* tep = endpoint(s, "/t/https", "https", "h1", 9443);
  tsEndPointSetPropStr(tep, "namedEndpoint", "WC_secure");
  tsEndPointSetPropInt(tep, "persistentTimeout", 11);

  EXPECT_STREQ(kyrTargetEndpointGetName(tep), "/t/https");
  EXPECT_EQ(kyrTargetEndpointGetConnector(tep), c_);
  EXPECT_EQ(kyrTargetEndpointGetClusterName(tep), nullptr);
  EXPECT_EQ(kyrTargetEndpointGetIOTimeoutRetry(tep), -1);  // no cluster
  Cluster* cl = tsClusterCreate(ts_, "cl1");
  tsClusterSetPropInt(cl, "ioTimeoutRetry", 2);
  tsLinkClusterServer(cl, s, true);
  EXPECT_STREQ(kyrTargetEndpointGetClusterName(tep), "cl1");
  EXPECT_EQ(kyrTargetEndpointGetIOTimeoutRetry(tep), 2);
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(tep), "https");
  EXPECT_STREQ(kyrTargetEndpointGetHostName(tep), "h1");
  EXPECT_EQ(kyrTargetEndpointGetPort(tep), 9443);
  EXPECT_STREQ(kyrTargetEndpointGetCloneId(tep), "clone1");
  EXPECT_EQ(kyrTargetEndpointGetConnectTimeout(tep), 7);
  EXPECT_EQ(kyrTargetEndpointGetIOTimeout(tep), 8);
  EXPECT_EQ(kyrTargetEndpointGetWsIOTimeout(tep), 9);
  EXPECT_EQ(kyrTargetEndpointGetWsIdleTimeout(tep), 10);
  EXPECT_EQ(kyrTargetEndpointGetPersistentTimeout(tep), 11);
  EXPECT_TRUE(kyrTargetEndpointGetExtendedHandshake(tep));
  EXPECT_TRUE(kyrTargetEndpointGetWaitForContinue(tep));
  EXPECT_STREQ(kyrTargetEndpointGetNamedEndpoint(tep), "WC_secure");
  EXPECT_EQ(kyrTargetEndpointGetEnvTargetEndpoint(tep), nullptr);

  tsEndPointSetPropStr(tep, "protocol", "spdy");
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(tep), "invalidProtocol");
}

TEST(EndpointGetters, NullEndpointGivesNewServerDefaults) {
  EXPECT_EQ(kyrTargetEndpointGetName(nullptr), nullptr);
  EXPECT_EQ(kyrTargetEndpointGetConnector(nullptr), nullptr);
  EXPECT_EQ(kyrTargetEndpointGetClusterName(nullptr), nullptr);
  EXPECT_STREQ(kyrTargetEndpointGetProtocol(nullptr), "invalidProtocol");
  EXPECT_EQ(kyrTargetEndpointGetPort(nullptr), -1);
  EXPECT_EQ(kyrTargetEndpointGetConnectTimeout(nullptr), 5);
  EXPECT_EQ(kyrTargetEndpointGetIOTimeout(nullptr), 900);
  EXPECT_EQ(kyrTargetEndpointGetIOTimeoutRetry(nullptr), -1);
  EXPECT_EQ(kyrTargetEndpointGetWsIOTimeout(nullptr), 30);
  EXPECT_EQ(kyrTargetEndpointGetWsIdleTimeout(nullptr), 900);
  EXPECT_FALSE(kyrTargetEndpointGetWaitForContinue(nullptr));
}

}  // namespace
