// Response processing through the RESPONSE_ARRIVED report: partition tables taken out of the
// response and used for affinity and in later requests' headers, clone IDs learnt from session
// cookies, and the "ZQJSESSIONID" and sticky "ZQJESSIONID" cookies, through the host's cookie
// setter or as "Set-Cookie".
#include <gtest/gtest.h>

#include <string>

#include "core/kyrPartitionData.h"
#include "support/routingFixture.h"

namespace {

using kyrtest::printed;
using kyrtest::printedContains;

class ResponseProcessing : public kyrtest::RoutingFixture {
 protected:
  // A request with the session cookie `value`, none if it is empty.
  EnvHttpContext& withSession(const std::string& path, const std::string& value) {
    EnvHttpContext& r = request(path);
    if (!value.empty()) r.cookies["JSESSIONID"] = value;
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
};

// Half a table is left in the response; a whole one is taken out, maps sessions to clone IDs
// and its version goes out with the cluster's next requests.
TEST_F(ResponseProcessing, PartitionTablesAreTakenOutOfTheResponseAndMapSessions) {
  EnvHttpContext& half = request("/shop/a");
  half.responseHeaders["$ZQPT"] = "p1:c2";
  respond(half, "");
  EXPECT_EQ(half.responseHeaders.count("$ZQPT"), 1u);
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, "/cell/route/cluster/web"), nullptr);

  EnvHttpContext& r = request("/shop/a");
  r.responseHeaders["$ZQPT"] = "p1:c2;p2:c3;bad;:x;y:;p1:c2";
  r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = "7";
  respond(r, "");
  EXPECT_EQ(r.responseHeaders.count("$ZQPT"), 0u);
  EXPECT_EQ(r.responseHeaders.count("_ZQ_HAPRT_WLMVERSION"), 0u);
  kyr::PartitionIDData* data = kyr::kyrGetPartitionData(kyr_, "/cell/route/cluster/web");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->partition2CloneIdMap->count, 2);  // the malformed entries are skipped

  EnvHttpContext& next = withSession("/shop/b", "abc:p1");
  KyrHttpContext* ctx = route(next);
  EXPECT_EQ(serverOf(ctx), "s2");
  EXPECT_FALSE(ctx->performedLoadBalancing);
  EXPECT_EQ(next.headers["_ZQ_HAPRT_WLMVERSION"], "7");
  EXPECT_EQ(serverOf(route("/shop/b;jsessionid=abc:p2")), "s3");
  EnvHttpContext& otherCluster = request("/vault/b");
  route(otherCluster);
  EXPECT_EQ(otherCluster.headers["_ZQ_HAPRT_WLMVERSION"], "-1");

  // A newer table replaces the old one whole.
  EnvHttpContext& again = request("/shop/a");
  again.responseHeaders["$ZQPT"] = "p1:c3";
  again.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = "8";
  respond(again, "");
  EXPECT_EQ(serverOf(route(withSession("/shop/b", "abc:p1"))), "s3");
  EXPECT_TRUE(route(withSession("/shop/b", "abc:p2"))->performedLoadBalancing);
}

TEST_F(ResponseProcessing, ServersWithoutCloneIdLearnItFromTheirSessionCookies) {
  EnvHttpContext& r = request("/portal/a");
  respond(r, "JSESSIONID=0000abc:clone1; Path=/");
  EXPECT_STREQ(server("n3", "e1")->cloneId, "clone1");
  EXPECT_EQ(kyrtest::cookiesSet(r), "");  // learnt, so nothing else to do
  KyrHttpContext* ctx = route(withSession("/portal/b", "0000abc:clone1"));
  EXPECT_EQ(serverOf(ctx), "e1");
  EXPECT_FALSE(ctx->performedLoadBalancing);
  EXPECT_STREQ(kyrTargetEndpointGetCloneId(kyrHttpContextGetMyTargetEndPoint(ctx)), "clone1");
}

// With the host's cookie setter (true) or without, when cookies go out as "Set-Cookie" headers.
class OutgoingCookies : public ResponseProcessing, public ::testing::WithParamInterface<bool> {
 protected:
  OutgoingCookies() {
    if (!GetParam()) host_.env.http.response.setCookieValue = nullptr;
  }
  // The cookies the library sent, however the host lets it send them.
  std::string sent(EnvHttpContext& r, const std::string& setCookieReceived) {
    if (GetParam()) return kyrtest::cookiesSet(r);
    const std::string& header = r.responseHeaders["Set-Cookie"];
    return header == setCookieReceived ? "" : header;
  }
};

