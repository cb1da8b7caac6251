// Rules and rule sets: order with stable insertion (the first match wins, so order is routing),
// parse errors kept on the rule for the administrator, removal and purge, attached objects
// freed by rule type, the trace a set writes, and threads searching one set together.
#include "lang/kyrRule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "lang/kyrAction.h"
#include "lang/langTestLanguage.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"
#include "trace/trSpec.h"

namespace kyr::langtest {
namespace {

class RulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    lang_ = createTestLanguage();
    rules_ = kyrRulesCreate(lang_, nullptr);
  }
  void TearDown() override {
    kyrRulesFree(rules_);
    langFree(lang_);
  }

  KyrRule* inserted(const char* text, int order = kKyrRuleDefaultOrder) {
    KyrRule* r = kyrRuleCreate(rules_);
    EXPECT_TRUE(kyrRuleSetExpr(r, text)) << text;
    if (order != kKyrRuleDefaultOrder) kyrRuleSetOrder(r, order);
    kyrRulesInsertRule(rules_, r);
    return r;
  }
  std::vector<KyrRule*> ruleOrder() const {
    std::vector<KyrRule*> out;
    for (KyrListEle* e = kyrListGetHead(rules_->rules); e != nullptr; e = kyrListGetNext(e)) {
      out.push_back(static_cast<KyrRule*>(kyrListEleGetObject(e)));
    }
    return out;
  }

  Language* lang_ = nullptr;
  KyrRules* rules_ = nullptr;
};

TEST_F(RulesTest, EqualOrdersKeepInsertionOrderDefaultGoesLastAndRemovalIsByIdentity) {
  KyrRule* dflt = inserted("true");
  KyrRule* fiveA = inserted("true", 5);
  KyrRule* one = inserted("true", 1);
  KyrRule* fiveB = inserted("true", 5);
  EXPECT_EQ(ruleOrder(), (std::vector<KyrRule*>{one, fiveA, fiveB, dflt}));
  EXPECT_EQ(kyrRulesRemoveRule(rules_, fiveA), fiveA);
  EXPECT_EQ(kyrRulesRemoveRule(rules_, fiveA), nullptr);
  kyrRuleFree(fiveA);
  kyrRuleFree(one);  // freeing an inserted rule takes it out of its set
  EXPECT_EQ(ruleOrder(), (std::vector<KyrRule*>{fiveB, dflt}));
}

// Rules are edited in place: each text replaces the expression and the error of the one before,
// and a rule keeps its error for the administrator and never matches.
TEST_F(RulesTest, EachTextReplacesTheExpressionAndTheError) {
  struct Row {
    const char* text;
    const char* message;  // null: no error
    int position;
    const char* indicator;
  } rows[] = {
      {"'abc", "Literal has no terminating character.", 5, "    ^"},
      {"port = 80", nullptr, -1, nullptr},
      {"uri = bogus", "Identifier is unknown to language ", 11, "          ^"},
      {"uri =", "kyrRule: Internal Error - no expression created.", 0, "^"},  // did not reduce
      {nullptr, nullptr, 0, nullptr},  // no text: no expression, but no error either
  };
  KyrRule* r = kyrRuleCreate(rules_);
  TestRequest req;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text != nullptr ? row.text : "null");
    testing::internal::CaptureStderr();
    EXPECT_EQ(kyrRuleSetExpr(r, row.text), row.message == nullptr);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(kyrRuleIsError(r), row.message != nullptr);
    EXPECT_STREQ(kyrRuleGetError(r), row.message);
    EXPECT_EQ(kyrRuleGetErrorPosition(r), row.position);
    EXPECT_STREQ(kyrRuleGetErrorPositionIndicatorString(r), row.indicator);
    EXPECT_STREQ(kyrRuleGetExpressionString(r), row.text != nullptr ? row.text : "NULL");
    EXPECT_EQ(kyrRuleMatches(nullptr, r, &req), row.position == -1);
  }
  kyrRuleFree(r);
}

TEST_F(RulesTest, ResultThatIsNotABooleanMatchesByItsFirstWord) {
  KyrRule* r = inserted("port");
  TestRequest req;
  EXPECT_TRUE(kyrRuleMatches(nullptr, r, &req));
  req.port = 0;
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, &req));
}

