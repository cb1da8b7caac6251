// Common operators and operands: true and false cases of every operator including missing and
// null operands, registration order, the wildcard scan, time specifications and windows with a
// fixed clock, ramp-up, and percentage draws with a fixed random source.
#include <gtest/gtest.h>

#include <ctime>

#include "lang/kyrLangHooks.h"
#include "lang/kyrLangTime.h"
#include "lang/kyrWildcard.h"
#include "lang/langTestSupport.h"

namespace kyr::langtest {
namespace {

struct Case {
  const char* text;
  bool expected;
};

// The request every operator case runs against: a path, one cookie, port 80.
TestRequest standardRequest() {
  TestRequest r;
  r.uri = "/trade/buy";
  r.cookies["JSESSIONID"] = "abc";
  return r;
}

class CommonOperators : public LangTest {
 protected:
  void expect(std::initializer_list<Case> cases) {
    TestRequest r = standardRequest();
    for (const Case& c : cases) EXPECT_EQ(truth(c.text, r), c.expected) << c.text;
  }
};

TEST_F(CommonOperators, OperatorsAreRegisteredInTheirFixedOrder) {
  const char* names[] = {"IntEqualsInt",
                         "IntNotEqualsInt",
                         "StringEqualsString",
                         "StringEqualsIgnoreCaseString",
                         "StringNotEqualsString",
                         "StringLikeString",
                         "StringLikeIgnoreCaseString",
                         "BooleanEqualsBoolean",
                         "BooleanNotEqualsBoolean",
                         "IntGreaterthanInt",
                         "IntLessthanInt",
                         "IntGreaterthanEqualToInt",
                         "IntLessthanEqualToInt",
                         "IntBetweenInt",
                         "AND",
                         "OR",
                         "NOT",
                         "STRING_IN_LIST",
                         "STRING_LIKE_IN_LIST",
                         "INT_IN_LIST",
                         "StringConcatString",
                         "IsNull",
                         "IsNullList",
                         "IsNotNull",
                         "IsNotNullList"};
  ASSERT_EQ(kyrListGetCount(lang_->operators), 25);
  int i = 0;
  for (KyrListEle* e = kyrListGetHead(lang_->operators); e != nullptr; e = kyrListGetNext(e)) {
    EXPECT_STREQ(static_cast<Operator*>(kyrListEleGetObject(e))->name, names[i++]);
  }
}

TEST_F(CommonOperators, OperandsAreRegisteredInTheirFixedOrder) {
  Language* lang = langCreate(nullptr, nullptr);
  langRegisterCommonOperands(lang);
  const char* names[] = {"true", "false", "percentage", "time", "rampup", "nulloperand"};
  ASSERT_EQ(kyrListGetCount(lang->operands), 6);
  int i = 0;
  for (KyrListEle* e = kyrListGetHead(lang->operands); e != nullptr; e = kyrListGetNext(e)) {
    EXPECT_STREQ(operandGetName(static_cast<Operand*>(kyrListEleGetObject(e))), names[i++]);
  }
  langFree(lang);
}

TEST_F(CommonOperators, IntegerComparisons) {
  expect({{"1 = 1", true},
          {"1 = 2", false},
          {"port = 80", true},
          {"1 <> 2", true},
          {"1 <> 1", false},
          {"2 > 1", true},
          {"1 > 1", false},
          {"1 < 2", true},
          {"2 < 2", false},
          {"2 >= 2", true},
          {"1 >= 2", false},
          {"2 <= 2", true},
          {"3 <= 2", false},
          {"port > 79", true},
          {"port < 80", false}});
}

TEST_F(CommonOperators, BetweenIncludesBothBounds) {
  expect({{"3 between 3 and 5", true},
          {"5 between 3 and 5", true},
          {"4 BETWEEN 3 AND 5", true},
          {"2 between 3 and 5", false},
          {"6 between 3 and 5", false}});
}

TEST_F(CommonOperators, TextComparisonsAreFalseForMissingOrNullTexts) {
  expect({{"'a' = 'a'", true},
          {"'a' = 'A'", false},
          {"uri = '/trade/buy'", true},
          {"nulloperand = 'x'", false},
          {"cookie$missing = 'x'", false},
          {"'abc' equalsignorecase 'ABC'", true},
          {"'abc' EqualsIgnoreCase 'abd'", false},
          {"nulloperand equalsignorecase nulloperand", false},
          {"'a' <> 'b'", true},
          {"'a' <> 'a'", false},
          {"nulloperand <> 'x'", false},
          {"cookie$missing <> 'x'", false}});
}

TEST_F(CommonOperators, LikeUsesTheWildcardScan) {
  expect({{"'/trade/x' like '/trade/*'", true},
          {"'/TRADE/x' like '/trade/*'", false},
          {"'/TRADE/x' LIKEIGNORECASE '/trade/*'", true},
          {"'/x' likeignorecase '/y*'", false},
          {"uri like '%buy'", true},
          {"nulloperand like '*'", false},
          {"cookie$missing likeignorecase '*'", false}});
}

TEST_F(CommonOperators, BooleanLogic) {
  expect({{"true = true", true},
          {"true = false", false},
          {"true <> false", true},
          {"false <> false", false},
          {"true and true", true},
          {"true and false", false},
          {"false or true", true},
          {"false or false", false},
          {"not false", true},
          {"not true", false},
          {"not not true", true},
          {"true and false or true", true}});
}

TEST_F(CommonOperators, ListMembershipLooksOnlyAtItemsOfItsOwnType) {
  expect({{"'a' in ('a','b')", true},
          {"'c' in ('a','b')", false},
          {"'a' in ('a')", true},
          {"'1' in (1, 2)", false},
          {"nulloperand in ('a')", false},
          {"cookie$missing in ('a','b')", false},
          {"'/a/b' likein ('/x/*', '/a/*')", true},
          {"'/c' likein ('/x/*', '/a/*')", false},
          {"cookie$missing likein ('*')", false},
          {"2 in (1,2)", true},
          {"3 in (1,2)", false},
          {"port in (80, 443)", true},
          {"port in ('80')", false}});
}

TEST_F(CommonOperators, ListOperatorsFailSafeOnATextDeliveredAsAList) {
  expect({{"'admins' in gids", false}, {"gids is null", false}, {"gids is not null", false}});
}

TEST_F(CommonOperators, ConcatenationBuildsAFreshTextOrNull) {
  expect({{"'a' + 'b' = 'ab'", true},
          {"'a' + 'b' = 'a'", false},
          {"uri + '?x' = '/trade/buy?x'", true},
          {"nulloperand + 'b' is null", true},
          {"cookie$missing + 'b' is null", true},
          {"'a' + 'b' + 'c' = 'abc'", true}});
}

TEST_F(CommonOperators, NullTestsDistinguishANullTextFromNoResult) {
  expect({{"nulloperand is null", true},
          {"uri is null", false},
          {"cookie$missing is null", false},  // no result at all: every operator is false
          {"uri is not null", true},
          {"cookie$JSESSIONID is not null", true},
          {"nulloperand is not null", false},
          {"cookie$missing is not null", false},
          {"emptylist is null", true},
          {"('a','b') is null", false},
          {"('a','b') is not null", true},
          {"emptylist is not null", false}});
}

TEST_F(CommonOperators, UriWithoutValueMakesEveryComparisonFalse) {
  TestRequest r;
  r.uri = nullptr;
  for (const char* text : {"uri = 'x'", "uri <> 'x'", "uri like '*'", "uri is null",
                           "uri is not null", "uri in ('x')"}) {
    EXPECT_EQ(truth(text, r), false) << text;
  }
}

TEST_F(CommonOperators, OperatorsNeedAnEvaluationContext) {
  Parsed p = parse("true and true");
  ASSERT_TRUE(p.expr);
  EXPECT_FALSE(expressionEvaluate(p.expr.get(), nullptr).present());
}

TEST(Wildcard, SingleResumeScan) {
  struct W {
    const char* target;
    const char* pattern;
    bool matches;
  } cases[] = {
      {"/trade/x", "/trade/*", true},
      {"x.jsp", "*.jsp", true},
      {"/trade", "/trade/*", false},
      {"aaab", "*aab", false},
      {"mississippi", "*issip*", false},
      {"abc", "abc", true},
      {"abc", "ab", false},
      {"ab", "abc", false},
      {"", "", true},
      {"", "*%*", true},
      {"abc", "%", true},
      {"abc", "a%c", true},
      {"a*c", "a*c", true},
      {"xyz", "*y*", true},
      {"abcbd", "*bd", true},
      {"abc", "*", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(wildcardTextCompare(c.target, c.pattern, true), c.matches)
        << c.target << " vs " << c.pattern;
  }
}

TEST(Wildcard, CaseFoldingOnlyWhenAskedAndOnlyAtoZ) {
  EXPECT_FALSE(wildcardTextCompare("ABC", "abc", true));
  EXPECT_TRUE(wildcardTextCompare("ABC", "a*c", false));
  EXPECT_TRUE(wildcardTextCompare("abc", "A*C", false));
  EXPECT_FALSE(wildcardTextCompare("\xc3\x89", "\xc3\xa9", false));
  EXPECT_FALSE(wildcardTextCompare(nullptr, "*", true));
}

// A fixed local time for the `time` and `rampup` operands, and a fixed random source.
class TimeOperands : public LangTest {
 protected:
  static time_t localTime(int year, int month, int day, int hour, int min, int sec) {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    tm.tm_isdst = -1;
    return mktime(&tm);
  }
  static time_t fixedClock() { return now; }
  static int fixedRandom() { return nextRandom; }
  static int countingRandom() { return nextRandom++; }

  void SetUp() override {
    LangTest::SetUp();
    langSetClock(fixedClock);
    langSetRandom(fixedRandom);
    at(2024, 3, 15, 12, 30, 0);
  }
  void TearDown() override {
    langSetClock(nullptr);
    langSetRandom(nullptr);
    LangTest::TearDown();
  }
  void at(int year, int month, int day, int hour, int min, int sec) {
    now = localTime(year, month, day, hour, min, sec);
  }

  static inline time_t now = 0;
  static inline int nextRandom = 0;
};

constexpr const char* kOfficeHours = "time('*/*/*/*/09:00:00', '*/*/*/*/17:00:00')";

TEST_F(TimeOperands, WindowIsHalfOpen) {
  EXPECT_EQ(truth(kOfficeHours), true);
  at(2024, 3, 15, 9, 0, 0);
  EXPECT_EQ(truth(kOfficeHours), true);
  at(2024, 3, 15, 8, 59, 59);
  EXPECT_EQ(truth(kOfficeHours), false);
  at(2024, 3, 15, 16, 59, 59);
  EXPECT_EQ(truth(kOfficeHours), true);
  at(2024, 3, 15, 17, 0, 0);
  EXPECT_EQ(truth(kOfficeHours), false);
}

TEST_F(TimeOperands, NoWrapPastMidnight) {
  const char* night = "time('*/*/*/*/17:00:00', '*/*/*/*/09:00:00')";
  for (int hour : {0, 3, 8, 9, 12, 17, 20, 23}) {
    at(2024, 3, 15, hour, 0, 0);
    EXPECT_EQ(truth(night), false) << hour;
  }
}

TEST_F(TimeOperands, DateFieldsAndMonthNamesWithoutRegardToCase) {
  const char* day = "time(startTime='*/15/mar/2024/00:00:00', stopTime='*/16/MAR/2024/00:00:00')";
  EXPECT_EQ(truth(day), true);
  at(2024, 3, 16, 0, 0, 1);
  EXPECT_EQ(truth(day), false);
  at(2024, 3, 14, 23, 59, 59);
  EXPECT_EQ(truth(day), false);
  at(2025, 3, 15, 12, 0, 0);
  EXPECT_EQ(truth(day), false);
}

TEST_F(TimeOperands, WeekdayHasNoEffect) {
  // 2024-03-15 is a Friday; a Monday-only window is still open.
  EXPECT_EQ(truth("time('mon/*/*/*/09:00:00', 'mon/*/*/*/17:00:00')"), true);
}

TEST_F(TimeOperands, WrongArgumentCountCreatesNoExpression) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parse("time(startTime='*/*/*/*/09:00:00')").expr);
  EXPECT_FALSE(parse("rampup('x')").expr);
  EXPECT_FALSE(parse("percentage()").expr);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("\n** KYR_ERROR(kyrCommonLanguage): In operandCreateExpression_Time - "
                     "invalid number of inputs (1) - expecting 2.\n"),
            std::string::npos);
  EXPECT_NE(err.find("In operandCreateExpression_rampup - invalid number of inputs (1) - "
                     "expecting 2.\n"),
            std::string::npos);
  EXPECT_NE(err.find("In operandCreateExpression_Percent - invalid number of inputs (0) - "
                     "expecting 1.\n"),
            std::string::npos);
}

