// The 25 common operators: their expression shapes, evaluators and registration order.
// Every evaluator evaluates all of its inputs (AND and OR do not short-circuit), answers false
// when an input has no result or not the expected kind of value, and writes one debug line.
#include <cstring>

#include "lang/kyrCommonLanguage.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrExpression.h"
#include "lang/kyrWildcard.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

struct UnaryExpression : Expression {
  Expression* input;
};
struct BinaryExpression : Expression {
  Expression* lhs;
  Expression* rhs;
};
struct BetweenExpression : Expression {
  Expression* value;
  Expression* low;
  Expression* high;
};

Expression* createUnary(Operator* /*op*/, OperatorContext* ctx) {
  if (ctx->numInputs != 1) return nullptr;
  auto* expr = kyrNew<UnaryExpression>();
  expr->input = ctx->inputs[0];
  return expr;
}

Expression* createBinary(Operator* /*op*/, OperatorContext* ctx) {
  if (ctx->numInputs != 2) return nullptr;
  auto* expr = kyrNew<BinaryExpression>();
  expr->lhs = ctx->inputs[0];
  expr->rhs = ctx->inputs[1];
  return expr;
}

Expression* createBetween(Operator* /*op*/, OperatorContext* ctx) {
  if (ctx->numInputs != 3) return nullptr;
  auto* expr = kyrNew<BetweenExpression>();
  expr->value = ctx->inputs[0];
  expr->low = ctx->inputs[1];
  expr->high = ctx->inputs[2];
  return expr;
}

void destroyUnary(void* object) { expressionFree(static_cast<UnaryExpression*>(object)->input); }

void destroyBinary(void* object) {
  auto* expr = static_cast<BinaryExpression*>(object);
  expressionFree(expr->lhs);
  expressionFree(expr->rhs);
}

void destroyBetween(void* object) {
  auto* expr = static_cast<BetweenExpression*>(object);
  expressionFree(expr->value);
  expressionFree(expr->low);
  expressionFree(expr->high);
}

const char* truth(bool b) { return b ? "TRUE" : "FALSE"; }
const char* text(const EvalValue& v) {
  return v.isString() && v.string() != nullptr ? v.string() : "null";
}
bool hasText(const EvalValue& v) { return v.isString() && v.string() != nullptr; }

// Integer comparisons (also between longs, read as int).
enum class IntOp { EQ, NE, GT, LT, GE, LE };

template <IntOp Op>
EvalValue evaluateIntCompare(const Evaluable* self, EvaluationContext* ec) {
  static constexpr const char* kNames[] = {
      "IntEqualsInt",   "IntNotEqualsInt",          "IntGreaterthanInt",
      "IntLessthanInt", "IntGreaterthanEqualToInt", "IntLessthanEqualToInt"};
  static constexpr const char* kSymbols[] = {"=", "<>", ">", "<", ">=", "<="};
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BinaryExpression*>(self);
  EvalValue l = expressionEvaluate(expr->lhs, ec);
  EvalValue r = expressionEvaluate(expr->rhs, ec);
  bool result = false;
  if (l.isIntegral() && r.isIntegral()) {
    int a = l.integer();
    int b = r.integer();
    switch (Op) {
      case IntOp::EQ:
        result = a == b;
        break;
      case IntOp::NE:
        result = a != b;
        break;
      case IntOp::GT:
        result = a > b;
        break;
      case IntOp::LT:
        result = a < b;
        break;
      case IntOp::GE:
        result = a >= b;
        break;
      case IntOp::LE:
        result = a <= b;
        break;
    }
  }
  evaluationContextDebug(ec, "%s %d%s%d --> %s\n", kNames[static_cast<int>(Op)], l.integer(),
                         kSymbols[static_cast<int>(Op)], r.integer(), truth(result));
  return EvalValue::ofBoolean(result);
}

