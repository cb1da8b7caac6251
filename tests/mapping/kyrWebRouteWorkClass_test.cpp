// Work classes and edition routing rules: which work class is the default, rule order, actions,
// and the decision evaluateAppEditionRoutingRules records on the request.
#include <gtest/gtest.h>

#include "core/kyrRoutingInfo.h"
#include "lang/kyrAction.h"
#include "mapping/kyrWebRouteWorkClass.h"
#include "request/kyrHttpContext.h"
#include "support/kyrTestHost.h"

namespace {

using namespace kyr;

class WorkClasses : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    app_ = rmApplicationCreate(kyrRoutingInfoGetRequestMapper(kyr_->routingInfo),
                               "/cell/c/application/shop");
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
  Application* app_ = nullptr;
  EnvHttpContext request_;
  KyrHttpContext* ctx_ = nullptr;
};

TEST_F(WorkClasses, TheLastDefaultInitialisedWinsAndDeletingItLeavesNone) {
  WebRouteWorkClass* other = workClass("/cell/c/application/shop/webRouteWorkClass/gold");
  EXPECT_EQ(app_->defaultWebRouteWorkClass, nullptr);
  WebRouteWorkClass* first = workClass("/x/shop_Default_HTTP_WC");
  WebRouteWorkClass* second = workClass("/y/other_Default_HTTP_WC");
  EXPECT_EQ(app_->defaultWebRouteWorkClass, second);
  EXPECT_FALSE(isDefaultWebRouteWorkClass(other));
  EXPECT_FALSE(rmWebRouteWorkClassSetPropStr(first, "anything", "x"));
  rmWebRouteWorkClassDelete(second);
  EXPECT_EQ(app_->defaultWebRouteWorkClass, nullptr);
  // Without a default the application's own edition is permitted.
  rmApplicationSetEdition(app_, "1.0");
  EXPECT_STREQ(evaluateAppEditionRoutingRules(app_, ctx_), "1.0");
  EXPECT_EQ(kyrHttpContextGetAction(ctx_), PERMIT);
}

TEST_F(WorkClasses, RulesSortByTheNumberAfterTheLastSlashAndDefaultGoesLast) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  EXPECT_EQ(kyrRuleGetOrder(rule(wc, "rules/12", "true", "permit:a")), 12);
  EXPECT_EQ(kyrRuleGetOrder(rule(wc, "default", "true", "permit:a")), 999800);
  EXPECT_EQ(kyrRuleGetOrder(rule(wc, "abc", "true", "permit:a")), 0);  // sorts first
  EXPECT_EQ(kyrRuleGetOrder(rule(wc, nullptr, "true", "permit:a")), 0);
}

TEST_F(WorkClasses, TheFirstMatchingRuleDecides) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  rule(wc, "rules/30", "true", "permitsticky:shop-edition2.0");
  rule(wc, "rules/20", "uri like '/old/*'", "redirect:https://elsewhere/");
  rule(wc, "rules/10", "port = 8443", "reject:503");

  request_.path = "/old/page";
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetAction(ctx_), REDIRECT);
  EXPECT_STREQ(kyrHttpContextGetRedirectURL(ctx_), "https://elsewhere/");

  request_.virtualPort = 8443;
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 503);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_), "matched reject edition routing rule");

  request_.virtualPort = 80;
  request_.path = "/new";
  EXPECT_STREQ(evaluateAppEditionRoutingRules(app_, ctx_), "2.0");
  EXPECT_TRUE(kyrHttpContextGetSticky(ctx_));
}

TEST_F(WorkClasses, RulesThatCannotDecideReject500WithTheirReason) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  KyrRule* onlyOnPort = rule(wc, "rules/1", "port = 1", "permit:a");
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_), "no edition routing rule match found; Error Status Code=500");

  // Any string property replaces the action; an unknown text is no action.
  EXPECT_TRUE(rmEditionRoutingRuleSetPropStr(onlyOnPort, "whatever", "bogus:x"));
  EXPECT_EQ(actionGetType(static_cast<Action*>(kyrRuleGetObject(onlyOnPort))), NONE);
  request_.virtualPort = 1;
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500);
}

TEST_F(WorkClasses, RulesWithoutAUsableActionReject500) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  rule(wc, "rules/1", "uri = '/bare'", nullptr);
  request_.path = "/bare";
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_),
               "no edition routing rule action found; Error Status Code=500");

  // Action texts never make another kind, but the mapper refuses one all the same.
  Action* odd = actionCreate("reject:1");
  odd->type = SUSPEND;
  kyrRuleSetObject(rule(wc, "rules/0", "uri = '/odd'", nullptr), odd);
  request_.path = "/odd";
  EXPECT_EQ(evaluateAppEditionRoutingRules(app_, ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_),
               "invalid edition routing rule action; Error Status Code=500");
  odd->type = REJECT;  // freed as what it was made
}

TEST_F(WorkClasses, ThePermittedEditionIsTheRequestsOwnCopy) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  KyrRule* r = rule(wc, "default", nullptr, "permit:shop-edition2.0");
  kyrRuleSetExpr(r, "true");
  const char* edition = evaluateAppEditionRoutingRules(app_, ctx_);
  // A delta may replace the action while the request goes on with its decision.
  EXPECT_TRUE(rmEditionRoutingRuleSetPropStr(r, "action", "permit:shop-edition3.0"));
  EXPECT_STREQ(edition, "2.0");
}

TEST_F(WorkClasses, AWebPatternIsItsWorkClassAndTakesNoProperty) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  void* pattern = rmWebPatternCreate(wc, "/webPattern/p1");
  EXPECT_EQ(pattern, wc);
  EXPECT_FALSE(rmWebPatternSetPropStr(pattern, "pattern", "/shop/*"));
  EXPECT_FALSE(rmWebPatternSetPropInt(pattern, "order", 1));
  EXPECT_FALSE(rmWebPatternSetPropBool(pattern, "enabled", true));
  rmWebPatternInit(pattern);
  rmWebPatternDelete(pattern);
  EXPECT_EQ(app_->defaultWebRouteWorkClass, wc);  // untouched by its patterns
}

}  // namespace
