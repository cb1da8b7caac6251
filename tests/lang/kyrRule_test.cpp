// Rules and rule sets: default and explicit order with stable insertion, parse errors kept on
// the rule, first-match search, removal and purge, attached objects freed by rule type, type
// names, and the trace a set writes (parse errors, insertions, dumps, matches).
#include "lang/kyrRule.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
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

  KyrRule* rule(const char* text, int order = kKyrRuleDefaultOrder) {
    KyrRule* r = kyrRuleCreate(rules_);
    EXPECT_TRUE(kyrRuleSetExpr(r, text)) << text;
    if (order != kKyrRuleDefaultOrder) kyrRuleSetOrder(r, order);
    return r;
  }
  KyrRule* inserted(const char* text, int order = kKyrRuleDefaultOrder) {
    KyrRule* r = rule(text, order);
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

TEST_F(RulesTest, NewRuleHasDefaultOrderNoExpressionAndIsNotInTheSet) {
  KyrRule* r = kyrRuleCreate(rules_);
  EXPECT_EQ(kyrRuleGetOrder(r), 999800);
  EXPECT_EQ(kyrRuleGetType(r), KYRRULETYPE_UNKNOWN);
  EXPECT_EQ(kyrRuleGetErrorPosition(r), -1);
  EXPECT_EQ(kyrRuleGetExpr(r), nullptr);
  EXPECT_FALSE(kyrRuleIsError(r));
  EXPECT_EQ(kyrRuleGetRules(r), rules_);
  EXPECT_TRUE(kyrListIsEmpty(rules_->rules));
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, nullptr));
  kyrRuleFree(r);
}

TEST_F(RulesTest, EqualOrdersKeepInsertionOrderAndDefaultGoesLast) {
  KyrRule* dflt = inserted("true");
  KyrRule* fiveA = inserted("true", 5);
  KyrRule* one = inserted("true", 1);
  KyrRule* fiveB = inserted("true", 5);
  EXPECT_EQ(ruleOrder(), (std::vector<KyrRule*>{one, fiveA, fiveB, dflt}));
}

TEST_F(RulesTest, RemoveTakesTheRuleOutByIdentity) {
  KyrRule* a = inserted("true", 1);
  KyrRule* b = inserted("true", 2);
  EXPECT_EQ(kyrRulesRemoveRule(rules_, a), a);
  EXPECT_EQ(kyrRulesRemoveRule(rules_, a), nullptr);
  EXPECT_EQ(ruleOrder(), (std::vector<KyrRule*>{b}));
  kyrRuleFree(a);
  kyrRuleFree(b);  // freeing an inserted rule takes it out of its set
  EXPECT_TRUE(kyrListIsEmpty(rules_->rules));
}

TEST_F(RulesTest, NullTextIsNoExpressionButNoError) {
  KyrRule* r = kyrRuleCreate(rules_);
  EXPECT_TRUE(kyrRuleSetExpr(r, nullptr));
  EXPECT_EQ(kyrRuleGetErrorPosition(r), 0);
  EXPECT_EQ(kyrRuleGetErrorPositionIndicatorString(r), nullptr);
  EXPECT_FALSE(kyrRuleIsError(r));
  EXPECT_EQ(kyrRuleGetExpr(r), nullptr);
  EXPECT_STREQ(kyrRuleGetExpressionString(r), "NULL");
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, nullptr));
  kyrRuleFree(r);
}

TEST_F(RulesTest, TokenizerErrorIsKeptOnTheRule) {
  KyrRule* r = kyrRuleCreate(rules_);
  EXPECT_FALSE(kyrRuleSetExpr(r, "'abc"));
  EXPECT_TRUE(kyrRuleIsError(r));
  EXPECT_STREQ(kyrRuleGetError(r), "Literal has no terminating character.");
  EXPECT_EQ(kyrRuleGetErrorPosition(r), 5);
  EXPECT_STREQ(kyrRuleGetErrorPositionIndicatorString(r), "    ^");
  EXPECT_EQ(kyrRuleGetExpr(r), nullptr);
  kyrRuleFree(r);
}