EvalValue evaluateIntBetween(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BetweenExpression*>(self);
  EvalValue v = expressionEvaluate(expr->value, ec);
  EvalValue low = expressionEvaluate(expr->low, ec);
  EvalValue high = expressionEvaluate(expr->high, ec);
  bool result = v.isIntegral() && low.isIntegral() && high.isIntegral() &&
                low.integer() <= v.integer() && v.integer() <= high.integer();
  evaluationContextDebug(ec, "IntBetweenInt %d<=%d<=%d --> %s\n", low.integer(), v.integer(),
                         high.integer(), truth(result));
  return EvalValue::ofBoolean(result);
}

// Text comparisons: a missing text on either side makes every one of them false.
enum class StringOp { EQ, EQ_IGNORECASE, NE, LIKE, LIKE_IGNORECASE };

template <StringOp Op>
EvalValue evaluateStringCompare(const Evaluable* self, EvaluationContext* ec) {
  static constexpr const char* kNames[] = {"StringEqualsString", "StringEqualsIgnoreCaseString",
                                           "StringNotEqualsString", "StringLikeString",
                                           "StringLikeIgnoreCaseString"};
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BinaryExpression*>(self);
  EvalValue l = expressionEvaluate(expr->lhs, ec);
  EvalValue r = expressionEvaluate(expr->rhs, ec);
  bool result = false;
  if (hasText(l) && hasText(r)) {
    switch (Op) {
      case StringOp::EQ:
        result = strcmp(l.string(), r.string()) == 0;
        break;
      case StringOp::EQ_IGNORECASE:
        result = kyrStrCmpIgnoreCase(l.string(), r.string()) == 0;
        break;
      case StringOp::NE:
        result = strcmp(l.string(), r.string()) != 0;
        break;
      case StringOp::LIKE:
        result = wildcardTextCompare(l.string(), r.string(), true);
        break;
      case StringOp::LIKE_IGNORECASE:
        result = wildcardTextCompare(l.string(), r.string(), false);
        break;
    }
  }
  evaluationContextDebug(ec, "%s '%s' '%s' --> %s\n", kNames[static_cast<int>(Op)], text(l),
                         text(r), truth(result));
  return EvalValue::ofBoolean(result);
}

enum class BoolOp { EQ, NE, AND, OR };

template <BoolOp Op>
EvalValue evaluateBoolean(const Evaluable* self, EvaluationContext* ec) {
  static constexpr const char* kNames[] = {"BooleanEqualsBoolean", "BooleanNotEqualsBoolean", "AND",
                                           "OR"};
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BinaryExpression*>(self);
  EvalValue l = expressionEvaluate(expr->lhs, ec);
  EvalValue r = expressionEvaluate(expr->rhs, ec);
  bool result = false;
  if (l.isBoolean() && r.isBoolean()) {
    switch (Op) {
      case BoolOp::EQ:
        result = l.boolean() == r.boolean();
        break;
      case BoolOp::NE:
        result = l.boolean() != r.boolean();
        break;
      case BoolOp::AND:
        result = l.boolean() && r.boolean();
        break;
      case BoolOp::OR:
        result = l.boolean() || r.boolean();
        break;
    }
  }
  evaluationContextDebug(ec, "%s %s %s --> %s\n", kNames[static_cast<int>(Op)],
                         truth(l.isBoolean() && l.boolean()), truth(r.isBoolean() && r.boolean()),
                         truth(result));
  return EvalValue::ofBoolean(result);
}

EvalValue evaluateNot(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  EvalValue v = expressionEvaluate(static_cast<const UnaryExpression*>(self)->input, ec);
  bool result = v.isBoolean() && !v.boolean();
  evaluationContextDebug(ec, "NOT --> %s\n", truth(result));
  return EvalValue::ofBoolean(result);
}

// List membership looks only at the items of the value's own type, in list order.
enum class ListOp { STRING_IN, STRING_LIKE_IN, INT_IN };

template <ListOp Op>
bool itemMatches(const EvalValue& value, const EvalValue& item) {
  if (Op == ListOp::INT_IN) return item.isIntegral() && item.integer() == value.integer();
  if (!hasText(item)) return false;
  if (Op == ListOp::STRING_IN) return strcmp(value.string(), item.string()) == 0;
  return wildcardTextCompare(value.string(), item.string(), true);
}