TEST_P(OutgoingCookies, OnlyRequestsThatNeedThemGetTheRoutingCookies) {
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http.response.process:DEBUG"), 0);
  struct {
    const char* path;
    const char* session;  // the request's JSESSIONID, if not empty
    bool sticky;          // permitted with a sticky edition, as a "permitsticky" rule does
    const char* setCookie;
    const char* sent;
  } rows[] = {
      // f1 does not learn clone IDs: its own goes out with the session cookie's attributes,
      // and without attributes the cookie is still written, deliberately with no value.
      {"/front/a", "", false, "JSESSIONID=0000abc:clone1; Path=/", "ZQJSESSIONID=aa:c9; Path=/"},
      {"/front/b", "", false, "JSESSIONID=0000abc", "ZQJSESSIONID="},
      // Requests kept by affinity and application servers need nothing.
      {"/front/c", "0000abc:c9", false, "JSESSIONID=0000abc:c9; Path=/", ""},
      {"/shop/a", "", false, "JSESSIONID=0000abc:c1; Path=/", ""},
      // Sticky requests get the sticky cookie unless the request or the response has a session.
      {"/front/d", "", true, "", "ZQJESSIONID=aa:c9; Path=/front"},
      {"/front/e", "0000abc", true, "", ""},
      {"/front/f", "", true, "JSESSIONID=0000abc; Path=/", "ZQJSESSIONID=aa:c9; Path=/"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EnvHttpContext& r = withSession(row.path, row.session);
    KyrHttpContext* ctx = obtain(r);
    ASSERT_EQ(kyrHttpContextShouldHandle(ctx), 1);
    if (row.sticky) kyrHttpContextSetPermit(ctx, "", true);
    ASSERT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
    if (*row.setCookie != '\0') r.responseHeaders["Set-Cookie"] = row.setCookie;
    complete(ctx);
    EXPECT_EQ(sent(r, row.setCookie), row.sent);
  }
  // The trace line names the other cookie on purpose.
  EXPECT_TRUE(printedContains("setting sticky cookie ZQJSESSIONID=aa:c9; Path=/front"));
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutCookieSetter, OutgoingCookies, ::testing::Bool());

// What kyrCreate insists on, and nothing else a host may leave out.
void requiredOnly(EnvCallBacks& env) {
  auto& rq = env.http.request;
  rq.getClientHostName = nullptr;
  rq.getLocalAddress = nullptr;
  rq.getMethod = nullptr;
  rq.getQueryString = nullptr;
  rq.getGroupNames = nullptr;
  rq.getHeaderValue = nullptr;
  rq.getHeaderValues = nullptr;
  rq.resume = nullptr;
  env.http.response = {};
  env.targetEndpoint = {};
  env.storage = {};
  env.counter = {};
  env.stateChange = {};
}

// Each step of the response processing that needs a callback the host left out is skipped,
// and only that step: the request still completes and is released.
TEST_F(ResponseProcessing, MissingOptionalCallbacksSkipOnlyTheStepsThatNeedThem) {
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http.response.process:DEBUG"), 0);
  EnvCallBacks& env = *kyrGetEnvCallBacks(kyr_);  // the handle's own table
  const EnvCallBacks complete = env;
  struct {
    const char* left;
    void (*leaveOut)(EnvCallBacks&);
    bool tableStored;
    bool headersKept;
    const char* cookies;
  } rows[] = {
      {"nothing", [](EnvCallBacks&) {}, true, false, "ZQJSESSIONID=aa:c9; Path=/"},
      {"http.response.getHeaderValue",
       [](EnvCallBacks& e) { e.http.response.getHeaderValue = nullptr; }, false, true, ""},
      {"http.response.setHeaderValue",
       [](EnvCallBacks& e) { e.http.response.setHeaderValue = nullptr; }, true, true,
       "ZQJSESSIONID=aa:c9; Path=/"},
      {"http.response.setCookieValue or setHeaderValue",
       [](EnvCallBacks& e) {
         e.http.response.setCookieValue = nullptr;
         e.http.response.setHeaderValue = nullptr;
       },
       true, true, ""},
      {"http.response.getHeaderValue", requiredOnly, false, true, ""},  // every optional one
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE("row " + std::to_string(i) + ", without " + rows[i].left);
    env = complete;
    rows[i].leaveOut(env);
    printed().clear();
    EnvHttpContext& r = request("/front/a");
    std::string version = std::to_string(i);
    r.responseHeaders["$ZQPT"] = "p1:c9";
    r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = version;
    release(respond(r, "JSESSIONID=0000abc:clone1; Path=/"));
    kyr::PartitionIDData* table = kyr::kyrGetPartitionData(kyr_, "/cell/route/cluster/front");
    EXPECT_EQ(table != nullptr && version == table->version, rows[i].tableStored);
    EXPECT_EQ(r.responseHeaders.count("$ZQPT"), rows[i].headersKept ? 1u : 0u);
    EXPECT_EQ(kyrtest::cookiesSet(r), rows[i].cookies);
    EXPECT_EQ(printedContains(std::string("the host has no ") + rows[i].left), i > 0);
  }
  // A host that cannot resume a request cannot have it cancelled either.
  KyrHttpContext* ctx = route("/front/b");
  ctx->state = REQUEST_SUSPENDED;
  EXPECT_EQ(kyrHttpContextCancelRequest(ctx), -1);
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
  EXPECT_EQ(kyrtest::cookiesSet(r), "ZQJSESSIONID=aa:c9; Path=/; HttpOnly");
}

}  // namespace
