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
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrRoutingInfo.h"
#include "lang/kyrLangHooks.h"
#include "request/kyrHttpContext.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::printedContains;

constexpr const char* kShop1 = "/cell/ed/application/shop/webModule/shop.war";
constexpr const char* kShop2 = "/cell/ed/application/shop-edition2.0/webModule/shop.war";
constexpr const char* kWorkClass =
    "/cell/ed/application/shop/webRouteWorkClass/shop_Default_HTTP_WC";
constexpr const char* kTraceSet = "/cell/ed/node/n1/server/web1/ruleSet/vqTraceSpecs";

// What the percentage operand draws; 100 never falls into the 10 % share.
std::atomic<int> g_draw{100};
int draw() { return g_draw; }

// A one-object delta: `op` is "add", "set" or "del", `name` a full name.
std::string delta(int version, const char* op, const std::string& type, const std::string& name,
                  const std::string& props = "{}") {
  return "{\"version\":" + std::to_string(version) + ",\"delta\":true,\"" + op +
         "\":{\"objects\":{\"type\":\"" + type + "\",\"name\":\"" + name + "\",\"props\":" + props +
         "}}}";
}

class EditionRouting : public ::testing::Test {
 protected:
  void SetUp() override {
    kyrtest::printed().clear();
    g_draw = 100;
    kyr::langSetRandom(draw);
    host_.env.trace.printf = kyrtest::capturePrintf;
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    kyrSetServerCustomProperty(kyr_, "webserverName", "ed_n1_web1");
    // Shows the reader's debug lines until the document's control trace rule replaces it.
    kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.process:DEBUG");
    connector_ = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "cg1"), "http://p:9080");
    connector_->cg->curConnector = connector_;  // as a started group has it
    ASSERT_EQ(apply(kyrtest::readTestData("cell-editions.json")), 1);
  }
  void TearDown() override {
    for (KyrHttpContext* ctx : open_) kyrHttpContextRelease(ctx);
    kyrDestroy(kyr_);
    kyr::langSetRandom(nullptr);
  }

  int64_t apply(const std::string& doc) {
    kyr::ControlLockGuard guard("test");
    return kyrHandleJsonFromRestService(doc.c_str(), connector_);
  }
  void change(const char* op, const std::string& type, const std::string& name,
              const std::string& props = "{}") {
    int version = ++version_;
    ASSERT_EQ(apply(delta(version, op, type, name, props)), version);
  }

  EnvHttpContext& request(const std::string& path) {
    EnvHttpContext& r = requests_.emplace_back();
    r.virtualHost = "www.example.com";
    r.path = path;
    return r;
  }
  // Obtains a context and maps it; the context stays open until the test ends.
  KyrHttpContext* map(EnvHttpContext& r) {
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &r);
    open_.push_back(ctx);
    EXPECT_EQ(kyrHttpContextShouldHandle(ctx), 1) << r.path;
    return ctx;
  }
  std::string edition(EnvHttpContext& r) {
    const char* name = kyrHttpContextGetApplicationEditionName(map(r));
    return name != nullptr ? name : "(none)";
  }
  // The short name of the server the request goes to, or "" without one.
  static std::string serverOf(KyrHttpContext* ctx) {
    if (kyrHttpContextGetTargetEndpoint(ctx) == nullptr) return "";
    std::string full = kyrHttpContextGetTargetEndpointServerName(ctx);
    return full.substr(full.rfind('/') + 1);
  }
  // The level a request's own trace specification allows for "http.request.process".
  int requestTraceLevel(EnvHttpContext& r) {
    KyrHttpContext* ctx = map(r);
    TrSpec* spec = trContextGetSpec(kyrHttpContextGetTrContext(ctx));
    int level = kyr::trSpecGetMaxLevel(spec, trRecordGet(kyr_->trMgr, "http.request.process"));
    trSpecRefRelease(spec);
    return level;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnector* connector_ = nullptr;
  int version_ = 1;
  std::deque<EnvHttpContext> requests_;  // stable addresses for the contexts that hold them
  std::vector<KyrHttpContext*> open_;
};

TEST_F(EditionRouting, TheDefaultRulePermitsTheApplicationsOwnEdition) {
  KyrHttpContext* ctx = map(request("/shop/index.html"));
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx), "1.0");
  EXPECT_STREQ(kyrHttpContextGetModuleName(ctx), kShop1);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), PERMIT);
  EXPECT_FALSE(kyrHttpContextGetSticky(ctx));
  EXPECT_EQ(serverOf(ctx), "s1");
}

TEST_F(EditionRouting, AHeaderRuleSendsTheRequestToEditionTwoOnItsOwnServers) {
  EnvHttpContext& r = request("/shop/index.html");
  r.headers["X-Beta"] = "yes";
  KyrHttpContext* ctx = map(r);
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx), "2.0");
  EXPECT_STREQ(kyrHttpContextGetModuleName(ctx), kShop2);
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx), "shop-edition2.0");
  EXPECT_EQ(serverOf(ctx), "s2");
}

