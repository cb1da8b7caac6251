// Work classes and edition routing rules: which work class is the default, rule order, the 500
// rejects of rules that cannot decide, and the permitted edition the request keeps. What each
// action does to a routed request is the edition routing tests' business.
#include "mapping/kyrWebRouteWorkClass.h"

#include <gtest/gtest.h>

#include <string>

#include "core/kyrRoutingInfo.h"
#include "lang/kyrAction.h"
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

// The default is recognised by its name's ending, wherever it sits.
TEST_F(WorkClasses, TheLastDefaultInitialisedWinsAndDeletingItLeavesNone) {
  WebRouteWorkClass* other = workClass("/cell/c/application/shop/webRouteWorkClass/gold");
  workClass("/x/shop_Default_HTTP_WC");
  WebRouteWorkClass* second = workClass("/y/other_Default_HTTP_WC");
  EXPECT_EQ(app_->defaultWebRouteWorkClass, second);
  EXPECT_FALSE(isDefaultWebRouteWorkClass(other));
  rmWebRouteWorkClassDelete(second);
  EXPECT_EQ(app_->defaultWebRouteWorkClass, nullptr);
}

TEST_F(WorkClasses, RulesSortByTheNumberAfterTheLastSlashAndDefaultGoesLast) {
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

TEST_F(WorkClasses, RulesThatCannotDecideReject500WithTheirReason) {
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
  } rows[] = {{"/none", "no edition routing rule match found"},
              {"/bare", "no edition routing rule action found"},
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

TEST_F(WorkClasses, ThePermittedEditionIsTheRequestsOwnCopy) {
  WebRouteWorkClass* wc = workClass("shop_Default_HTTP_WC");
  KyrRule* r = rule(wc, "default", nullptr, "permit:shop-edition2.0");
  kyrRuleSetExpr(r, "true");
  const char* edition = evaluateAppEditionRoutingRules(app_, ctx_);
  // A delta may replace the action while the request goes on with its decision.
  EXPECT_TRUE(rmEditionRoutingRuleSetPropStr(r, "action", "permit:shop-edition3.0"));
  EXPECT_STREQ(edition, "2.0");
}

}  // namespace
