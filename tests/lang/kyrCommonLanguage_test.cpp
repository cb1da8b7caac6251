// Common operators and operands: the true, false and null cases of every operator, the
// wildcard scan, time windows and ramp-up with a fixed clock, and percentage draws with a fixed
// random source. A missing value (no result) must make every operator false, "is null"
// included, while a present null is what "is null" looks for.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <utility>

#include "lang/kyrLangHooks.h"
#include "lang/langTestSupport.h"

namespace kyr::langtest {
namespace {

// The request of the operator cases: nulloperand is a present null, cookie$missing has no
// result at all.
TestRequest tradeRequest() {
  TestRequest r;
  r.uri = "/trade/buy";
  r.cookies["JSESSIONID"] = "abc";
  return r;
}

TEST_F(LangTest, NumbersAndBooleans) {
  expectEach(true, {"1 = 1", "port = 80", "1 <> 2", "2 > 1", "1 < 2", "2 >= 2", "2 <= 2",
                    "3 between 3 and 5", "5 between 3 and 5", "true = true", "true <> false",
                    "false or true"});
  expectEach(false, {"1 = 2", "1 <> 1", "1 > 1", "2 < 2", "1 >= 2", "3 <= 2", "2 between 3 and 5",
                     "6 between 3 and 5", "true = false", "false <> false", "true and false",
                     "false or false", "not true", "true or true and false"});
}

// The wildcard scan resumes only after the last "*" and never backtracks into the target, and
// ignoring case folds A to Z alone.
TEST_F(LangTest, TextOperatorsAreFalseForANullOrMissingText) {
  const TestRequest r = tradeRequest();
  expectEach(
      true,
      {"'a' = 'a'", "'abc' equalsignorecase 'ABC'", "'a' <> 'b'", "'/trade/x' like '/trade/*'",
       "'' like '*%*'", "'abc' like 'a%c'", "'abcbd' like '*bd'",
       "'/TRADE/x' likeignorecase '/trade/*'", "'a' + 'b' + 'c' = 'abc'",
       "uri + '?x' = '/trade/buy?x'", "nulloperand + 'b' is null", "cookie$missing + 'b' is null"},
      r);
  expectEach(
      false,
      {"'a' = 'A'", "nulloperand = 'x'", "cookie$missing = 'x'", "'abc' equalsignorecase 'abd'",
       "nulloperand equalsignorecase nulloperand", "'a' <> 'a'", "nulloperand <> 'x'",
       "cookie$missing <> 'x'", "'/TRADE/x' like '/trade/*'", "'/trade' like '/trade/*'",
       "'aaab' like '*aab'", "'abc' like 'ab'", "'ab' like 'abc'", "'/x' likeignorecase '/y*'",
       "'\xc3\x89' likeignorecase '\xc3\xa9'", "nulloperand like '*'", "cookie$missing like '*'",
       "cookie$missing likeignorecase '*'"},
      r);
}

// Membership looks only at items of its own type; a text delivered where a list was declared
// (gids) makes the list operators fail safe.
TEST_F(LangTest, ListMembership) {
  const TestRequest r = tradeRequest();
  expectEach(true, {"'a' in ('a','b')", "2 in (1,2)", "'/a/b' likein ('/x/*', '/a/*')"}, r);
  expectEach(
      false,
      {"'c' in ('a','b')", "'1' in (1, 2)", "port in ('80')", "3 in (1,2)", "nulloperand in ('a')",
       "cookie$missing in ('a','b')", "'/c' likein ('/x/*', '/a/*')", "cookie$missing likein ('*')",
       "'admins' in gids", "gids is null", "gids is not null"},
      r);
}

TEST_F(LangTest, NullTestsTellANullFromNoResult) {
  const TestRequest r = tradeRequest();
  expectEach(true,
             {"nulloperand is null", "cookie$JSESSIONID is not null", "emptylist is null",
              "('a','b') is not null"},
             r);
  expectEach(false,
             {"uri is null", "cookie$missing is null", "nulloperand is not null",
              "cookie$missing is not null", "emptylist is not null", "('a','b') is null"},
             r);
}

// A fixed local time for the `time` and `rampup` operands, and a random source that counts.
class TimeOperands : public LangTest {
 protected:
  void SetUp() override {
    LangTest::SetUp();
    langSetClock([] { return now; });
    langSetRandom([] { return nextRandom++; });
    at(2024, 3, 15, 12, 30, 0);
  }
  void TearDown() override {
    langSetClock(nullptr);
    langSetRandom(nullptr);
    LangTest::TearDown();
  }
  static void at(int year, int month, int day, int hour, int min, int sec) {
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    tm.tm_isdst = -1;
    now = mktime(&tm);
  }

