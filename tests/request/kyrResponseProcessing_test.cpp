// Response processing through the RESPONSE_ARRIVED report: partition tables taken out of the
// response and used for affinity, clone IDs learnt from session cookies, and the "ZQJSESSIONID"
// and sticky "ZQJESSIONID" cookies, through the host's cookie setter or as "Set-Cookie".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/kyrPartitionData.h"
#include "request/routingFixture.h"

namespace {

using kyrtest::printedContains;

class ResponseProcessing : public kyrtest::RoutingFixture {
 protected:
  EnvHttpContext& withSession(const std::string& path, const std::string& value) {
    EnvHttpContext& r = request(path);
    r.cookies["JSESSIONID"] = value;
    return r;
  }
  // Routes the request, lets `setCookie` arrive as the response's "Set-Cookie" and completes it.
  KyrHttpContext* respond(EnvHttpContext& r, const std::string& setCookie) {
    KyrHttpContext* ctx = route(r);
    EXPECT_NE(kyrHttpContextGetMyTargetEndPoint(ctx), nullptr);
    if (!setCookie.empty()) r.responseHeaders["Set-Cookie"] = setCookie;
    complete(ctx);
    return ctx;
  }
  // The response cookie the library set through the host's setter, or null.
  static const std::string* cookie(EnvHttpContext& r, const char* name) {
    auto it = r.responseCookies.find(name);
    return it == r.responseCookies.end() ? nullptr : &it->second;
  }
  // A request permitted with a sticky edition, as a "permitsticky" rule decides it.
  KyrHttpContext* routeSticky(EnvHttpContext& r) {
    KyrHttpContext* ctx = obtain(r);
    EXPECT_EQ(kyrHttpContextShouldHandle(ctx), 1);
    kyrHttpContextSetPermit(ctx, "", true);
    EXPECT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
    return ctx;
  }
};

// ---- Partition tables ------------------------------------------------------------------------

TEST_F(ResponseProcessing, PartitionTablesAreTakenOutOfTheResponseAndMapSessions) {
  EnvHttpContext& r = request("/shop/a");
  r.responseHeaders["$ZQPT"] = "p1:c2;p2:c3;bad;:x;y:;p1:c2";
  r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = "7";
  respond(r, "");
  EXPECT_EQ(r.responseHeaders.count("$ZQPT"), 0u);
  EXPECT_EQ(r.responseHeaders.count("_ZQ_HAPRT_WLMVERSION"), 0u);
  kyr::PartitionIDData* data = kyr::kyrGetPartitionData(kyr_, "/cell/route/cluster/web");
  ASSERT_NE(data, nullptr);
  EXPECT_STREQ(kyr::tsPartitionIDDataGetVersion(data), "7");
  EXPECT_EQ(data->partition2CloneIdMap->count, 2);

  KyrHttpContext* ctx = route(withSession("/shop/b", "abc:p1"));
  EXPECT_EQ(serverOf(ctx), "s2");
  EXPECT_FALSE(ctx->performedLoadBalancing);
  EXPECT_EQ(serverOf(route("/shop/b;jsessionid=abc:p2")), "s3");

  // A newer table replaces the old one whole.
  EnvHttpContext& again = request("/shop/a");
  again.responseHeaders["$ZQPT"] = "p1:c3";
  again.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = "8";
  respond(again, "");
  EXPECT_EQ(serverOf(route(withSession("/shop/b", "abc:p1"))), "s3");
  EXPECT_TRUE(route(withSession("/shop/b", "abc:p2"))->performedLoadBalancing);
}

TEST_F(ResponseProcessing, HalfAPartitionTableIsLeftInTheResponse) {
  EnvHttpContext& r = request("/shop/a");
  r.responseHeaders["$ZQPT"] = "p1:c2";
  respond(r, "");
  EXPECT_EQ(r.responseHeaders.count("$ZQPT"), 1u);
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, "/cell/route/cluster/web"), nullptr);
}

// ---- Clone IDs and the ZQJSESSIONID cookie ---------------------------------------------------

TEST_F(ResponseProcessing, ServersWithoutCloneIdLearnItFromTheirSessionCookies) {
  EnvHttpContext& r = request("/portal/a");
  respond(r, "JSESSIONID=0000abc:clone1; Path=/");
  EXPECT_STREQ(server("n3", "e1")->cloneId, "clone1");
  EXPECT_EQ(cookie(r, "ZQJSESSIONID"), nullptr);  // learnt, so nothing else to do
  KyrHttpContext* ctx = route(withSession("/portal/b", "0000abc:clone1"));
  EXPECT_EQ(serverOf(ctx), "e1");
  EXPECT_FALSE(ctx->performedLoadBalancing);
  EXPECT_STREQ(kyrTargetEndpointGetCloneId(kyrHttpContextGetMyTargetEndPoint(ctx)), "clone1");
}

