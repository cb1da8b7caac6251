// The common operands: `true`, `false`, `percentage` (a random draw), `time` (a window of the
// local clock), `rampup` (a share rising from 0 to 1 across a window) and `nulloperand`.
#include <cstdlib>

#include "lang/kyrCommonLanguage.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrExpression.h"
#include "lang/kyrLangHooks.h"
#include "lang/kyrLangTime.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrTime.h"

namespace kyr {
namespace {

constexpr const char* kModule = "kyrCommonLanguage";

struct PercentExpression : Expression {
  int percent;
};
struct TimeExpression : Expression {
  time_op startTime;
  time_op stopTime;
};
struct RampupExpression : Expression {
  time_op startTime;
  time_op stopTime;
  long range;  // seconds from start to completion, fixed when the rule is parsed
};

const char* truth(bool b) { return b ? "TRUE" : "FALSE"; }

bool argumentCountIs(const OperandContext* ctx, int expected, const char* creator) {
  if (ctx->numActualArgs == expected) return true;
  langReportError(kModule, "In %s - invalid number of inputs (%d) - expecting %d.\n", creator,
                  ctx->numActualArgs, expected);
  return false;
}

Expression* createPlain(Operand* /*op*/, OperandContext* /*ctx*/) { return kyrNew<Expression>(); }

EvalValue evaluateTrue(const Evaluable* /*self*/, EvaluationContext* /*ec*/) {
  return EvalValue::ofBoolean(true);
}

EvalValue evaluateFalse(const Evaluable* /*self*/, EvaluationContext* /*ec*/) {
  return EvalValue::ofBoolean(false);
}

EvalValue evaluateNull(const Evaluable* /*self*/, EvaluationContext* /*ec*/) {
  return EvalValue::ofString(nullptr);
}

Expression* createPercent(Operand* /*op*/, OperandContext* ctx) {
  if (!argumentCountIs(ctx, 1, "operandCreateExpression_Percent")) return nullptr;
  auto* expr = kyrNew<PercentExpression>();
  const char* arg = ctx->actualArgs[0];
  expr->percent = arg != nullptr ? atoi(arg) : 0;
  return expr;
}

// Deliberately modulo 101 and "at most": 0 percent still passes about once in 101 draws.
EvalValue evaluatePercent(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  bool result = langRandom() % 101 <= static_cast<const PercentExpression*>(self)->percent;
  evaluationContextDebug(ec, "operandEvaluate_Percent: allow debug trace--> %s", truth(result));
  return EvalValue::ofBoolean(result);
}

Expression* createTime(Operand* /*op*/, OperandContext* ctx) {
  if (!argumentCountIs(ctx, 2, "operandCreateExpression_Time")) return nullptr;
  auto* expr = kyrNew<TimeExpression>();
  convertTimeToStruct(ctx->actualArgs[0], &expr->startTime);
  convertTimeToStruct(ctx->actualArgs[1], &expr->stopTime);
  return expr;
}

EvalValue evaluateTime(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  auto* expr = static_cast<const TimeExpression*>(self);
  bool result = timeInInterval(localTimeOp(langNow()), expr->startTime, expr->stopTime);
  evaluationContextDebug(
      ec, "operandEvaluate_Time: current time is between start and stop times? %s", truth(result));
  return EvalValue::ofBoolean(result);
}

Expression* createRampup(Operand* /*op*/, OperandContext* ctx) {
  if (!argumentCountIs(ctx, 2, "operandCreateExpression_rampup")) return nullptr;
  auto* expr = kyrNew<RampupExpression>();
  convertTimeToStruct(ctx->actualArgs[0], &expr->startTime);
  convertTimeToStruct(ctx->actualArgs[1], &expr->stopTime);
  expr->range = static_cast<long>(timeToNum(expr->stopTime) - timeToNum(expr->startTime));
  return expr;
}

// Inside the window, true when a random second of the window lies before now: the share of
// true answers rises from 0 at the start to 1 at completion, and is 0 outside the window. A
// window of no length has no share to give and answers false.
EvalValue evaluateRampup(const Evaluable* self, EvaluationContext* ec) {
  if (ec == nullptr) return {};
  auto* expr = static_cast<const RampupExpression*>(self);
  time_t now = langNow();
  bool result = false;
  if (expr->range != 0 && timeInInterval(localTimeOp(now), expr->startTime, expr->stopTime)) {
    long offset = expr->range == -1 ? 0 : langRandom() % expr->range;
    result = offset + timeToNum(expr->startTime) < now;
  }
  if (evaluationContextDebugEnabled(ec)) {
    struct tm tm {};
    char stamp[64];
    kyrLocalTime(&now, &tm);
    strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &tm);
    evaluationContextDebug(ec, "operandEvaluate_rampup: printing logs for current time stamp-->%s",
                           stamp);
  }
  return EvalValue::ofBoolean(result);
}

void add(Language* lang, Operand* op) {
  if (!langRegisterOperand(lang, op)) operandFree(op);
}

FormalArg* intArg(const char* name) { return formalArgCreate(name, ARG_INT, nullptr, 0, nullptr); }

}  // namespace

void langRegisterCommonOperands(Language* lang) {
  add(lang, operandCreate("true", 0, nullptr, 0, nullptr, createPlain, nullptr, evaluateTrue,
                          nullptr, 1, EXPR_BOOLEAN));
  add(lang, operandCreate("false", 0, nullptr, 0, nullptr, createPlain, nullptr, evaluateFalse,
                          nullptr, 1, EXPR_BOOLEAN));
  FormalArg* percentArgs[] = {intArg("percent")};
  add(lang, operandCreate("percentage", 0, nullptr, 1, percentArgs, createPercent, nullptr,
                          evaluatePercent, nullptr, 1, EXPR_BOOLEAN));
  FormalArg* timeArgs[] = {intArg("startTime"), intArg("stopTime")};
  add(lang, operandCreate("time", 0, nullptr, 2, timeArgs, createTime, nullptr, evaluateTime,
                          nullptr, 1, EXPR_BOOLEAN));
  FormalArg* rampupArgs[] = {intArg("startTime"), intArg("completionTime")};
  add(lang, operandCreate("rampup", 0, nullptr, 2, rampupArgs, createRampup, nullptr,
                          evaluateRampup, nullptr, 1, EXPR_BOOLEAN));
  add(lang, operandCreate("nulloperand", 0, nullptr, 0, nullptr, createPlain, nullptr, evaluateNull,
                          nullptr, 1, EXPR_STRING));
}

}  // namespace kyr
