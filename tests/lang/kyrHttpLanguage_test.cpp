// The HTTP operands, evaluated in rules against a request of the test host.
#include "lang/kyrHttpLanguage.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

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
// written without "=" answers its own name. Group names arrive as one text in list notation,
// which the list operators do not read as a list: they fail safe. A missing or empty proxy
// header leaves the client host to the host's callback.
TEST_F(HttpLanguage, OperandsReadTheRequestThroughTheHostsCallbacks) {
  request_.queryString = "lang=en&page=2&userid=7&flag&empty=";
  request_.headers["Host"] = "shop";
  request_.method = "POST";
  request_.cookies["JSESSIONID"] = "0001:c1";
  g_groups[0] = "admins";
  g_groups[1] = "users";
  const std::pair<const char*, bool> rows[] = {
      {"queryparm$lang = 'en'", true},
      {"queryparm(name='page') = '2'", true},
      {"queryparm$id = '7'", true},
      {"queryparm$flag = 'flag'", true},
      {"queryparm$empty = ''", true},
      {"queryparm$x is null", false},  // absent: no value, not a null one
      {"queryparm$x is not null", false},
      {"uri like '/trade/*'", true},
      {"header(headerName='Host') = 'shop'", true},
      {"HTTPMethod in ('GET','POST')", true},
      {"port = 443 and virtualport = 443", true},
      {"serverhost = 'shop.example.com' and virtualhost = 'shop.example.com'", true},
      {"clientipv4 = '127.0.0.1' and clientipv6 = '127.0.0.1'", true},
      {"serveripv4 = serveripv6", true},
      {"cookie(cookieName='JSESSIONID') like '*:c1'", true},
      {"cookie$other is null", false},  // no result: false, "is null" included
      {"cookie$other is not null", false},
      {"clienthost = 'client.example.com'", true},
      {"uid is not null", false},  // the test host has no authenticated user
      {"'admins' in gids$realm", false},
      {"gids$realm is null", false},
      {"gids$realm is not null", false},
      {"protocol = 'https'", true},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(matches(text), expected) << text;
  g_groups[0] = g_groups[1] = nullptr;
  EXPECT_FALSE(matches("'a' in gids$realm"));  // no groups: no result
  request_.headers["$ZQRH"] = "";
  EXPECT_TRUE(matches("clienthost = 'client.example.com'"));
  request_.headers["$ZQRH"] = "proxy-client";
  EXPECT_TRUE(matches("clienthost = 'proxy-client'"));
  kyr_->env.http.request.getUserName = [](EnvHttpContext*) -> char* {
    return const_cast<char*>("alice");
  };
  EXPECT_TRUE(matches("uid = 'alice'"));
}

// A callback the host lacks, or no request at all, gives no value, which makes every comparison
// false; only `protocol` deliberately answers a present null instead.
TEST_F(HttpLanguage, WithoutACallbackOrARequestOnlyProtocolAnswersANull) {
  kyr_->env.http.request.getLocalAddress = nullptr;
  kyr_->env.http.request.getQueryString = nullptr;
  kyr_->env.http.request.getMethod = nullptr;
  for (const char* operand : {"serveripv4", "serveripv6", "queryparm$a", "HTTPMethod"}) {
    EXPECT_FALSE(matches((std::string(operand) + " is null").c_str())) << operand;
    EXPECT_FALSE(matches((std::string(operand) + " is not null").c_str())) << operand;
  }
  for (const char* text : {"uri is null", "cookie$a is null", "port = 0"}) {
    EXPECT_FALSE(matches(text, false)) << text;
  }
  EXPECT_TRUE(matches("protocol is null", false));
  kyr_->env.http.request.getProtocol = [](EnvHttpContext*) -> char* { return nullptr; };
  EXPECT_TRUE(matches("protocol is null"));
}

}  // namespace