TEST_F(RulesTest, ParserErrorIsKeptOnTheRule) {
  KyrRule* r = kyrRuleCreate(rules_);
  EXPECT_FALSE(kyrRuleSetExpr(r, "uri = bogus"));
  EXPECT_STREQ(kyrRuleGetError(r), "Identifier is unknown to language ");
  EXPECT_EQ(kyrRuleGetErrorPosition(r), 11);
  EXPECT_STREQ(kyrRuleGetErrorPositionIndicatorString(r), "          ^");
  kyrRuleFree(r);
}

TEST_F(RulesTest, UnreducedTextIsAnInternalErrorAndNeverMatches) {
  KyrRule* r = kyrRuleCreate(rules_);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(kyrRuleSetExpr(r, "uri ="));
  testing::internal::GetCapturedStderr();
  EXPECT_STREQ(kyrRuleGetError(r), "kyrRule: Internal Error - no expression created.");
  EXPECT_EQ(kyrRuleGetErrorPosition(r), 0);
  EXPECT_STREQ(kyrRuleGetErrorPositionIndicatorString(r), "^");
  EXPECT_STREQ(kyrRuleGetExpressionString(r), "uri =");
  TestRequest req;
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, &req));
  kyrRuleFree(r);
}

TEST_F(RulesTest, NewTextReplacesExpressionAndError) {
  KyrRule* r = kyrRuleCreate(rules_);
  EXPECT_FALSE(kyrRuleSetExpr(r, "'x"));
  EXPECT_TRUE(kyrRuleSetExpr(r, "port = 80"));
  EXPECT_FALSE(kyrRuleIsError(r));
  EXPECT_EQ(kyrRuleGetErrorPosition(r), -1);
  EXPECT_EQ(kyrRuleGetErrorPositionIndicatorString(r), nullptr);
  TestRequest req;
  EXPECT_TRUE(kyrRuleMatches(nullptr, r, &req));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(kyrRuleSetExpr(r, "port ="));
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, &req)) << "the old expression is gone";
  kyrRuleFree(r);
}

TEST_F(RulesTest, FindReturnsTheFirstMatchInOrder) {
  KyrRule* dflt = inserted("true");
  KyrRule* cookie = inserted("cookie$JSESSIONID is not null", 20);
  KyrRule* trade = inserted("uri like '/trade/*'", 10);
  TestRequest req;
  req.uri = "/trade/buy";
  req.cookies["JSESSIONID"] = "x";
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, rules_, &req), trade);
  req.uri = "/other";
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, rules_, &req), cookie);
  req.cookies.clear();
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, rules_, &req), dflt);
  kyrRuleFree(dflt);
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, rules_, &req), nullptr);
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, nullptr, &req), nullptr);
}

TEST_F(RulesTest, ResultThatIsNotABooleanMatchesByItsFirstWord) {
  KyrRule* r = rule("port");
  TestRequest req;
  EXPECT_TRUE(kyrRuleMatches(nullptr, r, &req));
  req.port = 0;
  EXPECT_FALSE(kyrRuleMatches(nullptr, r, &req));
  kyrRuleFree(r);
}

