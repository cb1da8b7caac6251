// Language core: duplicate refusal, reduction by registration order, lists, operand arguments
// in every form, every syntax error with its position, the bounds on fields and nesting,
// selectable values, and evaluation-context properties.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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

TEST_F(LangTest, FieldSeparatorCanBeReplaced) {
  langSetFieldSeparator(lang_, ":");
  TestRequest r;
  r.cookies["a"] = "1";
  EXPECT_EQ(truth("cookie:a = '1'", r), true);
  langSetFieldSeparator(lang_, nullptr);
  EXPECT_EQ(parse("cookie$a = '1'").error, "Identifier is unknown to language ");
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
  Parsed p = parse("multi", EXPR_INT);
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetType(p.expr.get()), EXPR_INT);
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
      {"true$x", "Too many arguments for operand.", 6},
      {"cookie$a$b = 'x'", "Too many arguments for operand.", 10},
      {"cookie = 'x'", "Missing arguments", 8},
      {"cookie", "Missing arguments", 7},
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
      {"$", "Identifier is unknown to language ", 1},
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

// Operands and operators of a plug-in find their owner through the passback, also inside groups.
TEST_F(LangTest, PassbackAndDepthReachNestedExpressions) {
  int marker = 0;
  Parsed p = parseWith(lang_, "port = (80)", EXPR_BOOLEAN, &marker);
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetPassback(p.expr.get()), &marker);
  Expression* eighty = inputOf(p.expr.get(), 1);
  EXPECT_EQ(expressionGetPassback(eighty), &marker);
  EXPECT_EQ(eighty->exprCtx->depth, 1);
}

// A language whose operand `level` has selectable values and an operator that takes two
// integers side by side, the one shape in which a text can select an operand's value.
class SelectableValueTest : public ::testing::Test {
 protected:
  struct PairExpression : Expression {
    Expression* first;
    Expression* second;
  };
  static Expression* createPair(Operator*, OperatorContext* ctx) {
    auto* e = kyrNew<PairExpression>();
    e->first = ctx->inputs[0];
    e->second = ctx->inputs[1];
    return e;
  }
  static void destroyPair(void* object) {
    expressionFree(static_cast<PairExpression*>(object)->first);
    expressionFree(static_cast<PairExpression*>(object)->second);
  }
  static bool validate(Operand*, Operator*, Expression* expr) {
    validated.push_back(expr);
    return false;  // deliberately ignored
  }
  void SetUp() override {
    lang_ = createTestLanguage();
    SelectableValue* values[] = {selectableValueCreate("LOW", 1), selectableValueCreate("High", 3)};
    langRegisterOperand(
        lang_, operandCreate("level", 2, values, 0, nullptr, operands::createPlain, nullptr,
                             operands::evaluatePort, validate, 1, EXPR_INT));
    langRegisterOperator(
        lang_, operatorCreate("IntPair", EXPR_BOOLEAN, createPair, destroyPair, nullptr, 2,
                              typeInputElementCreate(EXPR_INT), typeInputElementCreate(EXPR_INT)));
    validated.clear();
  }
  void TearDown() override { langFree(lang_); }

  Language* lang_ = nullptr;
  static inline std::vector<Expression*> validated;
};

TEST_F(SelectableValueTest, OnlyAKnownTextDirectlyAfterTheOperandSelectsAValue) {
  Parsed p = parseWith(lang_, "level 'high'");
  ASSERT_EQ(shape(p.expr.get()), "IntPair(_,_)");
  Expression* converted = inputOf(p.expr.get(), 1);
  EXPECT_EQ(expressionGetType(converted), EXPR_INT);
  EXPECT_EQ(expressionGetIntegerValue(converted), 3);
  EXPECT_EQ(validated, std::vector<Expression*>{converted});
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parseWith(lang_, "level 'medium'").expr);
  EXPECT_FALSE(parseWith(lang_, "level = 'high'").expr);  // deliberately strict
  testing::internal::GetCapturedStderr();
}

TEST_F(SelectableValueTest, ValidatorSeesExpressionsAfterTheOperand) {
  Parsed p = parseWith(lang_, "level = 5");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(validated, std::vector<Expression*>{inputOf(p.expr.get(), 1)});
}

// Replacing a property frees the value it replaces, but freeing the context leaves the values
// to whoever set them; the memory counter catches a slip either way.
TEST(EvaluationContextProps, SetFindReplaceAndDestroy) {
  int before = kyrGetMemCount();
  EvaluationContext* ec = evaluationContextCreate(nullptr, nullptr);
  EvaluationContextProp* a = evaluationContextSetProp(ec, "a", kyrStrdup("1"));
  evaluationContextSetProp(ec, "b", kyrStrdup("2"));
  EXPECT_EQ(evaluationContextSetProp(ec, "a", kyrStrdup("3")), a) << "replaced in place";
  EXPECT_STREQ(static_cast<char*>(evaluationContextFindPropVal(ec, "a")), "3");
  EXPECT_EQ(evaluationContextFindPropVal(ec, "A"), nullptr) << "names are case-sensitive";
  kyrFree(evaluationContextFindPropVal(ec, "a"));
  kyrFree(evaluationContextFindPropVal(ec, "b"));
  evaluationContextFree(ec);
  EXPECT_EQ(kyrGetMemCount(), before);
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
    expressionEvaluate(p.expr.get(), ec.get());
  }
  testing::internal::GetCapturedStderr();
  langFree(lang);
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr::langtest
