// The request mapper's objects where a routed request cannot show them: application roots
// outliving editions, the SSL map mode texts, affinity policies and what drops them, the old
// publishers' modules that cover their whole root, the default work class, rule order, the 500
// rejects of rules that cannot decide and the permitted edition a request keeps. What requests
// see of these is the request mapping and edition routing tests' business.
#include "mapping/kyrRequestMapper.h"

#include <gtest/gtest.h>

#include <string>

#include "core/kyrRoutingInfo.h"
#include "lang/kyrAction.h"
#include "mapping/URIMatcher.h"
#include "mapping/kyrWebRouteWorkClass.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"

namespace {

using namespace kyr;

class RequestMapperObjects : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    rm_ = kyrRoutingInfoGetRequestMapper(kyr_->routingInfo);
    app_ = rmApplicationCreate(rm_, "/cell/c/application/shop");
    wm_ = rmWebModuleCreate(app_, "/cell/c/application/shop/webModule/w", 2);
    ctx_ = kyrHttpContextObtain(kyr_, &request_);
  }
  void TearDown() override {
    kyrHttpContextRelease(ctx_);
    kyrDestroy(kyr_);
  }

  WebRouteWorkClass* workClass(const char* name) {
    WebRouteWorkClass* wc = rmWebRouteWorkClassCreate(app_, name);
    rmWebRouteWorkClassInit(wc);
    return wc;
  }
  KyrRule* rule(WebRouteWorkClass* wc, const char* name, const char* expr, const char* action) {
    KyrRule* r = rmEditionRoutingRuleCreate(wc, name);
    if (expr != nullptr) kyrRuleSetExpr(r, expr);
    if (action != nullptr) rmEditionRoutingRuleSetPropStr(r, "action", action);
    rmEditionRoutingRuleInit(r);
    return r;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  RequestMapper* rm_ = nullptr;
  Application* app_ = nullptr;
  WebModule* wm_ = nullptr;
  EnvHttpContext request_;
  KyrHttpContext* ctx_ = nullptr;
};

TEST_F(RequestMapperObjects, TheSharedRootGoesWithTheLastEdition) {
  Application* second = rmApplicationCreate(rm_, "/cell/c/application/shop-edition2");
  ASSERT_TRUE(rmApplicationSetPropStr(second, "edition", "2"));
  rmApplicationDelete(app_);
  EXPECT_EQ(getApplicationByEdition(second, ""), nullptr);  // the deleted one left the root
  EXPECT_NE(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), nullptr);
  rmApplicationDelete(second);
  EXPECT_EQ(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), nullptr);
}

// "http" is seen end to end by the target selection tests.
TEST_F(RequestMapperObjects, ProtocolMapTakesExactTextsAndNullResets) {
  struct {
    const char* text;
    bool accepted;
    KyrSSLMapMode mode;
  } rows[] = {{"direct", true, MapInboundToOutbound},
              {"https", true, SSLOnLoad},
              {"HTTP", false, SSLOnLoad},
              {nullptr, true, NullMapMode}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text ? row.text : "null");
    EXPECT_EQ(rmWebModuleSetPropStr(wm_, "protocolMap", row.text), row.accepted);
    EXPECT_EQ(rmWebModuleGetSSLMapMode(wm_), row.mode);
  }
  EXPECT_FALSE(rmWebModuleSetPropBool(wm_, "routingEnabled", true));  // known, refused
}

// Policies are built on first use from the cookies in force, so a change must drop them. A new
// policy frees the one it replaces (ASan and the memory counter see it).
TEST_F(RequestMapperObjects, AffinityPoliciesAreOwnedAndDroppedWhenTheCookiesChange) {
  auto** names = static_cast<char**>(kyrMalloc(2 * sizeof(char*)));
  names[0] = kyrStrdup("SSO");
  names[1] = nullptr;
  HttpAffinityPolicy* hap = hapCreate(wm_, names, ":", true);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), hap);
  EXPECT_STREQ(hapGetCookieNames(hap)[0], "SSO");
  HttpAffinityPolicy* described = hapCreate1(wm_, nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), described);

  EXPECT_TRUE(rmApplicationSetPropStr(app_, "sessionAffinityCookies", "JSESSIONID"));
  EXPECT_TRUE(rmApplicationSetPropNull(app_, "sessionAffinityCookies"));
  EXPECT_EQ(appGetSessionAffinityCookies(app_), nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), nullptr);
}