// A work-class rule owns its action, a health-policy rule only points at its owner's object;
// purging and freeing the set free the rules as their types say.
TEST_F(RulesTest, PurgeAndFreeDeleteTheRulesWithTheObjectsTheyOwn) {
  int before = kyrGetMemCount();
  KyrRules* set = kyrRulesCreate(lang_, nullptr);
  char* owned = kyrStrdup("the owner's");
  for (KyrRuleType type : {KYRRULETYPE_WEBROUTEWORKCLASS, KYRRULETYPE_HEALTHPOLICY}) {
    KyrRule* r = kyrRuleCreate(set);
    kyrRuleSetExpr(r, "uri like '/a/*'");
    kyrRuleSetType(r, type);
    kyrRuleSetObject(r, type == KYRRULETYPE_HEALTHPOLICY ? static_cast<void*>(owned)
                                                         : actionCreate("reject:503"));
    kyrRulesInsertRule(set, r);
  }
  kyrRulesPurge(set);
  EXPECT_TRUE(kyrListIsEmpty(set->rules));
  EXPECT_STREQ(owned, "the owner's");
  kyrFree(owned);
  KyrRule* r = kyrRuleCreate(set);
  kyrRuleSetExpr(r, "true");
  kyrRulesInsertRule(set, r);
  kyrRulesFree(set);
  EXPECT_EQ(kyrGetMemCount(), before);
}

// A rule set on a real handle with every record enabled; the handle traces to stderr.
class TracedRulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    trContextSetSpec(kyrGetTrContext(kyr_), trSpecCreate(kyrGetTrMgr(kyr_), nullptr));
    lang_ = createTestLanguage();
    rules_ = kyrRulesCreate(lang_, kyr_);
    kyrRulesSetType(rules_, KYRRULESTYPE_WEBROUTEWORKCLASS);
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    kyrRulesFree(rules_);
    langFree(lang_);
    kyrDestroy(kyr_);
    trPurgeDeathRow();
    testing::internal::GetCapturedStderr();
  }
  // Whether `text` has been traced so far.
  bool traced(const std::string& text) {
    log_ += testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return log_.find(text) != std::string::npos;
  }
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  Language* lang_ = nullptr;
  KyrRules* rules_ = nullptr;
  std::string log_;
};

// What an administrator reads about a rule that does not parse: the failure when it is set,
// and the rule with its error in the set's dump after each change.
TEST_F(TracedRulesTest, ParseFailureIsTracedAndShownInTheDump) {
  KyrRule* bad = kyrRuleCreate(rules_);
  kyrRuleSetOrder(bad, 3);
  EXPECT_FALSE(kyrRuleSetExpr(bad, "'abc"));
  EXPECT_TRUE(
      traced("Rule expression ''abc' failed to parse at position 5: "
             "Literal has no terminating character."));
  kyrRulesInsertRule(rules_, bad);
  EXPECT_TRUE(
      traced("kyrRule: Rule 3: type=UNKNOWN expr=''abc' Error Message: Literal has no "
             "terminating character., position=5\n"));
}

// Request threads walk one published rule set at the same time; expressions are read-only and
// each evaluation has its own context, so they share nothing writable.
TEST(RuleConcurrency, ThreadsEvaluateOneSetTogether) {
  Language* lang = createTestLanguage();
  KyrRules* rules = kyrRulesCreate(lang, nullptr);
  const char* texts[] = {"uri like '/a/*' and cookie$JSESSIONID is not null",
                         "uri + '!' = '/b!' or port in (443, 8443)", "percentage$50 and true"};
  std::vector<KyrRule*> byOrder;
  for (int i = 0; i < 3; ++i) {
    byOrder.push_back(kyrRuleCreate(rules));
    kyrRuleSetOrder(byOrder[i], i);
    kyrRuleSetExpr(byOrder[i], texts[i]);
    kyrRulesInsertRule(rules, byOrder[i]);
  }
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      TestRequest req;
      req.uri = t % 2 == 0 ? "/a/x" : "/b";
      req.cookies["JSESSIONID"] = "s";
      KyrRule* expected = byOrder[t % 2];
      for (int i = 0; i < 2000; ++i) {
        if (kyrRulesFindMatchingRule(nullptr, rules, &req) != expected) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  kyrRulesFree(rules);
  langFree(lang);
}

}  // namespace
}  // namespace kyr::langtest