TEST_F(RulesTest, WorkClassRuleFreesItsActionAndHealthRuleLeavesItsObject) {
  int before = kyrGetMemCount();
  KyrRule* wc = inserted("true", 1);
  kyrRuleSetType(wc, KYRRULETYPE_WEBROUTEWORKCLASS);
  kyrRuleSetObject(wc, actionCreate("permit:a-edition1"));
  KyrRule* health = inserted("true", 2);
  kyrRuleSetType(health, KYRRULETYPE_HEALTHPOLICY);
  char* owned = kyrStrdup("the owner's");
  kyrRuleSetObject(health, owned);
  int application = 0;
  kyrRuleSetApplication(health, &application);
  EXPECT_EQ(kyrRuleGetApplication(health), &application);
  EXPECT_EQ(actionGetType(static_cast<Action*>(kyrRuleGetObject(wc))), PERMIT);
  kyrRuleFree(wc);
  kyrRuleFree(health);
  EXPECT_STREQ(owned, "the owner's");
  kyrFree(owned);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST_F(RulesTest, PurgeAndFreeDeleteTheRulesInTheSet) {
  int before = kyrGetMemCount();
  KyrRules* set = kyrRulesCreate(lang_, nullptr);
  for (int i = 0; i < 3; ++i) {
    KyrRule* r = kyrRuleCreate(set);
    kyrRuleSetExpr(r, "uri like '/a/*'");
    kyrRuleSetType(r, KYRRULETYPE_WEBROUTEWORKCLASS);
    kyrRuleSetObject(r, actionCreate("reject:503"));
    kyrRulesInsertRule(set, r);
  }
  kyrRulesPurge(set);
  EXPECT_TRUE(kyrListIsEmpty(set->rules));
  KyrRule* r = kyrRuleCreate(set);
  kyrRuleSetExpr(r, "true");
  kyrRulesInsertRule(set, r);
  kyrRulesFree(set);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST_F(RulesTest, TypeNamesIncludingTheDeliberateUnknowns) {
  KyrRule* r = kyrRuleCreate(rules_);
  const std::pair<KyrRuleType, const char*> ruleTypes[] = {
      {KYRRULETYPE_UNKNOWN, "UNKNOWN"},
      {KYRRULETYPE_WEBROUTEWORKCLASS, "WEBROUTEWORKCLASS"},
      {KYRRULETYPE_REQUESTTRACE, "REQUESTTRACE"},
      {KYRRULETYPE_CONTROLTRACE, "CONTROLTRACE"},
      {KYRRULETYPE_HEALTHPOLICY, "UNKNOWN!"}};
  for (const auto& [type, name] : ruleTypes) {
    kyrRuleSetType(r, type);
    EXPECT_STREQ(kyrRuleGetTypeString(r), name);
  }
  kyrRuleSetType(r, KYRRULETYPE_UNKNOWN);  // so that freeing does not look at the object
  kyrRuleFree(r);
  EXPECT_STREQ(kyrRuleGetTypeString(nullptr), "UNKNOWN-NULL");
  EXPECT_STREQ(kyrRulesGetTypeString(rules_), "UNKNOWN");
  kyrRulesSetType(rules_, KYRRULESTYPE_WEBROUTEWORKCLASS);
  EXPECT_EQ(kyrRulesGetType(rules_), KYRRULESTYPE_WEBROUTEWORKCLASS);
  EXPECT_STREQ(kyrRulesGetTypeString(rules_), "WEBROUTEWORKCLASS");
  kyrRulesSetType(rules_, KYRRULESTYPE_VQTRACESPEC);
  EXPECT_STREQ(kyrRulesGetTypeString(rules_), "VQTRACESPEC");
  kyrRulesSetType(rules_, static_cast<KyrRulesType>(7));
  EXPECT_STREQ(kyrRulesGetTypeString(rules_), "UNKNOWN!");
  EXPECT_STREQ(kyrRulesGetTypeString(nullptr), "UNKNOWN-NULL");
  EXPECT_EQ(kyrRulesGetLang(rules_), lang_);
  EXPECT_EQ(kyrRulesGetKyr(rules_), nullptr);
}

TEST_F(RulesTest, LockCanBeHeldAroundASearch) {
  KyrRule* r = inserted("true");
  kyrRulesLockObtain(rules_, "test");
  EXPECT_EQ(kyrRulesFindMatchingRule(nullptr, rules_, nullptr), r);
  kyrRulesLockRelease(rules_);
}

TEST(RuleParentWrapper, KeepsObjectAndType) {
  int owner = 0;
  KyrRuleParentWrapper* w = kyrRuleParentWrapperCreate(&owner, KYRRULEPARENTTYPE_VQTRACESPEC);
  EXPECT_EQ(kyrRuleParentWrapperGetType(w), KYRRULEPARENTTYPE_VQTRACESPEC);
  EXPECT_EQ(kyrRuleParentWrapperGetObject(w), &owner);
  kyrRuleParentWrapperDestroy(w);
  EXPECT_EQ(kyrRuleParentWrapperGetType(nullptr), KYRRULEPARENTTYPE_UNKNOWN);
  EXPECT_EQ(kyrRuleParentWrapperGetObject(nullptr), nullptr);
}

TEST(RuleSortOrder, NumberAfterTheLastSlash) {
  EXPECT_EQ(ruleNameToSortOrder("/cell/c/app/a/rules/12"), 12);
  EXPECT_EQ(ruleNameToSortOrder("34"), 34);
  EXPECT_EQ(ruleNameToSortOrder("abc"), 0);
  EXPECT_EQ(ruleNameToSortOrder(""), 0);
  EXPECT_EQ(ruleNameToSortOrder(nullptr), 0);
}

// What the host's print callback received, one formatted line per call.
std::vector<std::string>& traced() {
  static std::vector<std::string> lines;
  return lines;
}

void capture(TrContext* ctx, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof text, trContextGetFormat(ctx), args);
  traced().push_back(text);
}

// A rule set on a real handle with every record enabled.
class TracedRulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    trMgrSetPrintf(kyrGetTrMgr(kyr_), capture);
    trContextSetSpec(kyrGetTrContext(kyr_), trSpecCreate(kyrGetTrMgr(kyr_), nullptr));
    lang_ = createTestLanguage();
    rules_ = kyrRulesCreate(lang_, kyr_);
    kyrRulesSetType(rules_, KYRRULESTYPE_WEBROUTEWORKCLASS);
    traced().clear();
  }
  void TearDown() override {
    kyrRulesFree(rules_);
    langFree(lang_);
    kyrDestroy(kyr_);
    trPurgeDeathRow();
  }
  bool saw(const std::string& line) const {
    for (const auto& l : traced()) {
      if (l == line) return true;
    }
    return false;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  Language* lang_ = nullptr;
  KyrRules* rules_ = nullptr;
};

