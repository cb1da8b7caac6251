// The HTTP operands, evaluated in rules against a request of the test host.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/kyr.h"
#include "lang/kyrCommonLanguage.h"
#include "lang/kyrHttpLanguage.h"
#include "lang/langTestSupport.h"
#include "lang/kyrRule.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"

namespace {

char* clientHostName(EnvHttpContext*) { return const_cast<char*>("client.example.com"); }

const char* g_groups[3] = {nullptr, nullptr, nullptr};
char** groupNames(EnvHttpContext*) { return const_cast<char**>(g_groups); }

class HttpLanguage : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.env.http.request.getClientHostName = clientHostName;
    host_.env.http.request.getGroupNames = groupNames;
    kyr_ = host_.create();
    rules_ = kyr::kyrRulesCreate(kyr::kyrGetHttpLanguage(kyr_), kyr_);
    request_.virtualHost = "shop.example.com";
    request_.virtualPort = 443;
    request_.protocol = "https";
    request_.path = "/trade/buy";
  }
  void TearDown() override {
    kyr::kyrRulesFree(rules_);
    kyrDestroy(kyr_);
  }

  // Whether `text` matches the current request; false as well when it does not parse.
  bool matches(const char* text) {
    kyr::KyrRule* rule = kyr::kyrRuleCreate(rules_);
    EXPECT_TRUE(kyr::kyrRuleSetExpr(rule, text)) << text;
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &request_);
    bool result = kyr::kyrRuleMatches(kyr_->trCtx, rule, ctx);
    kyrHttpContextRelease(ctx);
    kyr::kyrRuleFree(rule);
    return result;
  }

  std::string queryParm(const char* query, const char* name) {
    char* value = kyr::getQueryParm(query, name);
    std::string s = value != nullptr ? value : "(none)";
    kyr::kyrFree(value);
    return s;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  kyr::KyrRules* rules_ = nullptr;
  EnvHttpContext request_;
};

TEST_F(HttpLanguage, QueryParametersAreFoundByPlainSubstringSearch) {
  EXPECT_EQ(queryParm("a=1&b=2", "b"), "2");
  EXPECT_EQ(queryParm("a=1&b=2", "a"), "1");
  EXPECT_EQ(queryParm("flag&x=1", "flag"), "flag");
  EXPECT_EQ(queryParm("userid=7", "id"), "7");  // not anchored at a parameter boundary
  EXPECT_EQ(queryParm("a=&b=2", "a"), "");
  EXPECT_EQ(queryParm("x", "x"), "x");
  EXPECT_EQ(queryParm("a=1", "z"), "(none)");
  EXPECT_EQ(queryParm(nullptr, "a"), "(none)");

  request_.queryString = "lang=en&page=2";
  EXPECT_TRUE(matches("queryparm$lang = 'en'"));
  EXPECT_TRUE(matches("queryparm(name='page') = '2'"));
}

TEST_F(HttpLanguage, AMissingStringMakesEveryComparisonFalseExceptForProtocol) {
  EXPECT_FALSE(matches("cookie$JSESSIONID is not null"));
  EXPECT_FALSE(matches("cookie$JSESSIONID is null"));  // no result: false, "is null" included
  request_.cookies["JSESSIONID"] = "0001:c1";
  EXPECT_TRUE(matches("cookie$JSESSIONID is not null"));
  EXPECT_TRUE(matches("cookie$JSESSIONID like '*:c1'"));

  EXPECT_TRUE(matches("protocol = 'https'"));
  host_.env.http.request.getProtocol = [](EnvHttpContext*) -> char* { return nullptr; };
  kyr_->env.http.request.getProtocol = host_.env.http.request.getProtocol;
  EXPECT_TRUE(matches("protocol is null"));  // deliberately a present null
}