template <ListOp Op>
EvalValue evaluateInList(const Evaluable* self, EvaluationContext* ec) {
  static constexpr const char* kNames[] = {"STRING_IN_LIST", "STRING_LIKE_IN_LIST", "INT_IN_LIST"};
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BinaryExpression*>(self);
  EvalValue value = expressionEvaluate(expr->lhs, ec);
  EvalValue list = expressionEvaluate(expr->rhs, ec);
  const ExpressionType itemType = Op == ListOp::INT_IN ? EXPR_INT : EXPR_STRING;
  bool valid = Op == ListOp::INT_IN ? value.isIntegral() : hasText(value);
  bool result = false;
  if (valid && list.isList()) {
    for (KyrListEle* e = kyrListGetHead(list.list()); e != nullptr && !result;
         e = kyrListGetNext(e)) {
      auto* item = static_cast<const Expression*>(kyrListEleGetObject(e));
      if (expressionGetType(item) != itemType) continue;
      result = itemMatches<Op>(value, expressionEvaluate(item, ec));
    }
  }
  evaluationContextDebug(ec, "%s --> %s\n", kNames[static_cast<int>(Op)], truth(result));
  return EvalValue::ofBoolean(result);
}

EvalValue evaluateConcat(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  auto* expr = static_cast<const BinaryExpression*>(self);
  EvalValue l = expressionEvaluate(expr->lhs, ec);
  EvalValue r = expressionEvaluate(expr->rhs, ec);
  if (!hasText(l) || !hasText(r)) return EvalValue::ofString(nullptr);
  size_t ll = strlen(l.string());
  size_t rl = strlen(r.string());
  auto* joined = static_cast<char*>(kyrMalloc(ll + rl + 1));
  memcpy(joined, l.string(), ll);
  memcpy(joined + ll, r.string(), rl);
  evaluationContextDebug(ec, "StringConcatString '%s'\n", joined);
  return EvalValue::ofOwnedString(joined);
}

enum class NullOp { IS_NULL, IS_NULL_LIST, IS_NOT_NULL, IS_NOT_NULL_LIST };

template <NullOp Op>
EvalValue evaluateNullTest(const Evaluable* self, EvaluationContext* ec) {
  static constexpr const char* kNames[] = {"IsNull", "IsNullList", "IsNotNull", "IsNotNullList"};
  if (ec == nullptr) return {};
  EvalValue v = expressionEvaluate(static_cast<const UnaryExpression*>(self)->input, ec);
  bool result = false;
  switch (Op) {
    case NullOp::IS_NULL:
      result = v.isString() && v.string() == nullptr;
      break;
    case NullOp::IS_NOT_NULL:
      result = hasText(v);
      break;
    case NullOp::IS_NULL_LIST:
      result = v.isList() && kyrListIsEmpty(v.list());
      break;
    case NullOp::IS_NOT_NULL_LIST:
      result = v.isList() && !kyrListIsEmpty(v.list());
      break;
  }
  evaluationContextDebug(ec, "%s --> %s\n", kNames[static_cast<int>(Op)], truth(result));
  return EvalValue::ofBoolean(result);
}

InputElement* T(ExpressionType type) { return typeInputElementCreate(type); }
InputElement* K(const char* keyword) { return tokenInputElementCreate(keyword); }

void add(Language* lang, Operator* op) {
  if (!langRegisterOperator(lang, op)) operatorFree(op);
}

}  // namespace