TEST_F(ResponseProcessing, WithoutLearningTheServersCloneIdGoesOutAsZQJSESSIONID) {
  EnvHttpContext& r = request("/front/a");
  respond(r, "JSESSIONID=0000abc:clone1; Path=/");
  ASSERT_NE(cookie(r, "ZQJSESSIONID"), nullptr);
  EXPECT_EQ(*cookie(r, "ZQJSESSIONID"), "aa:c9; Path=/");
  EXPECT_STREQ(server("n3", "f1")->cloneId, "c9");

  // Without attributes the cookie is still written, deliberately with no value.
  EnvHttpContext& bare = request("/front/b");
  respond(bare, "JSESSIONID=0000abc");
  ASSERT_NE(cookie(bare, "ZQJSESSIONID"), nullptr);
  EXPECT_EQ(*cookie(bare, "ZQJSESSIONID"), "");
}

TEST_F(ResponseProcessing, RequestsKeptByAffinityAndApplicationServersGetNoCookie) {
  EnvHttpContext& kept = withSession("/front/a", "0000abc:c9");
  respond(kept, "JSESSIONID=0000abc:c9; Path=/");
  EXPECT_TRUE(kept.responseCookies.empty());
  EnvHttpContext& shop = request("/shop/a");
  respond(shop, "JSESSIONID=0000abc:c1; Path=/");
  EXPECT_TRUE(shop.responseCookies.empty());
}

char** twoSetCookies(EnvHttpContext*, char* name) {
  static std::string theme = "theme=dark";
  static std::string session = "JSESSIONID=0000abc:x; Path=/; HttpOnly";
  static char* values[] = {theme.data(), session.data(), nullptr};
  return std::string(name) == "Set-Cookie" ? values : nullptr;
}

class ResponseProcessingWithHeaderLists : public ResponseProcessing {
 protected:
  ResponseProcessingWithHeaderLists() { host_.env.http.response.getHeaderValues = twoSetCookies; }
};

TEST_F(ResponseProcessingWithHeaderLists, EverySetCookieOfTheResponseIsSearched) {
  EnvHttpContext& r = request("/front/a");
  respond(r, "");
  ASSERT_NE(cookie(r, "ZQJSESSIONID"), nullptr);
  EXPECT_EQ(*cookie(r, "ZQJSESSIONID"), "aa:c9; Path=/; HttpOnly");
}

class ResponseProcessingWithoutCookieSetter : public ResponseProcessing {
 protected:
  ResponseProcessingWithoutCookieSetter() { host_.env.http.response.setCookieValue = nullptr; }
};

TEST_F(ResponseProcessingWithoutCookieSetter, CookiesGoOutAsSetCookieHeaders) {
  EnvHttpContext& r = request("/front/a");
  respond(r, "JSESSIONID=0000abc:clone1; Path=/");
  EXPECT_EQ(r.responseHeaders["Set-Cookie"], "ZQJSESSIONID=aa:c9; Path=/");
  EnvHttpContext& bare = request("/front/b");
  respond(bare, "JSESSIONID=0000abc");
  EXPECT_EQ(bare.responseHeaders["Set-Cookie"], "ZQJSESSIONID=");

  EnvHttpContext& sticky = request("/front/c");
  complete(routeSticky(sticky));
  EXPECT_EQ(sticky.responseHeaders["Set-Cookie"], "ZQJESSIONID=aa:c9; Path=/front");
}

// ---- The sticky cookie -----------------------------------------------------------------------

TEST_F(ResponseProcessing, StickyRequestsWithoutSessionGetTheZQJESSIONIDCookie) {
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http.response.process:DEBUG"), 0);
  EnvHttpContext& r = request("/front/a");
  complete(routeSticky(r));
  ASSERT_NE(cookie(r, "ZQJESSIONID"), nullptr);
  EXPECT_EQ(*cookie(r, "ZQJESSIONID"), "aa:c9; Path=/front");
  EXPECT_EQ(cookie(r, "ZQJSESSIONID"), nullptr);
  // The trace line names the other cookie on purpose.
  EXPECT_TRUE(printedContains("setting sticky cookie ZQJSESSIONID=aa:c9; Path=/front"));

  // A session the request or the response carries makes the sticky cookie unnecessary.
  EnvHttpContext& inRequest = request("/front/b");
  inRequest.cookies["JSESSIONID"] = "0000abc";
  complete(routeSticky(inRequest));
  EXPECT_EQ(cookie(inRequest, "ZQJESSIONID"), nullptr);
  EnvHttpContext& inResponse = request("/front/c");
  KyrHttpContext* ctx = routeSticky(inResponse);
  inResponse.responseHeaders["Set-Cookie"] = "JSESSIONID=0000abc; Path=/";
  complete(ctx);
  EXPECT_EQ(cookie(inResponse, "ZQJESSIONID"), nullptr);
}

}  // namespace