TEST_F(TimeOperands, RampupRisesAcrossItsWindow) {
  const char* ramp = "rampup('*/15/Mar/2024/12:00:00', '*/15/Mar/2024/13:00:00')";
  // At 12:30 a random second of the hour before 12:30 passes: r % 3600 < 1800.
  for (int r : {0, 1799, 3600, 3600 + 1799}) {
    nextRandom = r;
    EXPECT_EQ(truth(ramp), true) << r;
  }
  for (int r : {1800, 3599, 3600 + 1800}) {
    nextRandom = r;
    EXPECT_EQ(truth(ramp), false) << r;
  }
  nextRandom = 0;
  at(2024, 3, 15, 11, 59, 59);
  EXPECT_EQ(truth(ramp), false) << "before the window";
  at(2024, 3, 15, 13, 0, 0);
  EXPECT_EQ(truth(ramp), false) << "after the window";
}

TEST_F(TimeOperands, RampupOfNoLengthAnswersFalse) {
  // The open day and month fill in as 31 December for the length, but are skipped in the
  // window test, so the window is open while its length is 0.
  const char* ramp = "rampup('*/*/*/*/10:00:00', '*/31/Dec/*/10:00:00')";
  nextRandom = 12345;
  EXPECT_EQ(truth(ramp), false);
}

