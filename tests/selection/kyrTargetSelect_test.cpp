// Target selection through the public request context over tests/data/cell-routing.json:
// session affinity by cookie and path parameter and what breaks it, weighted
// least-outstanding-requests load balancing with its rotation index, the SSL protocol maps, the
// endpoint choice, the rejects, and the affinity policies modules get.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrProperties.h"
#include "support/routingFixture.h"

namespace {

using kyrtest::modulePath;
using kyrtest::printedContains;
using kyrtest::serverPath;
using Strings = std::vector<std::string>;

class TargetSelect : public kyrtest::RoutingFixture {
 protected:
  void SetUp() override {
    RoutingFixture::SetUp();
    // Broken affinity is reported at INFO.
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http.request.select.affinity.break:INFO"), 0);
  }
  EnvHttpContext& withCookie(const std::string& path, const std::string& value) {
    EnvHttpContext& r = request(path);
    r.cookies["JSESSIONID"] = value;
    return r;
  }
  EnvHttpContext& duo(const std::string& cookie = "") {
    EnvHttpContext& r = request("/duo/x", "duo.example.com", 80);
    if (!cookie.empty()) r.cookies["JSESSIONID"] = cookie;
    return r;
  }
  // Routes a request for clone c2: true when it went to another server and was told its
  // affinity broke.
  bool c2AffinityBroken() {
    EnvHttpContext& r = withCookie("/shop/a", "abc:c2");
    std::string s = serverOf(route(r));
    return s != "s2" && !s.empty() && affinityBroken(r);
  }
  static bool affinityBroken(const EnvHttpContext& r) {
    auto it = r.headers.find("$ZQFO");
    return it != r.headers.end() && it->second == "true";
  }
  static Strings cookieNames(kyr::HttpAffinityPolicy* hap) {
    Strings names;
    for (char** n = kyr::hapGetCookieNames(hap); n != nullptr && *n != nullptr; ++n) {
      names.emplace_back(*n);
    }
    return names;
  }
};

// ---- Affinity --------------------------------------------------------------------------------

TEST_F(TargetSelect, CookiesAndPathParametersCarryAffinityByCloneId) {
  set("server", serverPath("n1", "s1"), R"({"server.maintenancemode":"break"})");
  struct {
    const char* path;
    const char* cookie;  // JSESSIONID, if any
    const char* server;  // nullptr: load balanced
    bool broken;
  } rows[] = {
      {"/shop/a", "0000abc:c2", "s2", false},
      {"/shop/a", "abc:c1:c2", "s2", false},  // c1 cannot serve: the next clone ID can
      {"/shop/a", "abc::c3:", "s3", false},   // an empty clone ID counts, a trailing ':' adds none
      {"/shop/x;jsessionid=0001abc:c3", nullptr, "s3", false},
      {"/shop/x;JSESSIONID=0001abc:c2", nullptr, "s2", false},
      {"/shop/x;jsessionid=", nullptr, nullptr, false},  // names no session
      {"/shop/a", "abc", nullptr, false},  // a session without clone IDs is no affinity at all
      {"/shop/a", "abc:zz", nullptr, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.path) + " " + (row.cookie ? row.cookie : ""));
    EnvHttpContext& r =
        row.cookie != nullptr ? withCookie(row.path, row.cookie) : request(row.path);
    KyrHttpContext* ctx = route(r);
    EXPECT_EQ(ctx->performedLoadBalancing, row.server == nullptr);
    if (row.server != nullptr) {
      EXPECT_EQ(serverOf(ctx), row.server);
    }
    EXPECT_EQ(affinityBroken(r), row.broken);
  }
  EXPECT_TRUE(printedContains("Session affinity broken: Server was not found for cloneId 'zz'"));
}

