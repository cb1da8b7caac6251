// Tokenizer: token kinds, texts and exact positions, escapes in the working copy, the three
// syntax errors with their caret lines, the cursor, the print names and the self-test.
#include "lang/kyrTokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct Tok {
  TOKEN_TYPE type;
  std::string text;
  int position;
  bool operator==(const Tok& o) const {
    return type == o.type && text == o.text && position == o.position;
  }
};

std::ostream& operator<<(std::ostream& os, const Tok& t) {
  return os << tokenTypeToString(t.type) << "'" << t.text << "'@" << t.position;
}

// Every token including EOF (shown with an empty text).
std::vector<Tok> tokensOf(const char* expr) {
  Tokenizer* t = tokenizerCreate(expr);
  std::vector<Tok> out;
  EXPECT_FALSE(tokenizerIsError(t)) << tokenizerGetErrorMessage(t);
  while (Token* tok = tokenizerConsumeNextToken(t)) {
    out.push_back(
        {tokenGetType(tok), tokenGetString(tok) ? tokenGetString(tok) : "", tokenGetPosition(tok)});
  }
  tokenizerFree(t);
  return out;
}

struct SyntaxFailure {
  std::string message;
  int position;
  std::string indicator;
};

SyntaxFailure failureOf(const char* expr) {
  Tokenizer* t = tokenizerCreate(expr);
  EXPECT_TRUE(tokenizerIsError(t));
  EXPECT_FALSE(tokenizerHasMoreTokens(t)) << "an error leaves no tokens";
  SyntaxFailure f{
      tokenizerGetErrorMessage(t) ? tokenizerGetErrorMessage(t) : "", tokenizerGetErrorPosition(t),
      tokenizerGetErrorPositionIndicatorString(t) ? tokenizerGetErrorPositionIndicatorString(t)
                                                  : "<null>"};
  tokenizerFree(t);
  return f;
}

constexpr auto SUB = TOKEN_SUBEXPRESSION;

TEST(Tokenizer, RuleExampleGivesWordsLiteralAndEofAtTheirLastCharacters) {
  EXPECT_EQ(tokensOf("uri like '/trade/*' and cookie$JSESSIONID is not null"),
            (std::vector<Tok>{{SUB, "uri", 3},
                              {SUB, "like", 8},
                              {TOKEN_LITERAL, "/trade/*", 19},
                              {SUB, "and", 23},
                              {SUB, "cookie$JSESSIONID", 41},
                              {SUB, "is", 44},
                              {SUB, "not", 48},
                              {SUB, "null", 53},
                              {TOKEN_EOF, "", 54}}));
}

TEST(Tokenizer, EmptyAndBlankExpressionsGiveOnlyEofAfterTheLastCharacter) {
  EXPECT_EQ(tokensOf(""), (std::vector<Tok>{{TOKEN_EOF, "", 1}}));
  EXPECT_EQ(tokensOf(" \t\n "), (std::vector<Tok>{{TOKEN_EOF, "", 5}}));
}

TEST(Tokenizer, NumbersAreIntegerOrLongBySuffixOnly) {
  EXPECT_EQ(tokensOf("123,123L"), (std::vector<Tok>{{TOKEN_INTEGER, "123", 3},
                                                    {TOKEN_COMMA, ",", 4},
                                                    {TOKEN_LONG, "123L", 8},
                                                    {TOKEN_EOF, "", 9}}));
  EXPECT_EQ(tokensOf("99999999999999999999 7l"),
            (std::vector<Tok>{{TOKEN_INTEGER, "99999999999999999999", 20},
                              {TOKEN_LONG, "7l", 23},
                              {TOKEN_EOF, "", 24}}));
}

TEST(Tokenizer, SignIsNeverPartOfANumber) {
  // "-" shares its group with the digits, so "-5" is a word; "+" has a group of its own.
  EXPECT_EQ(tokensOf("-5 +3"),
            (std::vector<Tok>{
                {SUB, "-5", 2}, {SUB, "+", 4}, {TOKEN_INTEGER, "3", 5}, {TOKEN_EOF, "", 6}}));
}

