// Tokenizer: token kinds, texts and the exact positions that error carets rely on, escapes
// removed from the working copy, and syntax errors with their carets.
#include "lang/kyrTokenizer.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// Every token including EOF as "text@position", with the type in front unless it is a
// subexpression (the usual kind), e.g. "uri@3 Literal:/a@8 EOF@9".
std::string tokensOf(const char* expr) {
  Tokenizer* t = tokenizerCreate(expr);
  EXPECT_FALSE(tokenizerIsError(t)) << tokenizerGetErrorMessage(t);
  std::string out;
  while (Token* tok = tokenizerConsumeNextToken(t)) {
    if (!out.empty()) out += ' ';
    TOKEN_TYPE type = tokenGetType(tok);
    if (type == TOKEN_EOF) {
      out += "EOF";
    } else {
      if (type != TOKEN_SUBEXPRESSION) out += std::string(tokenTypeToString(type)) + ":";
      out += tokenGetString(tok);
    }
    out += '@' + std::to_string(tokenGetPosition(tok));
  }
  tokenizerFree(t);
  return out;
}

TEST(Tokenizer, KindsTextsAndPositions) {
  struct Row {
    const char* expr;
    const char* tokens;
  } rows[] = {
      // Positions are those of each token's last character; EOF stands one past the end.
      {"uri like '/trade/*' and cookie$JSESSIONID is not null",
       "uri@3 like@8 Literal:/trade/*@19 and@23 cookie$JSESSIONID@41 is@44 not@48 null@53 EOF@54"},
      {"", "EOF@1"},
      {"123,123L", "Integer:123@3 Comma:,@4 Long:123L@8 EOF@9"},
      {"99999999999999999999 7l", "Integer:99999999999999999999@20 Long:7l@23 EOF@24"},
      // "-" shares its group with the digits, so "-5" is a word; "+" has a group of its own.
      {"-5 +3", "-5@2 +@4 Integer:3@5 EOF@6"},
      {"1node1$server1:colony1", "Integer:1@1 node1$server1:colony1@22 EOF@23"},
      {"x>=5", "x@1 >=@3 Integer:5@4 EOF@5"},
      {"(a,b)+c", "LeftParen:(@1 a@2 Comma:,@3 b@4 RightParen:)@5 +@6 c@7 EOF@8"},
      // Escapes leave the working copy, so the positions after them count without them.
      {"'a\\ b\\\\c' x", "Literal:a b\\c@7 x@9 EOF@10"},
      {"'a\"b' \"c'd\"", "Literal:a\"b@5 Literal:c'd@11 EOF@12"},
      {"'' '!*\r'", "Literal:@2 Literal:!*\r@8 EOF@9"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expr);
    EXPECT_EQ(tokensOf(row.expr), row.tokens);
  }
}

TEST(TokenizerErrors, MessagePositionCaretNoTokensAndNoLeak) {
  struct Row {
    const char* expr;
    const char* message;
    int position;
  } rows[] = {
      {"'abc", "Literal has no terminating character.", 5},
      {"'abc\\", "Last character in expression may not be an escape character.", 5},
      {"'a\\'b\\'c", "Literal has no terminating character.", 7},  // working copy "'a'b'c"
      {"a != b", "Syntax error - unrecognized string.", 3},
      {"uri like /x*", "Syntax error - unrecognized string.", 12},
      {"a\rb", "Syntax error - unrecognized string.", 2},  // carriage return is no blank
      {"\xc3\xa9", "Syntax error - unrecognized string.", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expr);
    int before = kyrGetMemCount();
    Tokenizer* t = tokenizerCreate(row.expr);
    ASSERT_TRUE(tokenizerIsError(t));
    EXPECT_STREQ(tokenizerGetErrorMessage(t), row.message);
    EXPECT_EQ(tokenizerGetErrorPosition(t), row.position);
    EXPECT_EQ(tokenizerGetErrorPositionIndicatorString(t),
              std::string(row.position - 1, ' ') + "^");
    EXPECT_EQ(tokenizerConsumeNextToken(t), nullptr);
    tokenizerFree(t);
    EXPECT_EQ(kyrGetMemCount(), before) << "a failed tokenizer gives back all it took";
  }
}

}  // namespace
}  // namespace kyr