void langRegisterCommonOperators(Language* lang) {
  const auto B = EXPR_BOOLEAN;
  const auto I = EXPR_INT;
  const auto S = EXPR_STRING;
  const auto L = EXPR_LIST;
  add(lang, operatorCreate("IntEqualsInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::EQ>, 3, T(I), K("="), T(I)));
  add(lang, operatorCreate("IntNotEqualsInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::NE>, 3, T(I), K("<>"), T(I)));
  add(lang, operatorCreate("StringEqualsString", B, createBinary, destroyBinary,
                           evaluateStringCompare<StringOp::EQ>, 3, T(S), K("="), T(S)));
  add(lang, operatorCreate("StringEqualsIgnoreCaseString", B, createBinary, destroyBinary,
                           evaluateStringCompare<StringOp::EQ_IGNORECASE>, 3, T(S),
                           K("EQUALSIGNORECASE"), T(S)));
  add(lang, operatorCreate("StringNotEqualsString", B, createBinary, destroyBinary,
                           evaluateStringCompare<StringOp::NE>, 3, T(S), K("<>"), T(S)));
  add(lang, operatorCreate("StringLikeString", B, createBinary, destroyBinary,
                           evaluateStringCompare<StringOp::LIKE>, 3, T(S), K("LIKE"), T(S)));
  add(lang, operatorCreate("StringLikeIgnoreCaseString", B, createBinary, destroyBinary,
                           evaluateStringCompare<StringOp::LIKE_IGNORECASE>, 3, T(S),
                           K("LIKEIGNORECASE"), T(S)));
  add(lang, operatorCreate("BooleanEqualsBoolean", B, createBinary, destroyBinary,
                           evaluateBoolean<BoolOp::EQ>, 3, T(B), K("="), T(B)));
  add(lang, operatorCreate("BooleanNotEqualsBoolean", B, createBinary, destroyBinary,
                           evaluateBoolean<BoolOp::NE>, 3, T(B), K("<>"), T(B)));
  add(lang, operatorCreate("IntGreaterthanInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::GT>, 3, T(I), K(">"), T(I)));
  add(lang, operatorCreate("IntLessthanInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::LT>, 3, T(I), K("<"), T(I)));
  add(lang, operatorCreate("IntGreaterthanEqualToInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::GE>, 3, T(I), K(">="), T(I)));
  add(lang, operatorCreate("IntLessthanEqualToInt", B, createBinary, destroyBinary,
                           evaluateIntCompare<IntOp::LE>, 3, T(I), K("<="), T(I)));
  add(lang, operatorCreate("IntBetweenInt", B, createBetween, destroyBetween, evaluateIntBetween, 5,
                           T(I), K("BETWEEN"), T(I), K("AND"), T(I)));
  add(lang, operatorCreate("AND", B, createBinary, destroyBinary, evaluateBoolean<BoolOp::AND>, 3,
                           T(B), K("AND"), T(B)));
  add(lang, operatorCreate("OR", B, createBinary, destroyBinary, evaluateBoolean<BoolOp::OR>, 3,
                           T(B), K("OR"), T(B)));
  add(lang, operatorCreate("NOT", B, createUnary, destroyUnary, evaluateNot, 2, K("NOT"), T(B)));
  add(lang, operatorCreate("STRING_IN_LIST", B, createBinary, destroyBinary,
                           evaluateInList<ListOp::STRING_IN>, 3, T(S), K("IN"), T(L)));
  add(lang, operatorCreate("STRING_LIKE_IN_LIST", B, createBinary, destroyBinary,
                           evaluateInList<ListOp::STRING_LIKE_IN>, 3, T(S), K("LIKEIN"), T(L)));
  add(lang, operatorCreate("INT_IN_LIST", B, createBinary, destroyBinary,
                           evaluateInList<ListOp::INT_IN>, 3, T(I), K("IN"), T(L)));
  add(lang, operatorCreate("StringConcatString", S, createBinary, destroyBinary, evaluateConcat, 3,
                           T(S), K("+"), T(S)));
  add(lang, operatorCreate("IsNull", B, createUnary, destroyUnary,
                           evaluateNullTest<NullOp::IS_NULL>, 3, T(S), K("IS"), K("NULL")));
  add(lang, operatorCreate("IsNullList", B, createUnary, destroyUnary,
                           evaluateNullTest<NullOp::IS_NULL_LIST>, 3, T(L), K("IS"), K("NULL")));
  add(lang,
      operatorCreate("IsNotNull", B, createUnary, destroyUnary,
                     evaluateNullTest<NullOp::IS_NOT_NULL>, 4, T(S), K("IS"), K("NOT"), K("NULL")));
  add(lang, operatorCreate("IsNotNullList", B, createUnary, destroyUnary,
                           evaluateNullTest<NullOp::IS_NOT_NULL_LIST>, 4, T(L), K("IS"), K("NOT"),
                           K("NULL")));
}

}  // namespace kyr
