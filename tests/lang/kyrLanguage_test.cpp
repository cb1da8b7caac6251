// Language core: registry and duplicate refusal, reduction by registration order, lists and
// their errors, operand arguments in every form with each argument-list error, selectable
// values, constants and contexts, evaluation contexts and their properties.
#include <gtest/gtest.h>

#include <cstring>

#include "lang/langTestSupport.h"
#include "runtime/kyrLibUtil.h"

namespace kyr::langtest {
namespace {

TEST_F(LangTest, DuplicateOperandIsRefusedWithoutRegardToCase) {
  Operand* dup = operandCreate("TRUE", 0, nullptr, 0, nullptr, operands::createPlain, nullptr,
                               operands::evaluateUri, nullptr, 1, EXPR_STRING);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(langRegisterOperand(lang_, dup));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\n** KYR_ERROR(kyrLanguage): langRegisterOperand - Operand with name TRUE is "
            "already registered.  Redundant one ignored.");
  operandFree(dup);
  EXPECT_EQ(truth("true"), true) << "the first registration stays";
}

TEST_F(LangTest, DuplicateOperatorIsRefusedWithoutRegardToCase) {
  Operator* dup = operatorCreate("and", EXPR_BOOLEAN, nullptr, nullptr, nullptr, 1,
                                 tokenInputElementCreate("X"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(langRegisterOperator(lang_, dup));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "\n** KYR_ERROR(kyrLanguage): langRegisterOperator - Operator with name and is "
            "already registered.  Redundant one ignored.");
  operatorFree(dup);
}

TEST_F(LangTest, OperandsAndKeywordsIgnoreCase) {
  EXPECT_EQ(truth("TRUE"), true);
  EXPECT_EQ(truth("tRuE aNd True"), true);
  EXPECT_EQ(truth("URI Like '/*'"), true);
  EXPECT_EQ(operandGetName(langFindOperand(lang_, "PERCENTAGE")), std::string("percentage"));
}

TEST_F(LangTest, FieldSeparatorDefaultsToDollarAndCanBeReplaced) {
  EXPECT_STREQ(langGetFieldSeparator(lang_), "$");
  langSetFieldSeparator(lang_, ":");
  TestRequest r;
  r.cookies["a"] = "1";
  EXPECT_EQ(truth("cookie:a = '1'", r), true);
  langSetFieldSeparator(lang_, nullptr);
  EXPECT_EQ(langGetFieldSeparator(lang_), nullptr);
  EXPECT_EQ(parse("cookie$a = '1'").error, "Identifier is unknown to language ");
}

TEST_F(LangTest, RegistryGettersAndCopies) {
  EXPECT_EQ(formalArgCreate(nullptr, ARG_INT, nullptr, 0, nullptr), nullptr);
  Operand* port = langFindOperand(lang_, "port");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(operandGetNumReturnTypes(port), 1);
  EXPECT_EQ(operandGetReturnTypes(port)[0], EXPR_INT);
  EXPECT_EQ(operandGetNumReturnTypes(nullptr), 0);
  char a[] = "x";
  char* args[] = {a, nullptr};
  OperandInstanceInfo* info = operandInstanceInfoCreate(port, 2, args);
  a[0] = 'y';  // the info holds copies
  EXPECT_STREQ(operandInstanceInfoGetActualArg(info, 0), "x");
  EXPECT_EQ(operandInstanceInfoGetActualArg(info, 1), nullptr);
  EXPECT_EQ(operandInstanceInfoGetActualArg(info, 2), nullptr);
  EXPECT_EQ(operandInstanceInfoGetNumActualArgs(info), 2);
  EXPECT_EQ(operandInstanceInfoGetOperand(info), port);
  EXPECT_NE(operandInstanceInfoGetActualArgs(info), nullptr);
  EXPECT_EQ(operandInstanceInfoGetNumActualArgs(nullptr), -1);
  operandInstanceInfoFree(info);
  SelectableValue* sv = selectableValueCreate("GET", 4);
  EXPECT_STREQ(sv->string, "GET");
  EXPECT_STREQ(sv->key, "GET");
  EXPECT_EQ(sv->intValue, 4);
  selectableValueFree(sv);
  sv = selectableValueStrCreate("GET", "HTTPLang.Operand.HttpGet");
  EXPECT_STREQ(sv->key, "HTTPLang.Operand.HttpGet");
  EXPECT_EQ(sv->intValue, 0);
  selectableValueFree(sv);
}

TEST_F(LangTest, BetweenWinsOverAndBecauseItIsRegisteredFirst) {
  Parsed p = parse("port between 1 and 100");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(operatorName(p.expr.get()), "IntBetweenInt");
  EXPECT_EQ(truth("port between 1 and 100"), true);
  EXPECT_EQ(truth("port between 81 and 100"), false);
}

TEST_F(LangTest, EqualStandingOperatorsGroupLeftToRight) {
  Parsed p = parse("true and false or true");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(operatorName(p.expr.get()), "OR");
  EXPECT_EQ(operatorName(inputOf(p.expr.get(), 0)), "AND");
  EXPECT_EQ(truth("true and false or true"), true);
  // "or" before "and" still reduces first: (true or true) and false.
  EXPECT_EQ(truth("true or true and false"), false);
  EXPECT_EQ(truth("true or (true and false)"), true);
}

TEST_F(LangTest, ReductionExampleFromTheRuleText) {
  Parsed p = parse("uri like '/trade/*' and cookie$JSESSIONID is not null");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(operatorName(p.expr.get()), "AND");
  EXPECT_EQ(operatorName(inputOf(p.expr.get(), 0)), "StringLikeString");
  EXPECT_EQ(operatorName(inputOf(p.expr.get(), 1)), "IsNotNull");
  TestRequest r;
  r.uri = "/trade/buy";
  EXPECT_EQ(truth("uri like '/trade/*' and cookie$JSESSIONID is not null", r), false);
  r.cookies["JSESSIONID"] = "abc";
  EXPECT_EQ(truth("uri like '/trade/*' and cookie$JSESSIONID is not null", r), true);
}

TEST_F(LangTest, GroupWithoutOperatorsIsAList) {
  Parsed p = parse("('a')");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetType(p.expr.get()), EXPR_LIST);
  ASSERT_EQ(kyrListGetCount(expressionGetListValue(p.expr.get())), 1);
  p = parse("(1, 2, 3)");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(kyrListGetCount(expressionGetListValue(p.expr.get())), 3);
  p = parse("(true and false)");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(operatorName(p.expr.get()), "AND") << "a group with an operator is not a list";
}

TEST_F(LangTest, SingletonListsAreUnwrappedForComparison) {
  TestRequest r;
  r.uri = "a";
  EXPECT_EQ(truth("('a') = uri", r), true);
  EXPECT_EQ(truth("((('a'))) = uri", r), true);
  EXPECT_EQ(truth("(5) between (1) and 9"), true);
  EXPECT_EQ(truth("('b') = uri", r), false);
}

TEST_F(LangTest, EmptyGroupIsNotAHomogeneousList) {
  testing::internal::CaptureStderr();
  Parsed p = parse("()");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(p.error, "List types must be homogeneous.");
  EXPECT_EQ(p.position, 0);
  EXPECT_EQ(p.indicator, "");
  EXPECT_NE(err.find("langGetExpression returned NULL; Unable to reduce expression. 0 elements."),
            std::string::npos);
}

TEST_F(LangTest, MixedListIsRefused) {
  EXPECT_EQ(parse("(1, 'a')").error, "List types must be homogeneous.");
  EXPECT_EQ(parse("(1, 2L)").error, "List types must be homogeneous.");
  EXPECT_EQ(parse("(true, false)").error, "List types must be homogeneous.")
      << "operands in lists are typed only at the end of the group";
}

TEST_F(LangTest, OperatorInsideAListIsRefused) {
  testing::internal::CaptureStderr();
  Parsed p = parse("(port = 1, port = 2)");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(p.error, "Found an operator when expecting a list.");
  EXPECT_EQ(p.position, 0);
  EXPECT_EQ(p.indicator, "");
  EXPECT_NE(err.find(" Syntax error: Found an operator when expecting a list."), std::string::npos);
}

TEST_F(LangTest, UnreducibleTextGivesNoExpressionAndNoSyntaxError) {
  testing::internal::CaptureStderr();
  Parsed p = parse("uri uri");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(p.expr);
  EXPECT_EQ(p.error, "");
  EXPECT_NE(err.find("Unable to reduce expression. 2 elements."), std::string::npos);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parse("uri =").expr);
  EXPECT_FALSE(parse("=").expr) << "a lone keyword gives no expression";
  testing::internal::GetCapturedStderr();
}

TEST_F(LangTest, LoneOperandBecomesAnExpressionOfTheRequestedType) {
  Parsed p = parse("multi", EXPR_INT);
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetType(p.expr.get()), EXPR_INT);
  EXPECT_EQ(p.expr->embodiment, EXPR_IS_OPERAND);
}

TEST_F(LangTest, OperandWithSeveralReturnTypesServesWhateverThePatternWants) {
  EXPECT_EQ(truth("multi = 7"), true);
  EXPECT_EQ(truth("multi = '7'"), true);
  // STRING_IN_LIST is registered before INT_IN_LIST, so `multi` serves as a text here and
  // the integer items are not looked at.
  EXPECT_EQ(truth("multi in (6, 7)"), false);
  EXPECT_EQ(truth("multi in ('7')"), true);
}

TEST_F(LangTest, IntegersAndLongsAcceptEachOther) {
  EXPECT_EQ(truth("port = 80L"), true);
  EXPECT_EQ(truth("5L between 1 and 10L"), true);
  EXPECT_EQ(truth("2L in (1, 2)"), true);
}

TEST_F(LangTest, NumbersConvertWithoutOverflowCheck) {
  Parsed p = parse("4294967297", EXPR_INT);  // 2^32 + 1 wraps through the int conversion
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetType(p.expr.get()), EXPR_INT);
  p = parse("123L", EXPR_LONG);
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetLongValue(p.expr.get()), 123L);
}

TEST_F(LangTest, DollarFormArguments) {
  EXPECT_EQ(truth("arg2$a$b = 'a|b'"), true);
  EXPECT_EQ(truth("arg2$$a$$b$ = 'a|b'"), true) << "runs of separators count as one";
  EXPECT_EQ(parse("arg2$a").error, "Missing arguments for operand.");
  EXPECT_EQ(parse("arg2$a$b$c").error, "Too many arguments for operand.");
  EXPECT_EQ(parse("true$x").error, "Too many arguments for operand.");
  Parsed p = parse("cookie$a$b = 'x'");
  EXPECT_EQ(p.error, "Too many arguments for operand.");
  EXPECT_EQ(p.position, 10);
}

TEST_F(LangTest, PositionalArguments) {
  EXPECT_EQ(truth("arg2('a', b) = 'a|b'"), true);
  EXPECT_EQ(truth("arg2('1') = '1|null'"), true);
  TestRequest r;
  r.cookies["x y"] = "v";
  EXPECT_EQ(truth("cookie('x y') = 'v'", r), true);
}

TEST_F(LangTest, NamedArgumentsLandInTheirFormalSlots) {
  EXPECT_EQ(truth("arg2(second='b', first='a') = 'a|b'"), true);
  EXPECT_EQ(truth("arg2(FIRST=a) = 'a|null'"), true);
  EXPECT_EQ(truth("arg2(first=>a) = 'a|null'"), true) << "only the first character must be =";
}

TEST_F(LangTest, NamedArgumentForALaterSlotAloneIsDropped) {
  // One argument written keeps one slot, and slot 0 is empty: deliberately so.
  EXPECT_EQ(truth("arg2(second='b') = 'null|null'"), true);
}

TEST_F(LangTest, EmptyArgumentListGivesAnOperandWithoutArguments) {
  testing::internal::CaptureStderr();
  Parsed p = parse("cookie() is null");
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(p.error, "");
  EXPECT_FALSE(p.expr) << "the cookie operand refuses to be built without its argument";
}

struct ArgumentError {
  const char* text;
  const char* message;
  int position;
};

TEST_F(LangTest, EveryArgumentListErrorWithItsPosition) {
  const ArgumentError cases[] = {
      {"cookie = 'x'", "Missing arguments", 8},
      {"cookie", "Missing arguments", 7},
      {"arg2('a',)", "Missing argument after comma", 10},
      {"cookie(1)", "Invalid argument list", 8},
      {"cookie(()", "Invalid argument list", 8},
      {"arg2(first='a', 'b')", "Mixed format argument lists are not allowed", 19},
      {"arg2('a', second='b')", "Mixed format argument lists are not allowed", 16},
      {"cookie(name 'x')", "Expecting = in expression", 15},
      {"cookie(name=", "Missing right-hand side to = in expression", 13},
      {"cookie(name=(", "Invalid right-hand side in argument list", 13},
      {"cookie(name=1)", "Invalid right-hand side in argument list", 13},
      {"cookie(bogus='x')", "Unrecognized argument name.", 12},
      {"arg2(first='a' second", "Expecting a comma", 21},
      {"arg2(first='a'", "Unexpected end of argument list - missing right parenthesis", 15},
      {"cookie(", "Missing right parenthesis in argument list: ", 8},
      {"arg2('a',", "Missing right parenthesis in argument list: ", 10},
      {"cookie('a'", "Unclosed argument list: ", 11},
      {"cookie('a','b')", "Expression has no end", 14},
  };
  for (const auto& c : cases) {
    Parsed p = parse(c.text);
    EXPECT_EQ(p.error, c.message) << c.text;
    EXPECT_EQ(p.position, c.position) << c.text;
    EXPECT_FALSE(p.expr) << c.text;
  }
}

TEST_F(LangTest, EveryStructuralSyntaxError) {
  const ArgumentError cases[] = {
      {"(true", "Expecting right parentheses", 6},
      {"((true)", "Expecting right parentheses", 8},
      {"true)", "Unmatched right parentheses", 5},
      {"bogus = 1", "Identifier is unknown to language ", 5},
      {"$", "Identifier is unknown to language ", 1},
      {"(true true, 1)", "Unresolved list element", 11},
      {"(=, 1)", "Empty expression before comma", 3},
      {", 1", "Unresolved list element", 1},
  };
  for (const auto& c : cases) {
    Parsed p = parse(c.text);
    EXPECT_EQ(p.error, c.message) << c.text;
    EXPECT_EQ(p.position, c.position) << c.text;
  }
}

TEST_F(LangTest, HundredFieldsAreTooMany) {
  std::string ninetyNine = "arg2";
  for (int i = 1; i < 99; ++i) ninetyNine += "$f";
  EXPECT_EQ(parse(ninetyNine.c_str()).error, "Too many arguments for operand.");
  std::string hundred = ninetyNine + "$f";
  EXPECT_EQ(parse(hundred.c_str()).error, "Too many fields in this expression token.");
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

TEST_F(LangTest, DeepNestingIsBounded) {
  std::string deep(5000, '(');
  Parsed p = parse(deep.c_str());
  EXPECT_EQ(p.error, "Too many nested parentheses");
  std::string ok = std::string(100, '(') + "'a'" + std::string(100, ')') + " = 'a'";
  EXPECT_EQ(truth(ok.c_str()), true);
}

TEST_F(LangTest, ParseNeedsALanguageAndATokenizer) {
  Tokenizer* t = tokenizerCreate("true");
  EXPECT_EQ(langParse(nullptr, t, 0, EXPR_BOOLEAN, nullptr), nullptr);
  EXPECT_EQ(langParse(lang_, nullptr, 0, EXPR_BOOLEAN, nullptr), nullptr);
  tokenizerFree(t);
}

TEST_F(LangTest, ContextsRecordTypePassbackDepthAndPosition) {
  int marker = 0;
  Parsed p = parseWith(lang_, "port = (80)", EXPR_BOOLEAN, &marker);
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(expressionGetPassback(p.expr.get()), &marker);
  EXPECT_EQ(expressionGetLanguage(p.expr.get()), lang_);
  EXPECT_EQ(expressionGetType(p.expr.get()), EXPR_BOOLEAN);
  EXPECT_EQ(p.expr->exprCtx->exprCtxType, EXPRCTX_OPERATOR);
  EXPECT_EQ(p.expr->exprCtx->depth, 0);
  EXPECT_EQ(p.expr->exprCtx->exprPos, 8);  // reduced once the group opened at "(" was pushed
  Expression* port = inputOf(p.expr.get(), 0);
  EXPECT_EQ(port->embodiment, EXPR_IS_OPERAND);
  EXPECT_EQ(expressionGetType(port), EXPR_INT);
  Expression* eighty = inputOf(p.expr.get(), 1);
  EXPECT_EQ(eighty->embodiment, EXPR_IS_CONSTANT);
  EXPECT_EQ(eighty->exprCtx->depth, 1);
  EXPECT_EQ(expressionGetIntegerValue(eighty), 80);
  EXPECT_EQ(operatorContextGetNumInputs(static_cast<OperatorContext*>(p.expr->exprCtx)), 2);
  EXPECT_EQ(inputOf(p.expr.get(), 2), nullptr);
  EXPECT_EQ(operatorContextGetNumInputs(nullptr), 0);
  EXPECT_EQ(expressionContextGetPassback(p.expr->exprCtx), &marker);
  EXPECT_EQ(expressionContextGetLanguage(p.expr->exprCtx), lang_);
}

TEST_F(LangTest, OperandContextsHoldArgumentCopies) {
  Parsed p = parse("arg2$x$y", EXPR_STRING);
  ASSERT_TRUE(p.expr);
  auto* ctx = static_cast<OperandContext*>(p.expr->exprCtx);
  EXPECT_EQ(operandContextGetNumArguments(ctx), 2);
  EXPECT_STREQ(operandContextGetArgument(ctx, 1), "y");
  EXPECT_EQ(operandContextGetArgument(ctx, 2), nullptr);
  EXPECT_EQ(operandContextGetNumArguments(nullptr), 0);
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
  static EvalValue evaluateTrue(const Evaluable*, EvaluationContext*) {
    return EvalValue::ofBoolean(true);
  }
  static bool validate(Operand*, Operator*, Expression* expr) {
    lastValidated = expr;
    ++validations;
    return false;  // deliberately ignored
  }
  void SetUp() override {
    lang_ = createTestLanguage();
    SelectableValue* values[] = {selectableValueCreate("LOW", 1), selectableValueCreate("High", 3)};
    langRegisterOperand(
        lang_, operandCreate("level", 2, values, 0, nullptr, operands::createPlain, nullptr,
                             operands::evaluatePort, validate, 1, EXPR_INT));
    langRegisterOperator(
        lang_, operatorCreate("IntPair", EXPR_BOOLEAN, createPair, destroyPair, evaluateTrue, 2,
                              typeInputElementCreate(EXPR_INT), typeInputElementCreate(EXPR_INT)));
    validations = 0;
  }
  void TearDown() override { langFree(lang_); }

  Language* lang_ = nullptr;
  static inline int validations = 0;
  static inline Expression* lastValidated = nullptr;
};

TEST_F(SelectableValueTest, TextDirectlyAfterTheOperandSelectsItsValue) {
  Parsed p = parseWith(lang_, "level 'high'");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(operatorName(p.expr.get()), "IntPair");
  Expression* converted = inputOf(p.expr.get(), 1);
  EXPECT_EQ(expressionGetType(converted), EXPR_INT);
  EXPECT_EQ(expressionGetIntegerValue(converted), 3);
  EXPECT_EQ(validations, 1);
  EXPECT_EQ(lastValidated, converted);
}

TEST_F(SelectableValueTest, UnknownTextDoesNotMatch) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parseWith(lang_, "level 'medium'").expr);
  testing::internal::GetCapturedStderr();
}

TEST_F(SelectableValueTest, OnlyTheEntryDirectlyBelowIsLookedAt) {
  // Deliberately strict: with the keyword between them the text does not select a value.
  testing::internal::CaptureStderr();
  EXPECT_FALSE(parseWith(lang_, "level = 'high'").expr);
  testing::internal::GetCapturedStderr();
}

TEST_F(SelectableValueTest, ValidatorSeesExpressionsAfterTheOperand) {
  Parsed p = parseWith(lang_, "level = 5");
  ASSERT_TRUE(p.expr);
  EXPECT_EQ(validations, 1);
  EXPECT_EQ(lastValidated, inputOf(p.expr.get(), 1));
}

TEST(ExpressionConstants, GettersAndSettersOfEachKind) {
  ExpressionOrigin origin{nullptr, nullptr, 0, 1, "x"};
  ExprPtr i(integerConstantCreate(4, origin));
  ExprPtr l(longConstantCreate(5L, origin));
  ExprPtr s(stringConstantCreate("a", origin));
  ExprPtr b(booleanConstantCreate(true, origin));
  ExprPtr list(listExpressionCreate(kyrListCreateDbg(expressionDestroy), origin));
  expressionSetIntegerValue(i.get(), 6);
  expressionSetLongValue(l.get(), 7L);
  expressionSetStringValue(s.get(), "b");
  expressionSetBooleanValue(b.get(), false);
  EXPECT_EQ(expressionGetIntegerValue(i.get()), 6);
  EXPECT_EQ(expressionGetLongValue(l.get()), 7L);
  EXPECT_STREQ(expressionGetStringValue(s.get()), "b");
  EXPECT_FALSE(expressionGetBooleanValue(b.get()));
  expressionSetStringValue(s.get(), nullptr);
  EXPECT_EQ(expressionGetStringValue(s.get()), nullptr);
  KyrList* items = kyrListCreateDbg(expressionDestroy);
  kyrListAddTail(items, integerConstantCreate(1, origin));
  expressionSetListValue(list.get(), items);
  EXPECT_EQ(expressionGetListValue(list.get()), items);
  // A setter of another kind leaves the expression alone.
  expressionSetIntegerValue(s.get(), 9);
  EXPECT_EQ(expressionGetIntegerValue(s.get()), 0);
  EXPECT_TRUE(expressionIsList(list.get()));
  EXPECT_FALSE(expressionIsList(i.get()));
}

TEST(ExpressionConstants, EvaluateToTheirValues) {
  ExpressionOrigin origin{nullptr, nullptr, 0, 1, "x"};
  ExprPtr s(stringConstantCreate("txt", origin));
  LocalEvaluationContext ec(nullptr, nullptr, nullptr);
  EvalValue v = expressionEvaluate(s.get(), ec.get());
  ASSERT_TRUE(v.isString());
  EXPECT_STREQ(v.string(), "txt");
  EXPECT_FALSE(expressionEvaluate(s.get(), nullptr).present());
  EXPECT_FALSE(expressionEvaluate(nullptr, ec.get()).present());
}

TEST(ExpressionErrors, SetReplaceAndClear) {
  ExpressionOrigin origin{nullptr, nullptr, 0, 1, "x"};
  ExprPtr e(booleanConstantCreate(true, origin));
  EXPECT_FALSE(expressionIsError(e.get()));
  EXPECT_TRUE(expressionIsError(nullptr));
  expressionSetError(e.get(), "one");
  expressionSetError(e.get(), "two");
  EXPECT_TRUE(expressionIsError(e.get()));
  EXPECT_STREQ(expressionGetErrorMessage(e.get()), "two");
  expressionClearError(e.get());
  EXPECT_FALSE(expressionIsError(e.get()));
}

TEST(LangNames, TypesAndEntriesPrintTheirNames) {
  EXPECT_STREQ(expressionTypeToString(EXPR_BOOLEAN), "EXPR_BOOLEAN");
  EXPECT_STREQ(expressionTypeToString(EXPR_INT), "EXPR_INT");
  EXPECT_STREQ(expressionTypeToString(EXPR_LONG), "EXPR_LONG");
  EXPECT_STREQ(expressionTypeToString(EXPR_STRING), "EXPR_STRING");
  EXPECT_STREQ(expressionTypeToString(EXPR_LIST), "EXPR_LIST");
  EXPECT_STREQ(expressionTypeToString(EXPR_UNKNOWN), "EXPR_UNKNOWN");
  EXPECT_STREQ(expressionTypeToString(42), "EXPR_UNKNOWN");
  EXPECT_STREQ(elementEntryTypeToString(eet_OperandInstanceInfo), "eet_OperandInstanceInfo");
  EXPECT_STREQ(elementEntryTypeToString(eet_Identifier), "eet_Identifier");
  EXPECT_STREQ(elementEntryTypeToString(eet_Expression), "eet_Expression");
  EXPECT_STREQ(elementEntryTypeToString(eet_Unknown), "eet_Unknown");
}

TEST(EvaluationContextProps, SetFindReplaceAndDestroy) {
  int before = kyrGetMemCount();
  EvaluationContext* ec = evaluationContextCreate(nullptr, &before);
  EXPECT_EQ(evaluationContextGetObject(ec), &before);
  EXPECT_EQ(evaluationContextGetObject(nullptr), nullptr);
  EXPECT_EQ(evaluationContextFindProp(ec, nullptr), nullptr);
  EvaluationContextProp* a = evaluationContextSetProp(ec, "a", kyrStrdup("1"));
  evaluationContextSetProp(ec, "b", kyrStrdup("2"));
  EXPECT_EQ(evaluationContextSetProp(ec, "a", kyrStrdup("3")), a) << "replaced in place";
  EXPECT_STREQ(static_cast<char*>(evaluationContextFindPropVal(ec, "a")), "3");
  EXPECT_EQ(evaluationContextFindPropVal(ec, "A"), nullptr) << "names are case-sensitive";
  EXPECT_EQ(kyrListEleGetObject(evaluationContextFindProp(ec, nullptr)), a);
  EXPECT_STREQ(evaluationContextPropGetName(a), "a");
  // Values are not freed with the context: their owner frees them.
  kyrFree(evaluationContextFindPropVal(ec, "a"));
  kyrFree(evaluationContextFindPropVal(ec, "b"));
  evaluationContextFree(ec);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST(LangMemory, ParseEvaluateAndFreeLeaveTheCounterWhereItWas) {
  int before = kyrGetMemCount();
  Language* lang = createTestLanguage();
  const char* texts[] = {"uri like '/trade/*' and cookie$JSESSIONID is not null",
                         "('a') = uri",
                         "'a' + 'b' = 'ab'",
                         "port in (80, 443) or arg2(second=x, first=y) = 'y|x'",
                         "(1, 'a')",
                         "(port = 1, port = 2)",
                         "cookie('a','b')",
                         "uri uri",
                         "rampup('*/*/*/*/09:00:00', '*/*/*/*/17:00:00') or percentage$50"};
  testing::internal::CaptureStderr();
  for (const char* text : texts) {
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