TEST(Tokenizer, DigitRunEndsAtTheFirstLetter) {
  EXPECT_EQ(tokensOf("1node1$server1:colony1"),
            (std::vector<Tok>{
                {TOKEN_INTEGER, "1", 1}, {SUB, "node1$server1:colony1", 22}, {TOKEN_EOF, "", 23}}));
}

TEST(Tokenizer, GroupChangeSplitsSubexpressions) {
  EXPECT_EQ(tokensOf("a<>b"),
            (std::vector<Tok>{{SUB, "a", 1}, {SUB, "<>", 3}, {SUB, "b", 4}, {TOKEN_EOF, "", 5}}));
  EXPECT_EQ(tokensOf("x>=5"),
            (std::vector<Tok>{
                {SUB, "x", 1}, {SUB, ">=", 3}, {TOKEN_INTEGER, "5", 4}, {TOKEN_EOF, "", 5}}));
  EXPECT_EQ(tokensOf("(a,b)+c"), (std::vector<Tok>{{TOKEN_LT_PAREN, "(", 1},
                                                   {SUB, "a", 2},
                                                   {TOKEN_COMMA, ",", 3},
                                                   {SUB, "b", 4},
                                                   {TOKEN_RT_PAREN, ")", 5},
                                                   {SUB, "+", 6},
                                                   {SUB, "c", 7},
                                                   {TOKEN_EOF, "", 8}}));
  EXPECT_EQ(tokensOf("a++b"),
            (std::vector<Tok>{{SUB, "a", 1}, {SUB, "++", 3}, {SUB, "b", 4}, {TOKEN_EOF, "", 5}}));
}

TEST(Tokenizer, EscapedQuoteStaysInLiteralAndLeavesTheWorkingCopy) {
  Tokenizer* t = tokenizerCreate("'it\\'s'");
  ASSERT_FALSE(tokenizerIsError(t));
  Token* tok = tokenizerConsumeNextToken(t);
  EXPECT_EQ(tokenGetType(tok), TOKEN_LITERAL);
  EXPECT_STREQ(tokenGetString(tok), "it's");
  EXPECT_EQ(tokenGetPosition(tok), 6);  // the closing quote in "'it's'"
  EXPECT_STREQ(tokenizerGetExpressionString(t), "'it's'");
  EXPECT_EQ(tokenGetPosition(tokenizerConsumeNextToken(t)), 7);
  tokenizerFree(t);
}

TEST(Tokenizer, EscapedBlankAndBackslashStayInTheText) {
  EXPECT_EQ(tokensOf("'a\\ b\\\\c' x"),
            (std::vector<Tok>{{TOKEN_LITERAL, "a b\\c", 7}, {SUB, "x", 9}, {TOKEN_EOF, "", 10}}));
}

TEST(Tokenizer, OtherQuoteKindNeedsNoEscape) {
  EXPECT_EQ(tokensOf("'a\"b' \"c'd\""),
            (std::vector<Tok>{
                {TOKEN_LITERAL, "a\"b", 5}, {TOKEN_LITERAL, "c'd", 11}, {TOKEN_EOF, "", 12}}));
}

TEST(Tokenizer, LiteralMayBeEmptyAndHoldAnyCharacter) {
  EXPECT_EQ(
      tokensOf("'' '!*\r'"),
      (std::vector<Tok>{{TOKEN_LITERAL, "", 2}, {TOKEN_LITERAL, "!*\r", 8}, {TOKEN_EOF, "", 9}}));
}

TEST(Tokenizer, ParenthesisedListsOfLiteralsAndIntegers) {
  EXPECT_EQ(tokensOf("('a', 2)"), (std::vector<Tok>{{TOKEN_LT_PAREN, "(", 1},
                                                    {TOKEN_LITERAL, "a", 4},
                                                    {TOKEN_COMMA, ",", 5},
                                                    {TOKEN_INTEGER, "2", 7},
                                                    {TOKEN_RT_PAREN, ")", 8},
                                                    {TOKEN_EOF, "", 9}}));
}