TEST_F(TargetSelect, AServerAtItsConnectionLimitBreaksAffinity) {
  set("server", serverPath("n1", "s2"), R"({"maxConnections":1})");
  KyrHttpContext* held = route(withCookie("/shop/a", "abc:c2"));
  ASSERT_EQ(serverOf(held), "s2");
  EXPECT_TRUE(c2AffinityBroken());
  EXPECT_TRUE(printedContains("exceeded maximum connections '1' for the server"));
  // Load balancing skips it too, even once the others are busier than it.
  for (int i = 0; i < 6; ++i) EXPECT_NE(serverOf(route("/shop/a")), "s2") << i;
  complete(held);
  EXPECT_EQ(serverOf(route(withCookie("/shop/a", "abc:c2"))), "s2");
}

TEST_F(TargetSelect, ConnectFailuresBackTheServerOffForAffinityToo) {
  // The second failure bars the server for half a second.
  for (int i = 0; i < 2; ++i) {
    server("n1", "s2")->nextRetryTime = 0;  // the first back-off (50 ms) has passed
    KyrHttpContext* ctx = route(withCookie("/shop/a", "abc:c2"));
    ASSERT_EQ(serverOf(ctx), "s2");
    kyrHttpContextSetState(ctx, CONNECT_FAILURE, 0, "refused");
  }
  EXPECT_TRUE(c2AffinityBroken());
  EXPECT_TRUE(
      printedContains("Session affinity broken: Server application for cloneId 'c2' is not "
                      "selectable because connect failure"));
}

// The host's request callbacks may block, so the session is read before the lock that every
// request thread waits for; a module's first request, whose policy selection builds, is asked
// again with it and keeps its affinity.
TEST_F(TargetSelect, TheHostIsAskedForTheSessionOutsideTheSelectorLock) {
  static pthread_mutex_t* selectorLock;
  static int asked, askedUnderLock;
  selectorLock = &kyr::kyrRoutingInfoGetTargetSelector(kyr_->routingInfo)->lock->lock;
  asked = askedUnderLock = 0;
  struct Probe {
    static void note() {
      ++asked;
      if (pthread_mutex_trylock(selectorLock) != 0) {
        ++askedUnderLock;  // this thread holds it: the only thread there is
      } else {
        pthread_mutex_unlock(selectorLock);
      }
    }
    static char* cookie(EnvHttpContext* r, char* name) {
      note();
      return kyrtest::host::getCookieValue(r, name);
    }
    static char* path(EnvHttpContext* r) {
      note();
      return kyrtest::host::getPath(r);
    }
  };
  kyr_->env.http.request.getCookieValue = Probe::cookie;
  kyr_->env.http.request.getPath = Probe::path;
  EXPECT_EQ(serverOf(route(withCookie("/shop/a", "abc:c2"))), "s2");
  EXPECT_EQ(serverOf(route(request("/shop/x;jsessionid=0001abc:c3"))), "s3");
  EXPECT_GT(asked, 0);
  EXPECT_EQ(askedUnderLock, 0);
}

// ---- Load balancing --------------------------------------------------------------------------

TEST_F(TargetSelect, IdleServersTakeTurnsAndBusyOnesFollowTheWeights) {
  std::vector<std::string> order;
  for (int i = 0; i < 4; ++i) order.push_back(serve(duo()));
  EXPECT_EQ(order, (std::vector<std::string>{"d1", "d2", "d1", "d2"}));  // whatever the weights
  int refsBefore = server("n4", "d1")->refcnt;
  std::map<std::string, int> count;
  for (int i = 0; i < 300; ++i) ++count[serverOf(route(duo()))];
  for (auto [name, share] : {std::pair{"d1", 200}, std::pair{"d2", 100}}) {
    EXPECT_NEAR(count[name], share, 1) << name;
    EXPECT_EQ(server("n4", name)->outstandingRequestCount, count[name]) << name;
  }
  for (KyrHttpContext* ctx : std::vector<KyrHttpContext*>(open_)) {
    complete(ctx);
    release(ctx);
  }
  for (const char* name : {"d1", "d2"}) EXPECT_EQ(server("n4", name)->outstandingRequestCount, 0);
  EXPECT_EQ(server("n4", "d1")->refcnt, refsBefore);  // every request gave its reference back
}

