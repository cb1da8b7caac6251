// Language core: duplicate refusal, reduction by registration order, lists, operand arguments
// in every form, every syntax error with its position, the bounds on fields and nesting, and
// the memory that parsing and evaluation give back.
#include <gtest/gtest.h>

#include <string>

#include "lang/langTestSupport.h"
#include "runtime/kyrLibUtil.h"

namespace kyr::langtest {
namespace {

TEST_F(LangTest, DuplicatesAreRefusedWithoutRegardToCaseAndTheFirstStays) {
  Operand* operand = operandCreate("TRUE", 0, nullptr, 0, nullptr, operands::createPlain, nullptr,
                                   operands::evaluateUri, nullptr, 1, EXPR_STRING);
  Operator* op = operatorCreate("and", EXPR_BOOLEAN, nullptr, nullptr, nullptr, 1,
                                tokenInputElementCreate("X"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(langRegisterOperand(lang_, operand));
  EXPECT_FALSE(langRegisterOperator(lang_, op));
  testing::internal::GetCapturedStderr();
  operandFree(operand);
  operatorFree(op);
  EXPECT_EQ(truth("true and true"), true);
}

// Patterns are tried in registration order and equal-standing operators reduce as soon as
// they are complete, so "or" before "and" groups first.
TEST_F(LangTest, TreesFollowRegistrationOrderThenLeftToRight) {
  struct Row {
    const char* text;
    const char* tree;
  } rows[] = {
      {"port between 1 and 100", "IntBetweenInt(_,_,_)"},
      {"true and false or true", "OR(AND(_,_),_)"},
      {"true or true and false", "AND(OR(_,_),_)"},
      {"true or (true and false)", "OR(_,AND(_,_))"},
      {"not not true", "NOT(NOT(_))"},
      {"uri like '/trade/*' and cookie$JSESSIONID is not null",
       "AND(StringLikeString(_,_),IsNotNull(_))"},
      {"(true and false)", "AND(_,_)"},  // a group with an operator is not a list
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    Parsed p = parse(row.text);
    EXPECT_EQ(shape(p.expr.get()), row.tree);
  }
}

TEST_F(LangTest, NamesIgnoreCaseAndSingletonListsUnwrap) {
  TestRequest r;
  r.uri = "/a";
  expectEach(true,
             {"TRUE", "tRuE aNd True", "URI Like '/*'", "('/a') = uri", "((('/a'))) = uri",
              "(5) between (1) and 9"},
             r);
  expectEach(false, {"('/b') = uri"}, r);
}

// Runs of separators count as one, and a named argument needs only its first character to be
// "=". One argument written keeps one slot, so a later slot named alone is dropped: deliberately.
TEST_F(LangTest, OperandArgumentsInEveryForm) {
  TestRequest r;
  r.cookies["x y"] = "v";
  expectEach(
      true,
      {"arg2$a$b = 'a|b'", "arg2$$a$$b$ = 'a|b'", "arg2('a', b) = 'a|b'", "arg2('1') = '1|null'",
       "cookie('x y') = 'v'", "arg2(second='b', first='a') = 'a|b'", "arg2(FIRST=a) = 'a|null'",
       "arg2(first=>a) = 'a|null'", "arg2(second='b') = 'null|null'"},
      r);
}

// An operand with several return types serves whatever the pattern wants; STRING_IN_LIST is
// registered before INT_IN_LIST, so `multi` serves as a text in a list of integers.
TEST_F(LangTest, OperandTypesFollowThePattern) {
  expectEach(true, {"multi = 7", "multi = '7'", "multi in ('7')", "port = 80L",
                    "5L between 1 and 10L", "2L in (1, 2)"});
  expectEach(false, {"multi in (6, 7)"});
}

// Every error a rule text can meet in the parser, with the position its caret points at. A
// message "" is text that does not reduce: no expression, yet no syntax error either.
TEST_F(LangTest, EverySyntaxErrorWithItsPosition) {
  struct Row {
    const char* text;
    const char* message;
    int position;
  } rows[] = {
      {"()", "List types must be homogeneous.", 0},
      {"(1, 'a')", "List types must be homogeneous.", 0},
      // Operands in lists are typed only at the end of the group.
      {"(true, false)", "List types must be homogeneous.", 0},
      {"(port = 1, port = 2)", "Found an operator when expecting a list.", 0},
      {"uri uri", "", -1},
      {"uri =", "", -1},
      {"cookie() is null", "", -1},  // the cookie operand refuses to exist without its argument
      {"arg2$a", "Missing arguments for operand.", 6},
      {"arg2$a$b$c", "Too many arguments for operand.", 10},
      {"cookie = 'x'", "Missing arguments", 8},
      {"arg2('a',)", "Missing argument after comma", 10},
      {"cookie(1)", "Invalid argument list", 8},
      {"arg2(first='a', 'b')", "Mixed format argument lists are not allowed", 19},
      {"arg2('a', second='b')", "Mixed format argument lists are not allowed", 16},
      {"cookie(name 'x')", "Expecting = in expression", 15},
      {"cookie(name=", "Missing right-hand side to = in expression", 13},
      {"cookie(name=1)", "Invalid right-hand side in argument list", 13},
      {"cookie(bogus='x')", "Unrecognized argument name.", 12},
      {"arg2(first='a' second", "Expecting a comma", 21},
      {"arg2(first='a'", "Unexpected end of argument list - missing right parenthesis", 15},
      {"cookie(", "Missing right parenthesis in argument list: ", 8},
      {"cookie('a'", "Unclosed argument list: ", 11},
      {"cookie('a','b')", "Expression has no end", 14},
      {"(true", "Expecting right parentheses", 6},
      {"true)", "Unmatched right parentheses", 5},
      {"bogus = 1", "Identifier is unknown to language ", 5},
      {"(true true, 1)", "Unresolved list element", 11},
      {"(=, 1)", "Empty expression before comma", 3},
      {", 1", "Unresolved list element", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    testing::internal::CaptureStderr();  // the reducer reports what it could not reduce
    Parsed p = parse(row.text);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(p.error, row.message);
    EXPECT_EQ(p.position, row.position);
    EXPECT_EQ(p.indicator, row.position > 0 ? std::string(row.position - 1, ' ') + "^" : "");
    EXPECT_FALSE(p.expr);
  }
}

TEST_F(LangTest, HundredFieldsAreTooMany) {
  std::string ninetyNine = "arg2";
  for (int i = 1; i < 99; ++i) ninetyNine += "$f";
  EXPECT_EQ(parse(ninetyNine.c_str()).error, "Too many arguments for operand.");
  std::string hundred = ninetyNine + "$f";
  EXPECT_EQ(parse(hundred.c_str()).error, "Too many fields in this expression token.");
}

TEST_F(LangTest, DeepNestingIsBounded) {
  std::string deep(5000, '(');
  EXPECT_EQ(parse(deep.c_str()).error, "Too many nested parentheses");
  std::string ok = std::string(100, '(') + "'a'" + std::string(100, ')') + " = 'a'";
  EXPECT_EQ(truth(ok.c_str()), true);
}

TEST_F(LangTest, RunningOutOfTokensBeforeEofIsAnInternalError) {
  Tokenizer* t = tokenizerCreate("true");
  while (tokenizerConsumeNextToken(t) != nullptr) {
  }
  EXPECT_EQ(langParse(lang_, t, 0, EXPR_BOOLEAN, nullptr), nullptr);
  EXPECT_STREQ(tokenizerGetErrorMessage(t), "INTERNAL KYR_ERROR - Ran out of tokens before EOF");
  EXPECT_EQ(tokenizerGetErrorPosition(t), 4);
  tokenizerFree(t);
}

TEST(LangMemory, ParseEvaluateAndFreeLeaveTheCounterWhereItWas) {
  int before = kyrGetMemCount();
  Language* lang = createTestLanguage();
  testing::internal::CaptureStderr();
  for (const char* text :
       {"uri like '/trade/*' and cookie$JSESSIONID is not null", "('a') = uri", "'a' + 'b' = 'ab'",
        "port in (80, 443) or arg2(second=x, first=y) = 'y|x'", "(1, 'a')", "(port = 1, port = 2)",
        "cookie('a','b')", "uri uri",
        "rampup('*/*/*/*/09:00:00', '*/*/*/*/17:00:00') or percentage$50"}) {
    Parsed p = parseWith(lang, text);
    LocalEvaluationContext ec(nullptr, nullptr, nullptr);
    expressionEvaluate(p.expr.get(), ec.get());  // also where nothing was parsed
    EXPECT_FALSE(expressionEvaluate(p.expr.get(), nullptr).present()) << "no context, no value";
  }
  testing::internal::GetCapturedStderr();
  langFree(lang);
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr::langtest
