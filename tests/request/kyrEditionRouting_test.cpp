// Edition routing and request tracing over tests/data/cell-editions.json, driven through the
// public request context.
//
// The cell: application shop in edition 1.0 (module on s1) and 2.0 (module on s2, reached only
// through the rules). The default work class of edition 1.0 decides by rule 10 (header X-Beta:
// yes -> permit 2.0), 20 (/shop/sticky/* -> permitsticky 2.0), 30 (/shop/closed/* -> reject:503),
// 40 (/shop/old/* -> redirect), 50 (a 10 % rollout -> permit 2.0) and its default rule (permit
// 1.0). The web server web1 is this library ("ed_n1_web1"); its "vqTraceSpecs" rule set traces
// requests with X-Debug: yes at http:DEBUG (rule 5), has rule 7 without action, and a default
// rule that makes ":INFO" the default specification. s1's trace rule set is not ours.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "lang/kyrLangHooks.h"
#include "support/routingFixture.h"

namespace {

using kyrtest::printedContains;

constexpr const char* kWorkClass =
    "/cell/ed/application/shop/webRouteWorkClass/shop_Default_HTTP_WC";
constexpr const char* kTraceSet = "/cell/ed/node/n1/server/web1/ruleSet/vqTraceSpecs";

// What the percentage operand draws; 100 never falls into the 10 % share.
std::atomic<int> g_draw{100};
int draw() { return g_draw; }

class EditionRouting : public kyrtest::RoutingFixture {
 protected:
  EditionRouting() { document_ = "cell-editions.json"; }
  void prepare() override {
    g_draw = 100;
    kyr::langSetRandom(draw);
    kyrSetServerCustomProperty(kyr_, "webserverName", "ed_n1_web1");
    // Shows the reader's debug lines until the document's control trace rule replaces it.
    kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.process:DEBUG");
  }
  void TearDown() override {
    RoutingFixture::TearDown();
    kyr::langSetRandom(nullptr);
  }

