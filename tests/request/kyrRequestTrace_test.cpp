// Conditional trace specifications: a request that matches a request-trace rule traces with
// that rule's specification, every other request with the default.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/kyr.h"
#include "lang/kyrRule.h"
#include "request/kyrHttpContext.h"
#include "support/kyrTestHost.h"
#include "trace/trSpec.h"

namespace {

class RequestTrace : public ::testing::Test {
 protected:
  void SetUp() override { kyr_ = host_.create(); }
  void TearDown() override { kyrDestroy(kyr_); }

  // The level the request's own trace context allows for "http.request.process".
  int requestLevel(EnvHttpContext& request) {
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &request);
    TrSpec* spec = trContextGetSpec(kyrHttpContextGetTrContext(ctx));
    int level = kyr::trSpecGetMaxLevel(spec, trRecordGet(kyr_->trMgr, "http.request.process"));
    trSpecRefRelease(spec);
    kyrHttpContextRelease(ctx);
    return level;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
};

TEST_F(RequestTrace, OnlyMatchingRequestsTraceWithTheRulesSpecification) {
  ASSERT_EQ(kyrSetTraceSpecification(kyr_, "support/5", ":NOTICE,http:DEBUG",
                                     "header$X-Trace = 'on'"),
            0);
  EnvHttpContext plain;
  EnvHttpContext traced;
  traced.headers["X-Trace"] = "on";
  EXPECT_EQ(requestLevel(traced), TR_LEVEL_DEBUG);
  EXPECT_LT(requestLevel(plain), TR_LEVEL_DEBUG);
  EXPECT_EQ(kyr::kyrRuleGetOrder(static_cast<kyr::KyrRule*>(
                kyr::kyrListEleGetObject(kyr::kyrListGetHead(kyr_->requestTraceRules->rules)))),
            5);
}

TEST_F(RequestTrace, NamedSpecificationsAreCheckedLikeTheDefault) {
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "x", nullptr, "true"), -3);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "x", "nosuch.record:DEBUG", "true"), -4);
  // A condition that does not parse leaves a rule that never matches.
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "x", ":NOTICE,http:DEBUG", "port = = 1"), 0);
  EnvHttpContext request;
  EXPECT_LT(requestLevel(request), TR_LEVEL_DEBUG);
  // Without a condition the rule matches every request and sorts last.
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "all/1", ":NOTICE,http:DEBUG", nullptr), 0);
  EXPECT_EQ(requestLevel(request), TR_LEVEL_DEBUG);
}

TEST_F(RequestTrace, ConcurrencyRequestsObtainContextsWhileRulesAreAdded) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> requests;
  for (int t = 0; t < 2; ++t) {
    requests.emplace_back([&] {
      EnvHttpContext request;
      request.headers["X-Trace"] = "on";
      while (!stop) kyrHttpContextRelease(kyrHttpContextObtain(kyr_, &request));
    });
  }
  for (int i = 0; i < 200; ++i) {
    std::string name = "rule/" + std::to_string(i);
    ASSERT_EQ(kyrSetTraceSpecification(kyr_, name.c_str(), ":NOTICE,http:DEBUG",
                                       "header$X-Trace = 'on'"),
              0);
  }
  stop = true;
  for (auto& t : requests) t.join();
}

}  // namespace