TEST_F(TracedRulesTest, RecordsAreLookedUpInTheHandlesManager) {
  EXPECT_EQ(rules_->recReqMatch,
            trMgrGetRecord(kyrGetTrMgr(kyr_), "http.request.rules.traceRuleMatch"));
  EXPECT_NE(rules_->recReqProcess, nullptr);
  EXPECT_NE(rules_->recCtrlParseError, nullptr);
  EXPECT_NE(rules_->recCtrlParseProcess, nullptr);
  EXPECT_NE(rules_->recCtrlInsert, nullptr);
  EXPECT_NE(rules_->recCtrlList, nullptr);
  EXPECT_NE(rules_->recCtrlProcess, nullptr);
  EXPECT_EQ(kyrRulesGetKyr(rules_), kyr_);
}

TEST_F(TracedRulesTest, ParseInsertDumpMatchAndRemoveAreTraced) {
  KyrRule* bad = kyrRuleCreate(rules_);
  kyrRuleSetOrder(bad, 3);
  EXPECT_FALSE(kyrRuleSetExpr(bad, "'abc"));
  EXPECT_TRUE(
      saw("Rule expression ''abc' failed to parse at position 5: "
          "Literal has no terminating character."));
  KyrRule* good = kyrRuleCreate(rules_);
  kyrRuleSetOrder(good, 5);
  EXPECT_TRUE(kyrRuleSetExpr(good, "true"));
  EXPECT_TRUE(saw("kyrRule: Parsed expression 'true' for rule #5"));
  kyrRulesInsertRule(rules_, good);
  kyrRulesInsertRule(rules_, bad);
  EXPECT_TRUE(
      saw("kyrRule: Inserting rule #5 ('true') into rules container of type "
          "WEBROUTEWORKCLASS.\n"));
  EXPECT_TRUE(saw("kyrRules: WEBROUTEWORKCLASS rules - after insertion\n"));
  EXPECT_TRUE(saw("kyrRule: Rule 5: type=UNKNOWN expr='true'\n"));
  EXPECT_TRUE(
      saw("kyrRule: Rule 3: type=UNKNOWN expr=''abc' Error Message: Literal has no "
          "terminating character., position=5\n"));
  int request = 0;
  char matched[128];
  snprintf(matched, sizeof matched, "kyrRule: Rule #5 (true) matches context %p",
           static_cast<void*>(&request));
  EXPECT_EQ(kyrRulesFindMatchingRule(kyrGetTrContext(kyr_), rules_, &request), good);
  EXPECT_TRUE(saw(matched));
  kyrRuleFree(good);
  EXPECT_TRUE(saw("kyrRule: Removing rule #5 (true)from rules object\n"));
  EXPECT_TRUE(saw("kyrRules: WEBROUTEWORKCLASS rules - after removal\n"));
  char none[128];
  snprintf(none, sizeof none, "kyrRule: No rule found matching context %p",
           static_cast<void*>(&request));
  EXPECT_EQ(kyrRulesFindMatchingRule(kyrGetTrContext(kyr_), rules_, &request), nullptr);
  EXPECT_TRUE(saw(none));
}