TEST_F(EditionRouting, RulesAreTriedInTheOrderOfTheirNumbers) {
  EnvHttpContext& r = request("/shop/closed/x");
  r.headers["X-Beta"] = "yes";  // rule 10 comes before the reject of rule 30
  EXPECT_EQ(edition(r), "2.0");
}

TEST_F(EditionRouting, ThePercentageRolloutSendsItsShareToEditionTwo) {
  g_draw = 10;
  EXPECT_EQ(edition(request("/shop/a")), "2.0");
  g_draw = 11;
  EXPECT_EQ(edition(request("/shop/a")), "1.0");
}

TEST_F(EditionRouting, PermitStickySetsTheStickyRoutingCookieOnTheResponse) {
  EnvHttpContext& sticky = request("/shop/sticky/cart");
  KyrHttpContext* ctx = map(sticky);
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx), "2.0");
  EXPECT_TRUE(kyrHttpContextGetSticky(ctx));
  EXPECT_EQ(serverOf(ctx), "s2");
  kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
  kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
  kyrHttpContextSetState(ctx, RESPONSE_ARRIVED, 0, nullptr);
  EXPECT_EQ(sticky.responseCookies["ZQJESSIONID"], "aa:c2; Path=/shop");

  // A plain permit to the same edition sets no sticky cookie.
  EnvHttpContext& plain = request("/shop/cart");
  plain.headers["X-Beta"] = "yes";
  ctx = map(plain);
  EXPECT_FALSE(kyrHttpContextGetSticky(ctx));
  EXPECT_EQ(serverOf(ctx), "s2");
  kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
  kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
  kyrHttpContextSetState(ctx, RESPONSE_ARRIVED, 0, nullptr);
  EXPECT_EQ(plain.responseCookies.count("ZQJESSIONID"), 0u);
}

TEST_F(EditionRouting, ARejectRuleRejectsWithItsOwnCodeAndNoTarget) {
  KyrHttpContext* ctx = map(request("/shop/closed/x"));
  EXPECT_EQ(kyrHttpContextGetApplicationEditionName(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), REJECT);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 503);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx), "matched reject edition routing rule");
}

TEST_F(EditionRouting, ARedirectRuleGivesItsURLAndNoTarget) {
  KyrHttpContext* ctx = map(request("/shop/old/page"));
  EXPECT_EQ(kyrHttpContextGetApplicationEditionName(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), REDIRECT);
  EXPECT_STREQ(kyrHttpContextGetRedirectURL(ctx), "https://new.example.com/shop/");
}

TEST_F(EditionRouting, DeltasChangeRulesInPlace) {
  change("set", "rule", std::string(kWorkClass) + "/rule/30", R"({"action":"reject:429"})");
  KyrHttpContext* ctx = map(request("/shop/closed/x"));
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 429);

  change("set", "rule", std::string(kWorkClass) + "/rule/40",
         R"({"expression":"uri like '/shop/moved/*'"})");
  EXPECT_EQ(edition(request("/shop/old/page")), "1.0");
  EXPECT_EQ(kyrHttpContextGetAction(map(request("/shop/moved/page"))), REDIRECT);

  change("add", "rule", std::string(kWorkClass) + "/rule/5",
         R"({"expression":"queryparm$beta = 'on'","action":"permit:shop-edition2.0"})");
  EnvHttpContext& r = request("/shop/a");
  r.queryString = "beta=on";
  EXPECT_EQ(edition(r), "2.0");

  change("del", "rule", std::string(kWorkClass) + "/rule/default");
  KyrHttpContext* unmatched = map(request("/shop/a"));
  EXPECT_EQ(kyrHttpContextGetErrorCode(unmatched), 500);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(unmatched),
               "no edition routing rule match found; Error Status Code=500");
}

TEST_F(EditionRouting, WithoutTheDefaultWorkClassEachModuleServesItsOwnEdition) {
  change("del", "webRouteWorkClass", kWorkClass);
  EnvHttpContext& r = request("/shop/a");
  r.headers["X-Beta"] = "yes";
  EXPECT_EQ(edition(r), "1.0");
  EXPECT_EQ(kyrHttpContextGetAction(map(request("/shop/closed/x"))), PERMIT);
}

TEST_F(EditionRouting, OnlyThisServersTraceRuleSetIsKept) {
  EXPECT_TRUE(printedContains(
      "kyrRuleSetCreateFromJSON: Ignoring the rule set for server=/cell/ed/node/n1/server/s1 as "
      "it is not this server"));
  EXPECT_TRUE(printedContains(
      "kyrRuleInit: rule='uri like '/shop/noaction/*'' has no action. It will be ignored."));
  EXPECT_NE(kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo, kTraceSet), nullptr);
  EXPECT_EQ(kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo,
                                         "/cell/ed/node/n1/server/s1/ruleSet/vqTraceSpecs"),
            nullptr);
  // The control trace rule made its action the default specification at once.
  TrSpec* spec = kyrGetTrSpec(kyr_);
  EXPECT_EQ(kyr::trSpecGetMaxLevel(spec, trRecordGet(kyr_->trMgr, "http.request.process")),
            TR_LEVEL_INFO);
  trSpecRefRelease(spec);
}