TEST(TokenizerErrors, UnterminatedLiteralIsReportedOnePastTheEnd) {
  SyntaxFailure f = failureOf("'abc");
  EXPECT_EQ(f.message, "Literal has no terminating character.");
  EXPECT_EQ(f.position, 5);
  EXPECT_EQ(f.indicator, "    ^");
}

TEST(TokenizerErrors, TrailingEscapeIsReportedWhereItStood) {
  SyntaxFailure f = failureOf("'abc\\");
  EXPECT_EQ(f.message, "Last character in expression may not be an escape character.");
  EXPECT_EQ(f.position, 5);
}

TEST(TokenizerErrors, PositionsCountInTheWorkingCopyWithoutRemovedEscapes) {
  SyntaxFailure f = failureOf("'a\\'b\\'c");  // working copy "'a'b'c"
  EXPECT_EQ(f.message, "Literal has no terminating character.");
  EXPECT_EQ(f.position, 7);
}

TEST(TokenizerErrors, UnrecognizedCharacterIsReportedWithCaret) {
  SyntaxFailure f = failureOf("a != b");
  EXPECT_EQ(f.message, "Syntax error - unrecognized string.");
  EXPECT_EQ(f.position, 3);
  EXPECT_EQ(f.indicator, "  ^");
  EXPECT_EQ(failureOf("uri like /x*").position, 12);
  EXPECT_EQ(failureOf("a\rb").position, 2) << "carriage return is not white space";
  EXPECT_EQ(failureOf("\xc3\xa9").position, 1);
}

TEST(TokenizerErrors, ErrorKeepsTheTokenizerUsableAndFreeable) {
  Tokenizer* t = tokenizerCreate("abc def !");
  EXPECT_TRUE(tokenizerIsError(t));
  EXPECT_EQ(tokenizerPeekNextToken(t), nullptr);
  EXPECT_EQ(tokenizerConsumeNextToken(t), nullptr);
  tokenizerRewind(t);
  EXPECT_EQ(tokenizerPeekNextToken(t), nullptr);
  EXPECT_STREQ(tokenizerGetExpressionString(t), "abc def !");
  tokenizerFree(t);
}

TEST(TokenizerErrors, SyntaxErrorAtPositionZeroHasAnEmptyIndicator) {
  Tokenizer* t = tokenizerCreate("a");
  syntaxError(t, "late", 0);
  EXPECT_STREQ(tokenizerGetErrorMessage(t), "late");
  EXPECT_STREQ(tokenizerGetErrorPositionIndicatorString(t), "");
  syntaxError(t, "later", 2);  // a second error replaces the first
  EXPECT_STREQ(tokenizerGetErrorMessage(t), "later");
  EXPECT_STREQ(tokenizerGetErrorPositionIndicatorString(t), " ^");
  tokenizerFree(t);
}

TEST(TokenizerCursor, EofCountsAsATokenAndRewindStartsOver) {
  Tokenizer* t = tokenizerCreate("a");
  ASSERT_TRUE(tokenizerHasMoreTokens(t));
  EXPECT_STREQ(tokenGetString(tokenizerPeekNextToken(t)), "a");
  EXPECT_STREQ(tokenGetString(tokenizerConsumeNextToken(t)), "a");
  EXPECT_TRUE(tokenizerHasMoreTokens(t));
  EXPECT_EQ(tokenGetType(tokenizerConsumeNextToken(t)), TOKEN_EOF);
  EXPECT_FALSE(tokenizerHasMoreTokens(t));
  EXPECT_EQ(tokenizerConsumeNextToken(t), nullptr);
  EXPECT_EQ(tokenizerPeekNextToken(t), nullptr);
  tokenizerRewind(t);
  EXPECT_STREQ(tokenGetString(tokenizerConsumeNextToken(t)), "a");
  tokenizerFree(t);
}

