// Helpers for the rule-language tests: a fixture owning the test language, parse outcomes with
// the tokenizer's error, evaluation against a toy request, and a look at a tree's operators.
#pragma once

#include <gtest/gtest.h>

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

inline Parsed parseWith(Language* lang, const char* text, ExpressionType type = EXPR_BOOLEAN,
                        void* passback = nullptr) {
  Tokenizer* t = tokenizerCreate(text);
  Parsed p;
  if (!tokenizerIsError(t)) p.expr.reset(langParse(lang, t, 0, type, passback));
  if (tokenizerIsError(t)) {
    p.error = tokenizerGetErrorMessage(t);
    p.position = tokenizerGetErrorPosition(t);
    p.indicator = tokenizerGetErrorPositionIndicatorString(t);
  }
  tokenizerFree(t);
  return p;
}

// The internal name of the operator that built `e`, or "" for a constant or operand.
inline std::string operatorName(const Expression* e) {
  if (e == nullptr || e->embodiment != EXPR_IS_OPERATOR) return "";
  return static_cast<const OperatorContext*>(e->exprCtx)->op->name;
}

inline Expression* inputOf(const Expression* e, int i) {
  return operatorContextGetInput(static_cast<const OperatorContext*>(e->exprCtx), i);
}

class LangTest : public ::testing::Test {
 protected:
  void SetUp() override { lang_ = createTestLanguage(); }
  void TearDown() override { langFree(lang_); }

  Parsed parse(const char* text, ExpressionType type = EXPR_BOOLEAN) {
    return parseWith(lang_, text, type);
  }

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

  Language* lang_ = nullptr;
};

}  // namespace kyr::langtest