TEST_F(TargetSelect, BusyServersLeaveTheRotationIndexAloneUntilOneIsIdle) {
  kyr::VirtualCluster* vc = virtualCluster("shop");
  KyrHttpContext* onS3 = route(withCookie("/shop/a", "x:c3"));
  route(withCookie("/shop/a", "x:c1"));
  route(withCookie("/shop/a", "x:c2"));
  ASSERT_EQ(vc->loadBalanceIndex, 0);
  // Counts 1, 1, 1 with weights 2, 1, 1: s1 has the lowest load per weight, then ties with s2
  // and wins as the first met.
  EXPECT_EQ(serverOf(route("/shop/a")), "s1");
  EXPECT_EQ(serverOf(route("/shop/a")), "s1");
  EXPECT_EQ(vc->loadBalanceIndex, 0);
  complete(onS3);
  EXPECT_EQ(serverOf(route("/shop/a")), "s3");
  EXPECT_EQ(vc->loadBalanceIndex, 3);  // just past the idle server
  // From index 3, that is 0 again: s1 3 per 2, then s2 and s3 1 per 1, s2 met first.
  EXPECT_EQ(serverOf(route("/shop/a")), "s2");
}

// ---- Protocols and endpoints -----------------------------------------------------------------

TEST_F(TargetSelect, SslMapModesComeFromTheContextTheHandleOrTheModule) {
  auto protocolFor = [&](const char* inbound, KyrSSLMapMode contextMode) {
    EnvHttpContext& r = request("/shop/a");
    r.protocol = inbound;
    KyrHttpContext* ctx = obtain(r);
    kyrHttpContextSetSSLMapMode(ctx, contextMode);
    kyrHttpContextShouldHandle(ctx);
    return std::string(kyrTargetEndpointGetProtocol(kyrHttpContextGetTargetEndpoint(ctx)));
  };
  EXPECT_EQ(protocolFor("http", NullMapMode), "http");
  EXPECT_EQ(protocolFor("https", NullMapMode), "https");
  EXPECT_EQ(protocolFor("https", SSLOffLoad), "http");
  EXPECT_EQ(protocolFor("http", SSLOnLoad), "https");
  set("webModule", modulePath("shop"), R"({"protocolMap":"http"})");
  EXPECT_EQ(protocolFor("https", NullMapMode), "http");
  kyrSetSSLMapMode(kyr_, SSLOnLoad);  // the handle's mode wins over the module's
  EXPECT_EQ(protocolFor("http", NullMapMode), "https");
  EXPECT_EQ(protocolFor("https", MapInboundToOutbound), "https");  // the context's over both
}

// With the option on, the matched virtual host picks among a server's endpoints; a server none
// of whose endpoints the virtual host accepts still gets its first one.
TEST_F(TargetSelect, TheMatchedVirtualHostChoosesTheEndpointWhenEnabled) {
  auto endpointHost = [&](const char* cookie) {
    KyrTargetEndpoint* tep = kyrHttpContextGetMyTargetEndPoint(route(duo(cookie)));
    return std::string(tep != nullptr ? kyrTargetEndpointGetHostName(tep) : "none");
  };
  EXPECT_EQ(endpointHost("x:d1"), "d1.internal");
  ASSERT_EQ(kyr::kyrPropertySet(kyr::kyrGetProperties(kyr_),
                                "enableEndpointSelectionBasedOnMatchedVHost", "true", true),
            0);
  EXPECT_EQ(endpointHost("x:d1"), "duo.example.com");
  EXPECT_EQ(endpointHost("x:d2"), "d2.internal");
}

// ---- Rejects ---------------------------------------------------------------------------------