TEST_F(HttpLanguage, RequestOperandsReadTheirCallbacks) {
  request_.headers["Host"] = "shop";
  request_.method = "POST";
  EXPECT_TRUE(matches("uri like '/trade/*'"));
  EXPECT_TRUE(matches("header(headerName='Host') = 'shop'"));
  EXPECT_TRUE(matches("HTTPMethod in ('GET','POST')"));
  EXPECT_TRUE(matches("port = 443 and virtualport = 443"));
  EXPECT_TRUE(matches("serverhost = 'shop.example.com' and virtualhost = 'shop.example.com'"));
  EXPECT_TRUE(matches("clientipv4 = '127.0.0.1' and clientipv6 = '127.0.0.1'"));
  EXPECT_TRUE(matches("serveripv4 = serveripv6"));
  EXPECT_FALSE(matches("uid is not null"));  // the test host has no authenticated user
}

TEST_F(HttpLanguage, ClientHostComesFromTheProxyHeaderUnlessItIsEmpty) {
  EXPECT_TRUE(matches("clienthost = 'client.example.com'"));
  request_.headers["$ZQRH"] = "";
  EXPECT_TRUE(matches("clienthost = 'client.example.com'"));
  request_.headers["$ZQRH"] = "proxy-client";
  EXPECT_TRUE(matches("clienthost = 'proxy-client'"));
}

TEST_F(HttpLanguage, GroupNamesAreATextThatListOperatorsDoNotReadAsAList) {
  EXPECT_FALSE(matches("'a' in gids$realm"));  // no groups: no result
  g_groups[0] = "a";
  g_groups[1] = "b";
  EXPECT_FALSE(matches("'a' in gids$realm"));  // "('a','b')" is a text, not a list
  g_groups[0] = g_groups[1] = nullptr;
}

TEST_F(HttpLanguage, GroupNamesAreOneTextInListNotation) {
  g_groups[0] = "admins";
  g_groups[1] = "users";
  kyr::langtest::Parsed p =
      kyr::langtest::parseWith(kyr::kyrGetHttpLanguage(kyr_), "gids$realm", kyr::EXPR_LIST);
  ASSERT_NE(p.expr, nullptr) << p.error;
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &request_);
  {
    kyr::LocalEvaluationContext ec(kyr_->trCtx, nullptr, ctx);
    kyr::EvalValue v = kyr::expressionEvaluate(p.expr.get(), ec.get());
    ASSERT_TRUE(v.isString());
    EXPECT_STREQ(v.string(), "('admins','users')");
  }
  kyrHttpContextRelease(ctx);
  // The list operators do not read the text as a list: both null tests fail safe.
  EXPECT_FALSE(matches("gids$realm is null"));
  EXPECT_FALSE(matches("gids$realm is not null"));
  g_groups[0] = g_groups[1] = nullptr;
}

TEST_F(HttpLanguage, OptionalCallbacksTheHostLacksGiveNoValue) {
  kyr_->env.http.request.getLocalAddress = nullptr;
  kyr_->env.http.request.getQueryString = nullptr;
  kyr_->env.http.request.getMethod = nullptr;
  for (const char* operand : {"serveripv4", "serveripv6", "queryparm$a", "HTTPMethod"}) {
    EXPECT_FALSE(matches((std::string(operand) + " is null").c_str())) << operand;
    EXPECT_FALSE(matches((std::string(operand) + " is not null").c_str())) << operand;
  }
}

TEST_F(HttpLanguage, TheAuthenticatedUserAndAMissingQueryParameter) {
  kyr_->env.http.request.getUserName = [](EnvHttpContext*) -> char* {
    return const_cast<char*>("alice");
  };
  EXPECT_TRUE(matches("uid = 'alice'"));
  request_.queryString = "userid=7";
  EXPECT_TRUE(matches("queryparm$id = '7'"));
  EXPECT_FALSE(matches("queryparm$lang is null"));  // absent: no value, not a null one
  EXPECT_FALSE(matches("queryparm$lang is not null"));
}

// Rules evaluated without a request context: no host, so no value, except protocol's null.
TEST_F(HttpLanguage, WithoutARequestEveryOperandIsAbsentButProtocolIsNull) {
  auto matchesNothing = [this](const char* text) {
    kyr::KyrRule* rule = kyr::kyrRuleCreate(rules_);
    EXPECT_TRUE(kyr::kyrRuleSetExpr(rule, text)) << text;
    bool result = kyr::kyrRuleMatches(kyr_->trCtx, rule, nullptr);
    kyr::kyrRuleFree(rule);
    return result;
  };
  EXPECT_FALSE(matchesNothing("uri is null"));
  EXPECT_FALSE(matchesNothing("cookie$a is null"));
  EXPECT_FALSE(matchesNothing("port = 0"));
  EXPECT_TRUE(matchesNothing("protocol is null"));
}