  // A request carrying the header `name` with the value "yes".
  EnvHttpContext& withHeader(const std::string& path, const char* name) {
    EnvHttpContext& r = request(path);
    r.headers[name] = "yes";
    return r;
  }
  // Routes and completes the request; "edition: decision", the decision being the application,
  // server, stickiness and cookies of a permit, the status and reason of a reject, or the URL of
  // a redirect.
  std::string decide(EnvHttpContext& r) {
    KyrHttpContext* ctx = obtain(r);
    EXPECT_EQ(kyrHttpContextShouldHandle(ctx), 1) << r.path;
    KyrTargetEndpoint* tep = kyrHttpContextGetTargetEndpoint(ctx);
    const char* edition = kyrHttpContextGetApplicationEditionName(ctx);
    std::string decision = std::string(edition != nullptr ? edition : "(none)") + ": ";
    if (kyrHttpContextGetAction(ctx) != PERMIT) {
      EXPECT_EQ(tep, nullptr) << r.path;
      return decision + (kyrHttpContextGetAction(ctx) == REDIRECT
                             ? std::string("redirect ") + kyrHttpContextGetRedirectURL(ctx)
                             : "reject " + std::to_string(kyrHttpContextGetErrorCode(ctx)) + " " +
                                   kyrHttpContextGetErrorMsg(ctx));
    }
    decision += std::string(kyrHttpContextGetApplicationName(ctx)) + " on " + serverOf(ctx);
    if (kyrHttpContextGetSticky(ctx)) decision += ", sticky";
    complete(ctx);
    std::string cookies = kyrtest::cookiesSet(r);
    return cookies.empty() ? decision : decision + ", " + cookies;
  }
  int traceLevel(EnvHttpContext& r) { return kyrtest::requestTraceLevel(kyr_, obtain(r)); }
};

// One row per rule of the work class, plus the order in which they are tried.
TEST_F(EditionRouting, TheFirstMatchingRuleDecides) {
  struct {
    const char* path;
    const char* header;  // sent with the value "yes", if any
    int draw;
    const char* decision;
  } rows[] = {
      {"/shop/index.html", nullptr, 100, "1.0: shop on s1"},  // the default rule
      {"/shop/index.html", "X-Beta", 100, "2.0: shop-edition2.0 on s2"},
      {"/shop/closed/x", "X-Beta", 100, "2.0: shop-edition2.0 on s2"},  // rule 10 before 30
      {"/shop/sticky/cart", nullptr, 100,
       "2.0: shop-edition2.0 on s2, sticky, ZQJESSIONID=aa:c2; Path=/shop"},
      {"/shop/closed/x", nullptr, 100, "(none): reject 503 matched reject edition routing rule"},
      {"/shop/old/page", nullptr, 100, "(none): redirect https://new.example.com/shop/"},
      {"/shop/a", nullptr, 10, "2.0: shop-edition2.0 on s2"},  // within the 10 % rollout
      {"/shop/a", nullptr, 11, "1.0: shop on s1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.path) + " " + (row.header ? row.header : "") + " draw " +
                 std::to_string(row.draw));
    g_draw = row.draw;
    EXPECT_EQ(decide(row.header ? withHeader(row.path, row.header) : request(row.path)),
              row.decision);
  }
}

TEST_F(EditionRouting, DeltasChangeRulesInPlace) {
  change("set", "rule", std::string(kWorkClass) + "/rule/30", R"({"action":"reject:429"})");
  EXPECT_EQ(decide(request("/shop/closed/x")),
            "(none): reject 429 matched reject edition routing rule");

  change("set", "rule", std::string(kWorkClass) + "/rule/40",
         R"({"expression":"uri like '/shop/moved/*'"})");
  EXPECT_EQ(decide(request("/shop/old/page")), "1.0: shop on s1");
  EXPECT_EQ(decide(request("/shop/moved/page")), "(none): redirect https://new.example.com/shop/");

  change("add", "rule", std::string(kWorkClass) + "/rule/5",
         R"({"expression":"queryparm$beta = 'on'","action":"permit:shop-edition2.0"})");
  EnvHttpContext& r = request("/shop/a");
  r.queryString = "beta=on";
  EXPECT_EQ(decide(r), "2.0: shop-edition2.0 on s2");

  change("del", "rule", std::string(kWorkClass) + "/rule/default");
  EXPECT_EQ(decide(request("/shop/a")),
            "(none): reject 500 no edition routing rule match found; Error Status Code=500");
}

// A matching request traces with its rule's trace specification, every other with the default,
// which the control trace rule's action (":INFO") became at once. Only this server's trace rule
// set is kept: s1's rule would trace every request at DEBUG. The host's own rule takes its order
// from its name ("host/9") and comes before the routing data's.
TEST_F(EditionRouting, ARequestMatchingATraceRuleTracesWithItsSpecification) {
  EXPECT_TRUE(printedContains(
      "kyrRuleSetCreateFromJSON: Ignoring the rule set for server=/cell/ed/node/n1/server/s1 as "
      "it is not this server"));
  EXPECT_TRUE(printedContains(
      "kyrRuleInit: rule='uri like '/shop/noaction/*'' has no action. It will be ignored."));
  EXPECT_EQ(traceLevel(withHeader("/shop/a", "X-Debug")), TR_LEVEL_DEBUG);
  EXPECT_TRUE(printedContains(
      "Request trace rule 5 of type REQUESTTRACE with condition 'header$X-Debug = 'yes'' matched "
      "host www.example.com, port 80, path /shop/a"));
  EXPECT_EQ(traceLevel(request("/shop/a")), TR_LEVEL_INFO);  // s1's rule is not ours
  EXPECT_EQ(traceLevel(request("/shop/noaction/x")), TR_LEVEL_INFO);

  ASSERT_EQ(
      kyrSetTraceSpecification(kyr_, "host/9", ":NOTICE,http:WARNING", "header$X-Debug = 'yes'"),
      0);
  EXPECT_TRUE(printedContains(
      "Request trace rule 9 added: condition 'header$X-Debug = 'yes'', trace specification "
      "':NOTICE,http:WARNING'"));
  EXPECT_EQ(traceLevel(withHeader("/shop/a", "X-Debug")), TR_LEVEL_WARNING);
  EXPECT_EQ(traceLevel(request("/shop/a")), TR_LEVEL_INFO);
  // Without a condition a rule matches every request, after the rules that have one.
  ASSERT_EQ(kyrSetTraceSpecification(kyr_, "all/1", ":NOTICE,http:ERROR", nullptr), 0);
  EXPECT_EQ(traceLevel(request("/shop/a")), TR_LEVEL_ERROR);
  EXPECT_EQ(traceLevel(withHeader("/shop/a", "X-Debug")), TR_LEVEL_WARNING);
}

TEST_F(EditionRouting, TraceRulesComeAndGoWithDeltas) {
  change("del", "rule", std::string(kTraceSet) + "/rule/5");
  EXPECT_TRUE(printedContains("Request trace rule removed"));
  EXPECT_EQ(traceLevel(withHeader("/shop/a", "X-Debug")), TR_LEVEL_INFO);

  change("add", "rule", std::string(kTraceSet) + "/rule/3",
         R"({"expression":"uri like '/shop/trace/*'","action":":NOTICE,http:DEBUG"})");
  EXPECT_EQ(traceLevel(request("/shop/trace/x")), TR_LEVEL_DEBUG);
  change("set", "rule", std::string(kTraceSet) + "/rule/3", R"({"action":":NOTICE,http:ERROR"})");
  EXPECT_EQ(traceLevel(request("/shop/trace/x")), TR_LEVEL_ERROR);

  // Without its rule set no rule of it is consulted any more.
  change("del", "ruleSet", kTraceSet);
  EXPECT_EQ(traceLevel(request("/shop/trace/x")), TR_LEVEL_INFO);
}

TEST_F(EditionRouting, RebuildingTheModelFreesTheOldRulesAndTraceRuleSets) {
  auto rebuild = [this] {
    kyr::ControlLockGuard guard("test");
    kyr::kyrResetRoutingInfo(kyr_);
  };
  rebuild();
  kyr::trPurgeDeathRow();
  int64_t baseline = kyr::kyrGetMemCount();
  for (int i = 0; i < 3; ++i) rebuild();
  kyr::trPurgeDeathRow();
  EXPECT_EQ(kyr::kyrGetMemCount(), baseline);
  // The rebuilt version's trace rule set.
  EXPECT_EQ(traceLevel(withHeader("/shop/a", "X-Debug")), TR_LEVEL_DEBUG);
}

// Traces go nowhere: the request threads would otherwise share the capture.
class EditionRoutingConcurrency : public EditionRouting {
 protected:
  EditionRoutingConcurrency() {
    host_.env.trace.printf = [](TrContext*, va_list) {};
  }
};

// Requests route and choose their trace specification while the host adds conditional
// specifications and deltas add, change and remove trace and edition routing rules in place.
TEST_F(EditionRoutingConcurrency, RequestsRouteWhileRulesChangeUnderThem) {
  std::atomic<bool> done{false};
  std::atomic<int> unexpected{0};
  std::vector<std::thread> workers;
  for (int w = 0; w < 2; ++w) {
    workers.emplace_back([&, w] {
      for (int i = 0; !done; ++i) {
        EnvHttpContext r;
        r.virtualHost = "www.example.com";
        r.path = i % 3 == 0 ? "/shop/closed/x" : "/shop/a";
        if ((i + w) % 2 == 0) r.headers["X-Debug"] = "yes";
        if (i % 5 == 0) r.headers["X-Beta"] = "yes";
        KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &r);
        kyrHttpContextShouldHandle(ctx);
        KyrAction action = kyrHttpContextGetAction(ctx);
        if (action != PERMIT && action != REJECT) ++unexpected;
        kyrHttpContextRelease(ctx);
      }
    });
  }
  const std::string traceRule = std::string(kTraceSet) + "/rule/4";
  const std::string editionRule = std::string(kWorkClass) + "/rule/30";
  for (int i = 0; i < 100; ++i) {
    change("add", "rule", traceRule,
           R"({"expression":"uri like '/shop/*'","action":":NOTICE,http:DEBUG"})");
    change("set", "rule", editionRule,
           i % 2 == 0 ? R"({"action":"reject:429"})" : R"({"action":"reject:503"})");
    change("set", "rule", editionRule, R"({"expression":"uri like '/shop/closed/*' or port = 1"})");
    std::string name = "host/" + std::to_string(i);
    kyrSetTraceSpecification(kyr_, name.c_str(), ":NOTICE,http:DEBUG", "header$X-Trace = 'on'");
    change("del", "rule", traceRule);
  }
  done = true;
  for (auto& t : workers) t.join();
  EXPECT_EQ(unexpected.load(), 0);
}

}  // namespace