  static inline time_t now = 0;
  static inline int nextRandom = 0;
};

TEST_F(TimeOperands, WindowIsHalfOpenAndNeverWrapsPastMidnight) {
  const char* day = "time('*/*/*/*/09:00:00', '*/*/*/*/17:00:00')";
  const char* night = "time('*/*/*/*/17:00:00', '*/*/*/*/09:00:00')";
  struct Row {
    int hour, min, sec;
    bool inDay;
  } rows[] = {{8, 59, 59, false}, {9, 0, 0, true},   {12, 30, 0, true}, {16, 59, 59, true},
              {17, 0, 0, false},  {20, 0, 0, false}, {0, 0, 0, false},  {3, 0, 0, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.hour << ":" << row.min << ":" << row.sec);
    at(2024, 3, 15, row.hour, row.min, row.sec);
    EXPECT_EQ(truth(day), row.inDay);
    EXPECT_EQ(truth(night), false);
  }
}

TEST_F(TimeOperands, DateFieldsAndMonthNamesWithoutRegardToCaseButNoWeekday) {
  const char* day = "time(startTime='*/15/mar/2024/00:00:00', stopTime='*/16/MAR/2024/00:00:00')";
  EXPECT_EQ(truth(day), true);
  // 2024-03-15 is a Friday; the weekday has no effect, so a Monday window is still open.
  EXPECT_EQ(truth("time('mon/*/*/*/09:00:00', 'mon/*/*/*/17:00:00')"), true);
  at(2024, 3, 16, 0, 0, 1);
  EXPECT_EQ(truth(day), false);
  at(2024, 3, 14, 23, 59, 59);
  EXPECT_EQ(truth(day), false);
  at(2025, 3, 15, 12, 0, 0);
  EXPECT_EQ(truth(day), false);
}

TEST_F(TimeOperands, WrongArgumentCountCreatesNoExpression) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parse("time(startTime='*/*/*/*/09:00:00')").expr);
  EXPECT_FALSE(parse("rampup('x')").expr);
  EXPECT_FALSE(parse("percentage()").expr);
  testing::internal::GetCapturedStderr();
}

TEST_F(TimeOperands, RampupRisesAcrossItsWindow) {
  const char* ramp = "rampup('*/15/Mar/2024/12:00:00', '*/15/Mar/2024/13:00:00')";
  // At 12:30 a random second of the hour before 12:30 passes: r % 3600 < 1800.
  for (int r : {0, 1799, 3600 + 1799, 1800, 3599, 3600 + 1800}) {
    nextRandom = r;
    EXPECT_EQ(truth(ramp), r % 3600 < 1800) << r;
  }
  at(2024, 3, 15, 11, 59, 59);
  EXPECT_EQ(truth(ramp), false) << "before the window";
  at(2024, 3, 15, 13, 0, 0);
  EXPECT_EQ(truth(ramp), false) << "after the window";
}

TEST_F(TimeOperands, RampupOfNoLengthAnswersFalse) {
  // The open day and month fill in as 31 December for the length, but are skipped in the
  // window test, so the window is open while its length is 0.
  nextRandom = 12345;
  EXPECT_EQ(truth("rampup('*/*/*/*/10:00:00', '*/31/Dec/*/10:00:00')"), false);
}

// A draw passes when it is at most the percent, modulo 101: so 0 still passes once in 101
// draws and 100 always passes. Two rounds of counting draws show the modulo.
TEST_F(TimeOperands, PercentageIsTheShareOfDrawsAtMostThePercent) {
  for (auto [text, passes] : {std::pair{"percentage$0", 2},
                              {"percentage$25", 52},
                              {"percentage$100", 202},
                              {"percentage('100')", 202},
                              {"percentage(percent='100')", 202}}) {
    nextRandom = 0;
    Parsed p = parse(text);
    ASSERT_TRUE(p.expr) << text;
    LocalEvaluationContext ec(nullptr, nullptr, nullptr);
    int passed = 0;
    for (int i = 0; i < 202; ++i) passed += expressionEvaluate(p.expr.get(), ec.get()).boolean();
    EXPECT_EQ(passed, passes) << text;
  }
}

}  // namespace
}  // namespace kyr::langtest
