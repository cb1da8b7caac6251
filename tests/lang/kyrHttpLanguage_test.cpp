// The HTTP operands, evaluated in rules against a request of the test host. A callback that
// the host lacks or that answers nothing gives no value, which makes every comparison false;
// only `protocol` answers a present null instead.
#include "lang/kyrHttpLanguage.h"

#include <gtest/gtest.h>

#include <string>

#include "core/kyr.h"
#include "lang/kyrRule.h"
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

  // Whether `text` matches the current request (or no request at all); false as well when it
  // does not parse.
  bool matches(const char* text, bool withRequest = true) {
    kyr::KyrRule* rule = kyr::kyrRuleCreate(rules_);
    EXPECT_TRUE(kyr::kyrRuleSetExpr(rule, text)) << text;
    KyrHttpContext* ctx = withRequest ? kyrHttpContextObtain(kyr_, &request_) : nullptr;
    bool result = kyr::kyrRuleMatches(kyr_->trCtx, rule, ctx);
    if (ctx != nullptr) kyrHttpContextRelease(ctx);
    kyr::kyrRuleFree(rule);
    return result;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  kyr::KyrRules* rules_ = nullptr;
  EnvHttpContext request_;
};

// A parameter is found by plain substring search, so "id" finds the value of userid, and one
// written without "=" answers its own name.
TEST_F(HttpLanguage, QueryParametersAreFoundByPlainSubstringSearch) {
  request_.queryString = "lang=en&page=2&userid=7&flag&empty=";
  for (const char* text :
       {"queryparm$lang = 'en'", "queryparm(name='page') = '2'", "queryparm$id = '7'",
        "queryparm$flag = 'flag'", "queryparm$empty = ''"}) {
    EXPECT_TRUE(matches(text)) << text;
  }
  EXPECT_FALSE(matches("queryparm$x is null"));  // absent: no value, not a null one
  EXPECT_FALSE(matches("queryparm$x is not null"));
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
  request_.cookies["JSESSIONID"] = "s";
  for (const char* text :
       {"uri like '/trade/*'", "header(headerName='Host') = 'shop'", "HTTPMethod in ('GET','POST')",
        "port = 443 and virtualport = 443", "serverhost = 'shop.example.com'",
        "virtualhost = 'shop.example.com'", "clientipv4 = '127.0.0.1'", "clientipv6 = '127.0.0.1'",
        "serveripv4 = serveripv6", "cookie(cookieName='JSESSIONID') = 's'"}) {
    EXPECT_TRUE(matches(text)) << text;
  }
  EXPECT_FALSE(matches("uid is not null"));  // the test host has no authenticated user
  kyr_->env.http.request.getUserName = [](EnvHttpContext*) -> char* {
    return const_cast<char*>("alice");
  };
  EXPECT_TRUE(matches("uid = 'alice'"));
}

TEST_F(HttpLanguage, ClientHostComesFromTheProxyHeaderUnlessItIsEmpty) {
  EXPECT_TRUE(matches("clienthost = 'client.example.com'"));
  request_.headers["$ZQRH"] = "";
  EXPECT_TRUE(matches("clienthost = 'client.example.com'"));
  request_.headers["$ZQRH"] = "proxy-client";
  EXPECT_TRUE(matches("clienthost = 'proxy-client'"));
}

// Group names arrive as one text in list notation, which the list operators do not read as a
// list: they fail safe, with groups or without.
TEST_F(HttpLanguage, GroupNamesAreOneTextInListNotation) {
  EXPECT_FALSE(matches("'a' in gids$realm"));  // no groups: no result
  g_groups[0] = "admins";
  g_groups[1] = "users";
  for (const char* text :
       {"'admins' in gids$realm", "gids$realm is null", "gids$realm is not null"}) {
    EXPECT_FALSE(matches(text)) << text;
  }
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

// Rules evaluated without a request context: no host, so no value, except protocol's null.
TEST_F(HttpLanguage, WithoutARequestEveryOperandIsAbsentButProtocolIsNull) {
  for (const char* text : {"uri is null", "cookie$a is null", "port = 0"}) {
    EXPECT_FALSE(matches(text, false)) << text;
  }
  EXPECT_TRUE(matches("protocol is null", false));
}

}  // namespace