TEST_F(TracedRulesTest, OperatorsWriteDebugLinesToTheEvaluationRecord) {
  KyrRule* r = kyrRuleCreate(rules_);
  kyrRuleSetExpr(r, "2 between 1 and 3");
  EXPECT_TRUE(kyrRuleMatches(kyrGetTrContext(kyr_), r, nullptr));
  EXPECT_TRUE(saw("IntBetweenInt 1<=2<=3 --> TRUE\n"));
  kyrRuleFree(r);
}

TEST_F(TracedRulesTest, EvaluationContextLooksUpItsDebugRecord) {
  EvaluationContext* ec = evaluationContextCreate(kyrGetTrContext(kyr_), nullptr);
  EXPECT_EQ(evaluationContextGetTrRecord(ec), rules_->recReqProcess);
  EXPECT_EQ(evaluationContextGetTrContext(ec), kyrGetTrContext(kyr_));
  EXPECT_TRUE(evaluationContextDebugEnabled(ec));
  evaluationContextFree(ec);
}

TEST_F(TracedRulesTest, TraceRuleReleasesItsSpecification) {
  TrSpec* spec = trSpecCreate(kyrGetTrMgr(kyr_), "control:DEBUG");
  trSpecRefObtain(spec);  // the test's own reference
  KyrRule* r = kyrRuleCreate(rules_);
  kyrRuleSetType(r, KYRRULETYPE_REQUESTTRACE);
  kyrRuleSetObject(r, spec);  // hands the creation reference to the rule
  kyrRuleFree(r);
  EXPECT_EQ(trSpecRefRelease(spec), 0) << "the rule released its reference";
}

// Request threads walk one published rule set at the same time; expressions are read-only and
// each evaluation has its own context, so they share nothing writable.
TEST(RuleConcurrency, ThreadsEvaluateOneSetTogether) {
  Language* lang = createTestLanguage();
  KyrRules* rules = kyrRulesCreate(lang, nullptr);
  const char* texts[] = {"uri like '/a/*' and cookie$JSESSIONID is not null",
                         "uri + '!' = '/b!' or port in (443, 8443)", "percentage$50 and true"};
  for (int i = 0; i < 3; ++i) {
    KyrRule* r = kyrRuleCreate(rules);
    kyrRuleSetOrder(r, i);
    kyrRuleSetExpr(r, texts[i]);
    kyrRulesInsertRule(rules, r);
  }
  KyrRule* first = static_cast<KyrRule*>(kyrListEleGetObject(kyrListGetHead(rules->rules)));
  KyrRule* second =
      static_cast<KyrRule*>(kyrListEleGetObject(kyrListGetNext(kyrListGetHead(rules->rules))));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      TestRequest req;
      req.uri = t % 2 == 0 ? "/a/x" : "/b";
      req.cookies["JSESSIONID"] = "s";
      KyrRule* expected = t % 2 == 0 ? first : second;
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