TEST(HttpLanguageRegistry, HttpOperandsFollowTheCommonOnesInOrder) {
  kyr::Language* common = kyr::langCreate(nullptr, nullptr);
  kyr::langRegisterCommonOperands(common);
  kyr::langRegisterCommonOperators(common);
  kyr::Language* http = kyr::langCreateHttpLanguage(nullptr, nullptr);
  auto names = [](kyr::KyrList* list, auto nameOf) {
    std::vector<std::string> out;
    for (kyr::KyrListEle* e = kyr::kyrListGetHead(list); e != nullptr; e = kyr::kyrListGetNext(e)) {
      out.push_back(nameOf(kyr::kyrListEleGetObject(e)));
    }
    return out;
  };
  auto operandName = [](void* o) { return std::string(static_cast<kyr::Operand*>(o)->name); };
  auto operatorName = [](void* o) { return std::string(static_cast<kyr::Operator*>(o)->name); };
  std::vector<std::string> expected = names(common->operands, operandName);
  for (const char* name : {"uri", "queryparm", "uid", "gids", "header", "cookie", "HTTPMethod",
                           "clienthost", "clientipv4", "clientipv6", "serverhost", "serveripv4",
                           "serveripv6", "port", "protocol", "virtualhost", "virtualport"}) {
    expected.push_back(name);
  }
  EXPECT_EQ(names(http->operands, operandName), expected);
  EXPECT_EQ(names(http->operators, operatorName), names(common->operators, operatorName));

  struct Signature {
    const char* operand;
    const char* argument;  // null: none
    kyr::ExpressionType type;
  };
  for (const Signature& s : {Signature{"queryparm", "name", kyr::EXPR_STRING},
                             Signature{"gids", "securityRealm", kyr::EXPR_LIST},
                             Signature{"header", "headerName", kyr::EXPR_STRING},
                             Signature{"cookie", "cookieName", kyr::EXPR_STRING},
                             Signature{"uri", nullptr, kyr::EXPR_STRING},
                             Signature{"port", nullptr, kyr::EXPR_INT},
                             Signature{"virtualport", nullptr, kyr::EXPR_INT}}) {
    kyr::Operand* op = kyr::langFindOperand(http, s.operand);
    ASSERT_NE(op, nullptr) << s.operand;
    ASSERT_EQ(op->numReturnTypes, 1) << s.operand;
    EXPECT_EQ(op->returnTypes[0], s.type) << s.operand;
    ASSERT_EQ(op->numFormalArgs, s.argument != nullptr ? 1 : 0) << s.operand;
    if (s.argument == nullptr) continue;
    EXPECT_STREQ(op->formalArgs[0]->name, s.argument);
    EXPECT_EQ(op->formalArgs[0]->fat, kyr::ARG_STRING);
    EXPECT_EQ(op->formalArgs[0]->defaultValue, nullptr);
  }
  kyr::Operand* method = kyr::langFindOperand(http, "httpmethod");  // names ignore case
  ASSERT_NE(method, nullptr);
  ASSERT_EQ(method->numSelectableValues, 4);
  const char* values[][2] = {{"GET", "HTTPLang.Operand.HttpGet"},
                             {"POST", "HTTPLang.Operand.HttpPost"},
                             {"PUT", "HTTPLang.Operand.HttpPut"},
                             {"DELETE", "HTTPLang.Operand.HttpDelete"}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_STREQ(method->selectableValues[i]->string, values[i][0]);
    EXPECT_STREQ(method->selectableValues[i]->key, values[i][1]);
    EXPECT_EQ(method->selectableValues[i]->intValue, 0);
  }
  kyr::langFree(http);
  kyr::langFree(common);
}

}  // namespace
