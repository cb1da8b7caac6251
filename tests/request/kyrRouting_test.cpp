// A request's way to its endpoint through the public request context: the endpoint kept once
// chosen, failover after failures with the per-request endpoint limit, the elapsed-time limit,
// the rollout wait, the state reports that feed the chosen server, and the references a request
// holds on its target until it is released.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>

#include "support/routingFixture.h"

namespace {

using kyrtest::printedContains;
using kyrtest::serverPath;

class Routing : public kyrtest::RoutingFixture {};

TEST_F(Routing, TheChosenEndpointIsKeptUntilAFailureIsReported) {
  KyrHttpContext* ctx = route("/shop/a");
  KyrTargetEndpoint* tep = kyrHttpContextGetMyTargetEndPoint(ctx);
  ASSERT_NE(tep, nullptr);
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), tep);
  kyrHttpContextSetState(ctx, TARGET_SELECTED, 0, nullptr);
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), tep);
  EXPECT_STREQ(kyrHttpContextGetTargetEndpointServerName(ctx), serverPath("n1", "s1").c_str());
  EXPECT_EQ(kyr::kyrHttpContextGetMyTargetServerApplication(ctx)->server, server("n1", "s1"));
}

// Failures after a connection use up the endpoint limit, refused connections do not.
TEST_F(Routing, FailoverTriesAnotherServerWithinTheEndpointLimit) {
  kyrSetMaxTargetEndpointsPerRequest(kyr_, 2);
  KyrHttpContext* ctx = route("/shop/a");
  std::string first = serverOf(ctx);
  kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
  kyrHttpContextSetState(ctx, RESPONSE_READ_ERROR, 0, "reset");
  ASSERT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_NE(serverOf(ctx), first);
  kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
  kyrHttpContextSetState(ctx, REQUEST_SEND_ERROR, 0, "broken pipe");
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), PERMIT);  // the limit rejects nothing by itself
  // Neither failure left a count behind on the servers.
  for (const char* s : {"s1", "s2"}) EXPECT_EQ(server("n1", s)->outstandingRequestCount, 0);

  ctx = route("/shop/a");
  std::set<std::string> tried{serverOf(ctx)};
  for (int i = 0; i < 2; ++i) {
    kyrHttpContextSetState(ctx, CONNECT_FAILURE, 0, "refused");
    ASSERT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
    EXPECT_TRUE(tried.insert(serverOf(ctx)).second) << "a failed server was chosen again";
  }
}

TEST_F(Routing, ARequestOlderThanTheElapsedTimeLimitIsRejectedWith504) {
  ASSERT_NE(kyrSetProperty(kyr_, "MaxElapsedTimePerRequestInSeconds", "1"), nullptr);
  KyrHttpContext* ctx = obtain(request("/shop/a"));
  ASSERT_EQ(kyrHttpContextShouldHandle(ctx), 1);
  ctx->startTime -= 2000;  // the request arrived two seconds ago
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), REJECT);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 504);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx), "MaxElapsedTimePerRequest exceeded");
  EXPECT_NE(serverOf(route("/shop/a")), "");  // a new request is within the limit
}

TEST_F(Routing, StateReportsMeasureTheServiceAndGiveTheOutstandingCountBack) {
  KyrHttpContext* ctx = route(request("/shop/a"));
  kyr::TargetServerApplication* sapp = kyr::kyrHttpContextGetMyTargetServerApplication(ctx);
  ASSERT_NE(sapp, nullptr);
  kyr::TargetServer* s = sapp->server;
  s->nextRetryInterval = 5000;  // as after earlier failures
  EXPECT_EQ(s->outstandingRequestCount, 1);
  EXPECT_EQ(sapp->outstandingRequestCount, 1);
  for (KyrHttpContextState state : {CONNECT_SUCCESS, REQUEST_SENDING, REQUEST_SENT}) {
    kyrHttpContextSetState(ctx, state, 3, "progress");
    EXPECT_EQ(s->outstandingRequestCount, 1) << kyrHttpContextStateToString(state);
  }
  EXPECT_EQ(s->nextRetryInterval, 50u);  // a connection resets the back-off
  EXPECT_NE(ctx->serviceTimeStart, static_cast<kyr::KyrTime>(-1));
  kyrHttpContextSetState(ctx, RESPONSE_ARRIVED, 0, "done");
  EXPECT_EQ(s->outstandingRequestCount, 0);
  EXPECT_EQ(sapp->outstandingRequestCount, 0);
  EXPECT_LT(ctx->serviceTime, 10000u);
  // Later reports do not count the request off twice.
  kyrHttpContextSetState(ctx, RESPONSE_SENT, 0, nullptr);
  EXPECT_EQ(s->outstandingRequestCount, 0);
}

// The routing data deletes the server (with what it runs) while a request is out on it: the
// request still completes against it, and its release frees it (ASan).
TEST_F(Routing, ARequestHoldsItsTargetUntilReleasedEvenWhenTheModelDropsIt) {
  KyrHttpContext* ctx = route(request("/shop/x;jsessionid=a:c3"));
  ASSERT_EQ(serverOf(ctx), "s3");
  const std::string s3 = serverPath("n2", "s3");
  change("del", "serverApplication", s3 + "/serverApplication/shop");
  change("del", "transport", s3 + "/transport/http");
  change("del", "transport", s3 + "/transport/https");
  change("del", "server", s3);
  EXPECT_EQ(server("n2", "s3"), nullptr);
  complete(ctx);
  EXPECT_STREQ(kyrHttpContextGetTargetEndpointServerName(ctx), s3.c_str());
  release(ctx);
  EXPECT_NE(serverOf(route(request("/shop/x;jsessionid=a:c3"))), "s3");
}

TEST_F(Routing, TheRolloutWaitIsOffAtZeroAndRunsOncePerRequest) {
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http.request.select.editionRollout:INFO"), 0);
  set("cluster", std::string(kyrtest::kCell) + "/cluster/secure",
      R"({"appEditionRolloutState":"BEGIN_ROLLOUT"})");
  set("serverApplication", serverPath("n2", "s4") + "/serverApplication/vault",
      R"({"state":"STOPPED"})");
  ASSERT_NE(kyrSetProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", "0"), nullptr);
  KyrHttpContext* ctx = route("/vault/a");
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 503);
  EXPECT_TRUE(printedContains("waiting during application rollout is disabled"));

  ASSERT_NE(kyrSetProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", "1"), nullptr);
  ctx = route("/vault/a");  // waits one second
  EXPECT_EQ(kyrHttpContextGetMyTargetEndPoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 503);
  EXPECT_TRUE(printedContains("timed out waiting for rollout of application 'vault'"));
  kyrtest::printed().clear();
  EXPECT_EQ(kyrHttpContextWaitForRollout(ctx), nullptr);  // once per request: no second wait
  EXPECT_FALSE(printedContains("waiting for rollout"));
}

class RoutingRolloutConcurrency : public kyrtest::RoutingFixture {};

TEST_F(RoutingRolloutConcurrency, ARequestWaitingForARolloutIsRoutedOnceItsApplicationStarts) {
  set("cluster", std::string(kyrtest::kCell) + "/cluster/secure",
      R"({"appEditionRolloutState":"BEGIN"})");
  std::string vault = serverPath("n2", "s4") + "/serverApplication/vault";
  set("serverApplication", vault, R"({"state":"STOPPED"})");
  ASSERT_NE(kyrSetProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", "3"), nullptr);
  KyrHttpContext* ctx = obtain(request("/vault/a"));
  ASSERT_EQ(kyrHttpContextShouldHandle(ctx), 1);
  std::thread publisher([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    apply(kyrtest::delta(10, "set", "serverApplication", vault, R"({"state":"STARTED"})"));
  });
  KyrTargetEndpoint* tep = kyrHttpContextGetTargetEndpoint(ctx);
  publisher.join();
  ASSERT_NE(tep, nullptr);
  EXPECT_EQ(serverOf(ctx), "s4");
  complete(ctx);
  EXPECT_EQ(server("n2", "s4")->outstandingRequestCount, 0);
}

}  // namespace