TEST_F(TargetSelect, RequestsNothingCanServeAreRejectedWithStatusAndReason) {
  auto expectReject = [](KyrHttpContext* ctx, int code, const char* reason) {
    EXPECT_EQ(kyrHttpContextGetMyTargetEndPoint(ctx), nullptr);
    EXPECT_EQ(kyrHttpContextGetAction(ctx), REJECT);
    EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), code);
    EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx), reason);
  };
  expectReject(route("/orphan/a"), 500, "no cluster");
  expectReject(route("/empty/a"), 503, "no server was found running web module");
  EXPECT_TRUE(
      printedContains("503 error: no servers are running web module '" + modulePath("empty")));
  EXPECT_TRUE(printedContains("503 response for module '" + modulePath("empty") + "':"));

  EnvHttpContext& ftp = request("/shop/a");
  ftp.protocol = "ftp";
  expectReject(route(ftp), 500, "negative protocol index");

  KyrHttpContext* ctx = obtain(request("/shop/a"));
  ASSERT_EQ(kyrHttpContextShouldHandle(ctx), 1);
  kyrHttpContextSetModuleName(ctx, "/cell/route/application/shop/webModule/gone.war");
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  expectReject(ctx, 404, "web module not found by selector");
}

// s4 is the only server of /vault, and reached over https as it has no http endpoint.
TEST_F(TargetSelect, AfterAResponseTimeoutNoOtherServerMeans504) {
  KyrHttpContext* ctx = route("/vault/a");
  ASSERT_EQ(serverOf(ctx), "s4");
  EXPECT_EQ(kyrTargetEndpointGetPort(kyrHttpContextGetMyTargetEndPoint(ctx)), 9443);
  kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
  kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
  kyrHttpContextSetState(ctx, RESPONSE_TIMEOUT, 0, nullptr);
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 504);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx), "response timed out");
  EXPECT_TRUE(printedContains("504 response for module '" + modulePath("vault") + "':"));
}

// ---- Affinity policies -----------------------------------------------------------------------

// A module's policy takes its cluster's cookie names, or the two standard ones when the cluster
// names none; a member asking for the new clone separator makes it "+". Without a cluster the
// default policy runs the configured cookie name onto the last standard name, as it always has.
TEST_F(TargetSelect, PoliciesTakeTheClustersCookieNamesAndSeparatorOrStandardOnes) {
  set("server", serverPath("n2", "s3"), R"({"cloneSeparatorChange":true})");
  KyrHttpContext* ctx = route(withCookie("/shop/a", "abc+c2"));
  EXPECT_STREQ(kyr::hapGetDelimiter(kyr::kyrHttpContextGetAffinityPolicy(ctx)), "+");
  EXPECT_EQ(serverOf(ctx), "s2");
  EXPECT_EQ(cookieNames(kyr::kyrHttpContextGetAffinityPolicy(ctx)), Strings{"JSESSIONID"});
  EXPECT_EQ(cookieNames(kyr::kyrHttpContextGetAffinityPolicy(route("/vault/a"))),
            (Strings{"ZQJSESSIONID", "JSESSIONID"}));
  auto* ts = kyr::kyrRoutingInfoGetTargetSelector(kyr_->routingInfo);
  auto* wm = object<kyr::WebModule>(modulePath("orphan"));
  ASSERT_NE(wm, nullptr);
  EXPECT_EQ(cookieNames(kyr::getAffinityPolicy(ts, wm, nullptr)),
            (Strings{"JSESSIONID", "SSLJSESSIONIDZQJSESSIONID"}));

  // Each property stays set for the rows after it. The library's properties map keeps plain
  // copies, which it frees with the handle.
  struct {
    const char* property;
    const char* value;
    Strings cookies;
  } rows[] = {{"TarnwickSessionCookieName", "MYSESSION", {"JSESSIONID", "SSLJSESSIONIDMYSESSION"}},
              {"HttpSessionCookies", "A,,B", {"A", "B"}},
              {"HttpSessionAffinityPolicyDescriptor", "d1", {}}};
  kyr::HttpAffinityPolicy* hap = nullptr;
  for (const auto& row : rows) {
    ASSERT_EQ(
        kyr::kyrPropertySet(kyr::kyrGetProperties(kyr_), row.property, strdup(row.value), false),
        0);
    hap = kyr::getDefaultPolicy(ts, wm);
    EXPECT_EQ(cookieNames(hap), row.cookies) << row.property;
  }
  EXPECT_STREQ(hap->descriptor, "d1");  // a descriptor replaces the cookie names
  EXPECT_EQ(kyr::hapGetCookieNames(hap), nullptr);
}

}  // namespace