TEST_F(TimeOperands, PercentageZeroPassesOnceInEveryHundredAndOneDraws) {
  langSetRandom(countingRandom);
  nextRandom = 0;
  Parsed p = parse("percentage$0");
  ASSERT_TRUE(p.expr);
  LocalEvaluationContext ec(nullptr, nullptr, nullptr);
  int passes = 0;
  for (int i = 0; i < 101 * 50; ++i) passes += expressionEvaluate(p.expr.get(), ec.get()).boolean();
  EXPECT_EQ(passes, 50);
}

TEST_F(TimeOperands, PercentageHundredAlwaysPasses) {
  langSetRandom(nullptr);  // the real source
  for (const char* text : {"percentage$100", "percentage('100')", "percentage(percent='100')"}) {
    Parsed p = parse(text);
    ASSERT_TRUE(p.expr) << text;
    LocalEvaluationContext ec(nullptr, nullptr, nullptr);
    for (int i = 0; i < 1000; ++i) {
      ASSERT_TRUE(expressionEvaluate(p.expr.get(), ec.get()).boolean()) << text;
    }
  }
}

TEST_F(TimeOperands, PercentageIsTheShareOfDrawsAtMostThePercent) {
  langSetRandom(countingRandom);
  nextRandom = 0;
  Parsed p = parse("percentage$25");
  ASSERT_TRUE(p.expr);
  LocalEvaluationContext ec(nullptr, nullptr, nullptr);
  int passes = 0;
  for (int i = 0; i < 101; ++i) passes += expressionEvaluate(p.expr.get(), ec.get()).boolean();
  EXPECT_EQ(passes, 26);  // draws 0 to 25
}