TEST(TokenizerCursor, NullArgumentsAreHarmless) {
  EXPECT_EQ(tokenizerCreate(nullptr), nullptr);
  tokenizerFree(nullptr);
  EXPECT_TRUE(tokenizerIsError(nullptr));
  EXPECT_EQ(tokenizerGetErrorPosition(nullptr), -1);
  EXPECT_EQ(tokenizerGetErrorMessage(nullptr), nullptr);
  EXPECT_FALSE(tokenizerHasMoreTokens(nullptr));
  EXPECT_EQ(tokenGetType(nullptr), TOKEN_UNKNOWN);
  EXPECT_EQ(tokenGetString(nullptr), nullptr);
  EXPECT_EQ(tokenGetPosition(nullptr), -1);
}

TEST(TokenNames, EveryValueHasItsPrintNameAndOthersAreUnknown) {
  const char* expected[] = {"Unknown",    "EOF",         "Integer", "Long",          "LeftParen",
                            "RightParen", "Comma",       "Literal", "Subexpression", "Identifier",
                            "FieldSep",   "FwdSlash",    "Equals",  "LeftAngle",     "RightAngle",
                            "LeftSquare", "RightSquare", "Star",    "Dash",          "Period",
                            "Colon",      "Dollar",      "Plus"};
  for (int i = 0; i <= TOKEN_PLUS; ++i) EXPECT_STREQ(tokenTypeToString(i), expected[i]) << i;
  EXPECT_STREQ(tokenTypeToString(23), "Unknown");
  EXPECT_STREQ(tokenTypeToString(-1), "Unknown");
}

TEST(TokenNames, TokenToStringShowsTypeAndValue) {
  Tokenizer* t = tokenizerCreate("x");
  char buffer[64];
  EXPECT_STREQ(tokenToString(tokenizerConsumeNextToken(t), buffer, sizeof buffer),
               "{token: type=Subexpression value={x}}");
  EXPECT_STREQ(tokenToString(tokenizerConsumeNextToken(t), buffer, sizeof buffer),
               "{token: type=EOF}");
  EXPECT_STREQ(tokenToString(nullptr, buffer, sizeof buffer), "{token: NULL}");
  tokenizerRewind(t);
  EXPECT_EQ(tokenToString(tokenizerPeekNextToken(t), nullptr, 0), nullptr);
  tokenizerFree(t);
}

TEST(TokenizerPrint, DumpsExpressionErrorAndConsumesTheTokens) {
  Tokenizer* t = tokenizerCreate("a 1");
  testing::internal::CaptureStdout();
  tokenizerPrint(stdout, t);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{Tokenizer:expression=a 1,errStr=NULL,tokens={Tokens:"
            "{token: type=Subexpression value={a}}{token: type=Integer value={1}}"
            "{token: type=EOF}}}\n");
  EXPECT_FALSE(tokenizerHasMoreTokens(t));
  tokenizerFree(t);
  testing::internal::CaptureStdout();
  tokenizerPrint(stdout, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "{Tokenizer:NULL}\n");
}

TEST(TokenizerSelfTest, AllCasesPassWithoutLeaks) {
  testing::internal::CaptureStdout();
  int failures = testTokenizer();
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(failures, 0) << out;
  EXPECT_NE(out.find("TOKENIZER TESTS FINISHED WITH 0 ERRORS"), std::string::npos);
  EXPECT_NE(out.find("TEST PASS: (Expected syntax error) expr={'abc}"), std::string::npos);
  EXPECT_EQ(out.find("MEMORY LEAK"), std::string::npos);
}

TEST(TokenizerMemory, CreateAndFreeLeaveTheCounterWhereItWas) {
  int before = kyrGetMemCount();
  for (const char* expr : {"uri like '/a/*' and x$y is not null", "'abc", "a ! b", "'x\\"}) {
    tokenizerFree(tokenizerCreate(expr));
  }
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr
