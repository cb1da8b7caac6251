// Helpers for the rule-language tests: a fixture owning the test language, parse outcomes with
// the tokenizer's error, evaluation against a toy request, and a tree's operators as text.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "lang/langTestLanguage.h"

namespace kyr::langtest {

struct ExprFree {
  void operator()(Expression* e) const { expressionFree(e); }
};
using ExprPtr = std::unique_ptr<Expression, ExprFree>;

struct Parsed {
  ExprPtr expr;
  std::string error;  // empty when the tokenizer recorded none
  int position = -1;
  std::string indicator;
};

inline Parsed parseWith(Language* lang, const char* text, ExpressionType type = EXPR_BOOLEAN) {
  Tokenizer* t = tokenizerCreate(text);
  Parsed p;
  if (!tokenizerIsError(t)) p.expr.reset(langParse(lang, t, 0, type, nullptr));
  if (tokenizerIsError(t)) {
    p.error = tokenizerGetErrorMessage(t);
    p.position = tokenizerGetErrorPosition(t);
    p.indicator = tokenizerGetErrorPositionIndicatorString(t);
  }
  tokenizerFree(t);
  return p;
}

// The operator tree of `e` by internal names, e.g. "OR(AND(_,_),_)"; "_" is a constant or
// an operand. One string shows both which operators won and how they grouped.
inline std::string shape(const Expression* e) {
  if (e == nullptr || e->embodiment != EXPR_IS_OPERATOR) return "_";
  const auto* ctx = static_cast<const OperatorContext*>(e->exprCtx);
  std::string out = std::string(ctx->op->name) + "(";
  for (int i = 0; i < operatorContextGetNumInputs(ctx); ++i) {
    out += (i > 0 ? "," : "") + shape(operatorContextGetInput(ctx, i));
  }
  return out + ")";
}

class LangTest : public ::testing::Test {
 protected:
  void SetUp() override { lang_ = createTestLanguage(); }
  void TearDown() override { langFree(lang_); }

  Parsed parse(const char* text) { return parseWith(lang_, text); }

  // The rule's boolean value against `request`; nullopt when it does not parse or evaluate.
  std::optional<bool> truth(const char* text, const TestRequest& request = TestRequest{}) {
    Parsed p = parse(text);
    EXPECT_EQ(p.error, "") << text;
    if (!p.expr) return std::nullopt;
    LocalEvaluationContext ec(nullptr, nullptr, const_cast<TestRequest*>(&request));
    EvalValue v = expressionEvaluate(p.expr.get(), ec.get());
    if (!v.isBoolean()) return std::nullopt;
    return v.boolean();
  }

  // Every text must come out as `expected` against `request`; a failure names its text.
  void expectEach(bool expected, std::initializer_list<const char*> texts,
                  const TestRequest& request = TestRequest{}) {
    for (const char* text : texts) {
      SCOPED_TRACE(text);
      EXPECT_EQ(truth(text, request), expected);
    }
  }

  Language* lang_ = nullptr;
};

}  // namespace kyr::langtest