TEST(TimeSpecs, FieldsParseWithOpenFieldsAtMinusOne) {
  time_op t;
  convertTimeToStruct("Fri/15/mar/2024/09:05:07", &t);
  EXPECT_EQ(t.wday, 5);
  EXPECT_EQ(t.day, 15);
  EXPECT_EQ(t.month, 2);
  EXPECT_EQ(t.year, 2024);
  EXPECT_EQ(t.hour, 9);
  EXPECT_EQ(t.min, 5);
  EXPECT_EQ(t.sec, 7);
  convertTimeToStruct("*/*/*/*/09:00", &t);
  EXPECT_EQ(t.wday, -1);
  EXPECT_EQ(t.day, -1);
  EXPECT_EQ(t.month, -1);
  EXPECT_EQ(t.year, -1);
  EXPECT_EQ(t.hour, 9);
  EXPECT_EQ(t.min, 0);
  EXPECT_EQ(t.sec, -1) << "a missing field stays open";
  convertTimeToStruct("SAT//x1/99/", &t);  // runs of separators count as one
  EXPECT_EQ(t.wday, 6);
  EXPECT_EQ(t.day, -1);
  EXPECT_EQ(t.month, -1);
  EXPECT_EQ(t.year, -1);
  convertTimeToStruct(nullptr, &t);
  EXPECT_EQ(t.hour, -1);
  EXPECT_EQ(convertTimeNum("12"), 12);
  EXPECT_EQ(convertTimeNum("12x"), -1);
  EXPECT_EQ(convertTimeNum("*"), -1);
  EXPECT_EQ(convertTimeNum("99999999999"), -1);
}