TEST_F(EditionRouting, ARequestMatchingATraceRuleTracesWithItsSpecification) {
  EnvHttpContext& traced = request("/shop/a");
  traced.headers["X-Debug"] = "yes";
  EXPECT_EQ(requestTraceLevel(traced), TR_LEVEL_DEBUG);
  EXPECT_TRUE(printedContains(
      "Request trace rule 5 of type REQUESTTRACE with condition 'header$X-Debug = 'yes'' matched "
      "host www.example.com, port 80, path /shop/a"));
  EXPECT_EQ(requestTraceLevel(request("/shop/a")), TR_LEVEL_INFO);  // s1's rule is not ours
  EXPECT_EQ(requestTraceLevel(request("/shop/noaction/x")), TR_LEVEL_INFO);
}

TEST_F(EditionRouting, TraceRulesComeAndGoWithDeltas) {
  change("del", "rule", std::string(kTraceSet) + "/rule/5");
  EXPECT_TRUE(printedContains("Request trace rule removed"));
  EnvHttpContext& r = request("/shop/a");
  r.headers["X-Debug"] = "yes";
  EXPECT_EQ(requestTraceLevel(r), TR_LEVEL_INFO);

  change("add", "rule", std::string(kTraceSet) + "/rule/3",
         R"({"expression":"uri like '/shop/trace/*'","action":":NOTICE,http:DEBUG"})");
  EXPECT_EQ(requestTraceLevel(request("/shop/trace/x")), TR_LEVEL_DEBUG);
  change("set", "rule", std::string(kTraceSet) + "/rule/3", R"({"action":":NOTICE,http:ERROR"})");
  EXPECT_EQ(requestTraceLevel(request("/shop/trace/x")), TR_LEVEL_ERROR);

  // Without its rule set no rule of it is consulted any more.
  change("del", "ruleSet", kTraceSet);
  EXPECT_EQ(requestTraceLevel(request("/shop/trace/x")), TR_LEVEL_INFO);
}

TEST_F(EditionRouting, TheHostsConditionalSpecificationsComeBeforeTheRoutingData) {
  ASSERT_EQ(
      kyrSetTraceSpecification(kyr_, "host/9", ":NOTICE,http:WARNING", "header$X-Debug = 'yes'"),
      0);
  EXPECT_TRUE(printedContains(
      "Request trace rule 9 added: condition 'header$X-Debug = 'yes'', trace specification "
      "':NOTICE,http:WARNING'"));
  EnvHttpContext& r = request("/shop/a");
  r.headers["X-Debug"] = "yes";
  EXPECT_EQ(requestTraceLevel(r), TR_LEVEL_WARNING);
  EXPECT_EQ(requestTraceLevel(request("/shop/a")), TR_LEVEL_INFO);
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
  EnvHttpContext& r = request("/shop/a");
  r.headers["X-Debug"] = "yes";
  EXPECT_EQ(requestTraceLevel(r), TR_LEVEL_DEBUG);  // the rebuilt version's trace rule set
}

// Requests route and choose their trace specification while the host adds conditional
// specifications and deltas add, change and remove trace and edition routing rules in place.
TEST(EditionRoutingConcurrency, RequestsRouteWhileRulesChangeUnderThem) {
  kyrtest::TestHost host;
  host.env.trace.printf = [](TrContext*, va_list) {};
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  kyrSetServerCustomProperty(kyr, "webserverName", "ed_n1_web1");
  KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg1"), "http://p:9080");
  c->cg->curConnector = c;
  auto apply = [&](const std::string& doc) {
    kyr::ControlLockGuard guard("test");
    return kyrHandleJsonFromRestService(doc.c_str(), c);
  };
  ASSERT_EQ(apply(kyrtest::readTestData("cell-editions.json")), 1);

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
        KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &r);
        kyrHttpContextShouldHandle(ctx);
        KyrAction action = kyrHttpContextGetAction(ctx);
        if (action != PERMIT && action != REJECT) ++unexpected;
        kyrHttpContextRelease(ctx);
      }
    });
  }
  int version = 1;
  const std::string traceRule = std::string(kTraceSet) + "/rule/4";
  const std::string editionRule = std::string(kWorkClass) + "/rule/30";
  for (int i = 0; i < 100; ++i) {
    apply(delta(++version, "add", "rule", traceRule,
                R"({"expression":"uri like '/shop/*'","action":":NOTICE,http:DEBUG"})"));
    apply(delta(++version, "set", "rule", editionRule,
                i % 2 == 0 ? R"({"action":"reject:429"})" : R"({"action":"reject:503"})"));
    apply(delta(++version, "set", "rule", editionRule,
                R"({"expression":"uri like '/shop/closed/*' or port = 1"})"));
    std::string name = "host/" + std::to_string(i);
    kyrSetTraceSpecification(kyr, name.c_str(), ":NOTICE,http:DEBUG", "header$X-Trace = 'on'");
    apply(delta(++version, "del", "rule", traceRule));
  }
  done = true;
  for (auto& t : workers) t.join();
  EXPECT_EQ(unexpected.load(), 0);
  kyrDestroy(kyr);
}

}  // namespace
