// Conditional trace specifications the host names: their checks, and contexts obtained while
// they are added. How matching requests use them, among the routing data's own rules, is shown
// in the edition routing tests.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/routingFixture.h"

namespace {

class RequestTrace : public kyrtest::RoutingFixture {
 protected:
  // Request threads trace too, so traces go to the host's thread-safe default printer.
  RequestTrace() { host_.env.trace.printf = trDefaultPrintf; }
  int requestLevel(EnvHttpContext& r) { return kyrtest::requestTraceLevel(kyr_, obtain(r)); }
};

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
    ASSERT_EQ(
        kyrSetTraceSpecification(kyr_, name.c_str(), ":NOTICE,http:DEBUG", "header$X-Trace = 'on'"),
        0);
  }
  stop = true;
  for (auto& t : requests) t.join();
}

}  // namespace