TEST(TimeSpecs, ComparisonSkipsOpenFieldsButNeverTheSecond) {
  time_op now{5, 15, 2, 2024, 12, 30, 10};
  time_op open{-1, -1, -1, -1, -1, -1, -1};
  EXPECT_TRUE(diffTimeOps(now, open));
  time_op spec = open;
  spec.hour = 13;
  EXPECT_FALSE(diffTimeOps(now, spec));
  spec.hour = 12;
  spec.min = 30;
  spec.sec = 10;
  EXPECT_TRUE(diffTimeOps(now, spec));
  spec.sec = 11;
  EXPECT_FALSE(diffTimeOps(now, spec));
  spec = open;
  spec.year = 2023;
  spec.month = 11;
  EXPECT_TRUE(diffTimeOps(now, spec)) << "the first differing field decides";
  spec = open;
  spec.wday = 6;
  spec.sec = 0;
  EXPECT_TRUE(diffTimeOps(now, spec));
}

TEST(TimeSpecs, SecondsFillOpenFieldsWithTheLatestValue) {
  time_op open{-1, -1, -1, -1, -1, -1, -1};
  time_t t = timeToNum(open);
  struct tm tm {};
  localtime_r(&t, &tm);
  time_t nowSecs = time(nullptr);
  struct tm nowTm {};
  localtime_r(&nowSecs, &nowTm);
  EXPECT_EQ(tm.tm_year, nowTm.tm_year);
  EXPECT_EQ(tm.tm_mon, 11);
  EXPECT_EQ(tm.tm_mday, 31);
  EXPECT_EQ(tm.tm_hour, 23);
  EXPECT_EQ(tm.tm_min, 59);
  EXPECT_EQ(tm.tm_sec, 59);
  time_op spec{-1, 2, 0, 2020, 3, 4, 5};
  t = timeToNum(spec);
  localtime_r(&t, &tm);
  EXPECT_EQ(tm.tm_year, 120);
  EXPECT_EQ(tm.tm_mon, 0);
  EXPECT_EQ(tm.tm_mday, 2);
  EXPECT_EQ(tm.tm_hour, 3);
}

}  // namespace
}  // namespace kyr::langtest
