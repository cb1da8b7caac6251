// The HTTP operands, evaluated in rules against a request of the test host.
#include <gtest/gtest.h>

#include <string>

#include "core/kyr.h"
#include "lang/kyrHttpLanguage.h"
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

}  // namespace