// "/*" of a generic application is the catch-all; unlinking leaves the patterns until the
// version is rebuilt.
TEST_F(RequestMapperObjects, OldPublishersModulesCoverEverythingBelowTheirRoot) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/GenericApplication");
  WebModule* old = rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/g", -1);
  rmWebModuleSetPropStr(old, "contextRoot", "/");
  rmWebModuleInit(old);
  WebModule* current =
      rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/h", 1);
  rmWebModuleInit(current);
  ASSERT_EQ(kyrListGetCount(old->uris), 1);
  EXPECT_STREQ(static_cast<const char*>(kyrListEleGetObject(kyrListGetHead(old->uris))), "*");
  EXPECT_EQ(kyrListGetCount(current->uris), 0);

  VHostMatcher* group = createVHostMatcher(kyr_->routingInfo, "/cell/c/vHostGroup/default_host");
  rmAddVHostMatcher(rm_, group);
  putVHost(group, "*", -1);
  for (bool linked : {true, false}) {
    rmLinkVHostAndWebModule(group, old, linked);
    rmPublish(rm_);
    EXPECT_EQ(URIMatcherMatch(getURIMatcher(group), "/anything/at/all", nullptr), old) << linked;
  }
}

TEST_F(RequestMapperObjects, PathOnlyCutsAtTheFirstParameterOrQuery) {
  const char* plain = "/app/x";
  EXPECT_EQ(pathOnly(plain), plain);  // nothing to cut: no copy to free
  const char* cut = pathOnly("/app/x;a=b?c;d");
  EXPECT_STREQ(cut, "/app/x");
  kyrFree(const_cast<char*>(cut));
}

// ---- Work classes and edition routing rules

// The default is recognised by its name's ending, wherever it sits.
TEST_F(RequestMapperObjects, TheLastDefaultWorkClassInitialisedWinsAndDeletingItLeavesNone) {
  EXPECT_FALSE(isDefaultWebRouteWorkClass(workClass("/cell/c/application/shop/wc/gold")));
  workClass("/x/shop_Default_HTTP_WC");
  WebRouteWorkClass* second = workClass("/y/other_Default_HTTP_WC");
  EXPECT_EQ(app_->defaultWebRouteWorkClass, second);
  rmWebRouteWorkClassDelete(second);
  EXPECT_EQ(app_->defaultWebRouteWorkClass, nullptr);
}

TEST_F(RequestMapperObjects, RulesSortByTheNumberAfterTheLastSlashAndDefaultGoesLast) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  struct {
    const char* name;
    int order;
  } rows[] = {{"rules/12", 12}, {"default", 999800}, {"abc", 0}, {nullptr, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(kyrRuleGetOrder(rule(wc, row.name, "true", "permit:a")), row.order)
        << (row.name ? row.name : "null");
  }
}

// No rule matching is seen end to end by the edition routing tests.
TEST_F(RequestMapperObjects, RulesThatCannotDecideReject500WithTheirReason) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  rule(wc, "rules/1", "uri = '/bare'", nullptr);
  // Any string property replaces the action; an unknown text is no action.
  KyrRule* bogus = rule(wc, "rules/2", "uri = '/bogus'", "permit:a");
  EXPECT_TRUE(rmEditionRoutingRuleSetPropStr(bogus, "whatever", "bogus:x"));
  // Action texts never make another kind, but the mapper refuses one all the same.
  Action* odd = actionCreate("reject:1");
  odd->type = SUSPEND;
  kyrRuleSetObject(rule(wc, "rules/3", "uri = '/odd'", nullptr), odd);
  struct {
    const char* path;
    const char* reason;
  } rows[] = {{"/bare", "no edition routing rule action found"},
              {"/bogus", "no edition routing rule action found"},
              {"/odd", "invalid edition routing rule action"}};
  for (const auto& row : rows) {
    request_.path = row.path;
    EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr) << row.path;
    EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500) << row.path;
    EXPECT_EQ(std::string(kyrHttpContextGetErrorMsg(ctx_)),
              std::string(row.reason) + "; Error Status Code=500");
  }
  odd->type = REJECT;  // freed as what it was made
}

TEST_F(RequestMapperObjects, ThePermittedEditionIsTheRequestsOwnCopy) {
  KyrRule* r = rule(workClass("shop_Default_HTTP_WC"), "default", "true", "permit:shop-edition2.0");
  const char* edition = evaluateAppEditionRoutingRules(app_, ctx_);
  // A delta may replace the action while the request goes on with its decision.
  EXPECT_TRUE(rmEditionRoutingRuleSetPropStr(r, "action", "permit:shop-edition3.0"));
  EXPECT_STREQ(edition, "2.0");
}

}  // namespace
