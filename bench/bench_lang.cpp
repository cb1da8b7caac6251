// Rule language: parsing a routing rule once (when routing data arrives), evaluating it (for
// every request), and finding the first matching rule of a work class's set of 20. The rules
// run against the test language's toy request, on a real handle's trace context with the
// default specification, so the per-rule trace checks are in the measured path. The BM_Http*
// figures are the same rule in the handle's HTTP language against a request context, whose
// operands read the request through the host's callbacks.
#include <benchmark/benchmark.h>

#include <string>

#include "../tests/lang/langTestLanguage.h"
#include "../tests/support/kyrTestHost.h"
#include "core/kyr.h"
#include "lang/kyrRule.h"

namespace {

constexpr const char* kRule = "uri like '/trade/*' and cookie$JSESSIONID is not null";

void printNothing(TrContext*, va_list) {}

// A handle with its output discarded.
Kyr* quietHandle(kyrtest::TestHost& host) {
  host.env.trace.printf = printNothing;
  return host.create();
}

// A handle (for its trace manager and context), the test language and one rule set.
class RuleBench {
 public:
  RuleBench() : kyr_(quietHandle(host_)), lang_(kyr::langtest::createTestLanguage()) {
    rules_ = kyr::kyrRulesCreate(lang_, kyr_);
    request_.uri = "/trade/buy";
    request_.cookies["JSESSIONID"] = "0001ABCD:clone1";
  }
  ~RuleBench() {
    kyr::kyrRulesFree(rules_);
    kyr::langFree(lang_);
    kyrDestroy(kyr_);
  }
  RuleBench(const RuleBench&) = delete;
  RuleBench& operator=(const RuleBench&) = delete;

  kyr::KyrRule* add(const char* text, int order) {
    kyr::KyrRule* rule = kyr::kyrRuleCreate(rules_);
    kyr::kyrRuleSetOrder(rule, order);
    kyr::kyrRuleSetExpr(rule, text);
    kyr::kyrRulesInsertRule(rules_, rule);
    return rule;
  }
  TrContext* trCtx() { return kyrGetTrContext(kyr_); }

  kyrtest::TestHost host_;
  Kyr* kyr_;
  kyr::Language* lang_;
  kyr::KyrRules* rules_ = nullptr;
  kyr::langtest::TestRequest request_;
};

void BM_RuleParse(benchmark::State& state) {
  RuleBench b;
  kyr::KyrRule* rule = kyr::kyrRuleCreate(b.rules_);
  for (auto _ : state) benchmark::DoNotOptimize(kyr::kyrRuleSetExpr(rule, kRule));
  kyr::kyrRuleFree(rule);
}
BENCHMARK(BM_RuleParse);

// Target: at most 300 ns per evaluation.
void BM_RuleEvaluate(benchmark::State& state) {
  RuleBench b;
  kyr::KyrRule* rule = b.add(kRule, 1);
  TrContext* ctx = b.trCtx();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kyr::kyrRuleMatches(ctx, rule, &b.request_));
  }
}
BENCHMARK(BM_RuleEvaluate);

// 19 rules that do not match the request and a default that does: the whole set is walked.
void BM_FindMatchingRule20(benchmark::State& state) {
  RuleBench b;
  for (int i = 1; i < 20; ++i) {
    std::string text =
        "uri like '/app" + std::to_string(i) + "/*' and cookie$JSESSIONID is not null";
    b.add(text.c_str(), i);
  }
  kyr::KyrRule* dflt = b.add("true", kyr::kKyrRuleDefaultOrder);
  TrContext* ctx = b.trCtx();
  for (auto _ : state) {
    kyr::KyrRule* found = kyr::kyrRulesFindMatchingRule(ctx, b.rules_, &b.request_);
    if (found != dflt) state.SkipWithError("wrong rule");
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_FindMatchingRule20);

// The handle's HTTP language and one request context over a test-host request that the rule
// matches; the context stays obtained for the whole run, as during one request.
class HttpRuleBench {
 public:
  HttpRuleBench() : kyr_(quietHandle(host_)) {
    rules_ = kyr::kyrRulesCreate(kyr::kyrGetHttpLanguage(kyr_), kyr_);
    request_.path = "/trade/buy";
    request_.cookies["JSESSIONID"] = "0001ABCD:clone1";
    ctx_ = kyrHttpContextObtain(kyr_, &request_);
  }
  ~HttpRuleBench() {
    kyrHttpContextRelease(ctx_);
    kyr::kyrRulesFree(rules_);
    kyrDestroy(kyr_);
  }
  HttpRuleBench(const HttpRuleBench&) = delete;
  HttpRuleBench& operator=(const HttpRuleBench&) = delete;

  kyrtest::TestHost host_;
  Kyr* kyr_;
  kyr::KyrRules* rules_ = nullptr;
  EnvHttpContext request_;
  KyrHttpContext* ctx_ = nullptr;
};

void BM_HttpRuleParse(benchmark::State& state) {
  HttpRuleBench b;
  kyr::KyrRule* rule = kyr::kyrRuleCreate(b.rules_);
  for (auto _ : state) benchmark::DoNotOptimize(kyr::kyrRuleSetExpr(rule, kRule));
  kyr::kyrRuleFree(rule);
}
BENCHMARK(BM_HttpRuleParse);

void BM_HttpRuleEvaluate(benchmark::State& state) {
  HttpRuleBench b;
  kyr::KyrRule* rule = kyr::kyrRuleCreate(b.rules_);
  kyr::kyrRuleSetExpr(rule, kRule);
  TrContext* ctx = kyrHttpContextGetTrContext(b.ctx_);
  for (auto _ : state) {
    if (!kyr::kyrRuleMatches(ctx, rule, b.ctx_)) state.SkipWithError("rule does not match");
  }
  kyr::kyrRuleFree(rule);
}
BENCHMARK(BM_HttpRuleEvaluate);

}  // namespace
