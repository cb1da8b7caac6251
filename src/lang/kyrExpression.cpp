// Expressions: their common head, constants and their values, the contexts that record where
// each came from, and the building of operator and operand expressions for the parser.
#include "lang/kyrExpression.h"

#include "lang/kyrEvalContext.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

void initContext(ExpressionContext* ctx, ExpressionType type, ExpressionContextType ctxType,
                 const ExpressionOrigin& origin) {
  ctx->type = type;
  ctx->exprCtxType = ctxType;
  ctx->passback = origin.passback;
  ctx->language = origin.language;
  ctx->depth = origin.depth;
  ctx->exprPos = origin.position;
  ctx->exprString = origin.text;
}

template <class T>
T* allocExpression(EvaluateFcn evaluate, ExpressionType type, const ExpressionOrigin& origin) {
  T* expr = kyrNew<T>();
  expr->evaluate = evaluate;
  expr->embodiment = EXPR_IS_CONSTANT;
  expr->exprCtx = kyrNew<ExpressionContext>();
  initContext(expr->exprCtx, type, EXPRCTX_OPERAND, origin);
  return expr;
}

EvalValue evaluateInteger(const Evaluable* self, EvaluationContext* /*ec*/) {
  return EvalValue::ofInt(static_cast<const IntegerConstantExpression*>(self)->value);
}
EvalValue evaluateLong(const Evaluable* self, EvaluationContext* /*ec*/) {
  return EvalValue::ofLong(static_cast<const LongConstantExpression*>(self)->value);
}
EvalValue evaluateString(const Evaluable* self, EvaluationContext* /*ec*/) {
  return EvalValue::ofString(static_cast<const StringConstantExpression*>(self)->value);
}
EvalValue evaluateBoolean(const Evaluable* self, EvaluationContext* /*ec*/) {
  return EvalValue::ofBoolean(static_cast<const BooleanConstantExpression*>(self)->value);
}
EvalValue evaluateList(const Evaluable* self, EvaluationContext* /*ec*/) {
  return EvalValue::ofList(static_cast<const ListExpression*>(self)->value);
}

void destroyStringConstant(void* expr) {
  kyrFree(static_cast<StringConstantExpression*>(expr)->value);
}
void destroyListExpression(void* expr) {
  kyrListDestroyDbg(static_cast<ListExpression*>(expr)->value);
}

void destroyOperatorContext(void* ctx) { kyrFree(static_cast<OperatorContext*>(ctx)->inputs); }

void destroyOperandContext(void* object) {
  auto* ctx = static_cast<OperandContext*>(object);
  for (int i = 0; i < ctx->numActualArgs; ++i) kyrFree(ctx->actualArgs[i]);
  kyrFree(ctx->actualArgs);
}

void freeContext(ExpressionContext* ctx) {
  if (ctx == nullptr) return;
  if (ctx->destructor != nullptr) ctx->destructor(ctx);
  kyrFree(ctx);
}

// Each kind of constant is recognised by its evaluate function, which no other kind shares.
template <class T>
T* asConstant(const Expression* expr, EvaluateFcn evaluate) {
  return expr != nullptr && expr->evaluate == evaluate
             ? static_cast<T*>(const_cast<Expression*>(expr))
             : nullptr;
}

}  // namespace

const char* expressionTypeToString(int type) {
  switch (type) {
    case EXPR_BOOLEAN:
      return "EXPR_BOOLEAN";
    case EXPR_INT:
      return "EXPR_INT";
    case EXPR_LONG:
      return "EXPR_LONG";
    case EXPR_STRING:
      return "EXPR_STRING";
    case EXPR_LIST:
      return "EXPR_LIST";
    default:
      return "EXPR_UNKNOWN";
  }
}

EvalValue expressionEvaluate(const Expression* expr, EvaluationContext* ec) {
  if (expr == nullptr || ec == nullptr || expr->evaluate == nullptr) return {};
  return expr->evaluate(expr, ec);
}

void expressionFree(Expression* expr) {
  if (expr == nullptr) return;
  expressionClearError(expr);
  expr->evaluate = nullptr;
  freeContext(expr->exprCtx);
  expr->exprCtx = nullptr;
  if (expr->destructor != nullptr) expr->destructor(expr);
  kyrFree(expr);
}

void expressionDestroy(void* expr) { expressionFree(static_cast<Expression*>(expr)); }

bool expressionIsError(const Expression* expr) {
  return expr == nullptr || expr->errorMessage != nullptr;
}

void expressionSetError(Expression* expr, const char* message) {
  kyrFree(expr->errorMessage);
  expr->errorMessage = kyrStrdup(message);
}

void expressionClearError(Expression* expr) {
  kyrFree(expr->errorMessage);
  expr->errorMessage = nullptr;
}

const char* expressionGetErrorMessage(const Expression* expr) {
  return expr != nullptr ? expr->errorMessage : nullptr;
}

ExpressionType expressionGetType(const Expression* expr) {
  return expr != nullptr && expr->exprCtx != nullptr ? expr->exprCtx->type : EXPR_UNKNOWN;
}

Language* expressionGetLanguage(const Expression* expr) {
  return expr != nullptr && expr->exprCtx != nullptr ? expr->exprCtx->language : nullptr;
}

void* expressionGetPassback(const Expression* expr) {
  return expr != nullptr && expr->exprCtx != nullptr ? expr->exprCtx->passback : nullptr;
}

bool expressionIsList(const Expression* expr) {
  return asConstant<ListExpression>(expr, evaluateList) != nullptr;
}

Expression* integerConstantCreate(int value, const ExpressionOrigin& origin) {
  auto* expr = allocExpression<IntegerConstantExpression>(evaluateInteger, EXPR_INT, origin);
  expr->value = value;
  return expr;
}

Expression* longConstantCreate(long value, const ExpressionOrigin& origin) {
  auto* expr = allocExpression<LongConstantExpression>(evaluateLong, EXPR_LONG, origin);
  expr->value = value;
  return expr;
}

Expression* stringConstantCreate(const char* value, const ExpressionOrigin& origin) {
  auto* expr = allocExpression<StringConstantExpression>(evaluateString, EXPR_STRING, origin);
  expr->value = kyrStrdup(value);
  expr->destructor = destroyStringConstant;
  return expr;
}

Expression* booleanConstantCreate(bool value, const ExpressionOrigin& origin) {
  auto* expr = allocExpression<BooleanConstantExpression>(evaluateBoolean, EXPR_BOOLEAN, origin);
  expr->value = value;
  return expr;
}

Expression* listExpressionCreate(KyrList* items, const ExpressionOrigin& origin) {
  auto* expr = allocExpression<ListExpression>(evaluateList, EXPR_LIST, origin);
  expr->value = items;
  expr->destructor = destroyListExpression;
  return expr;
}

bool expressionGetBooleanValue(const Expression* expr) {
  auto* c = asConstant<BooleanConstantExpression>(expr, evaluateBoolean);
  return c != nullptr && c->value;
}

void expressionSetBooleanValue(Expression* expr, bool value) {
  if (auto* c = asConstant<BooleanConstantExpression>(expr, evaluateBoolean)) c->value = value;
}

int expressionGetIntegerValue(const Expression* expr) {
  auto* c = asConstant<IntegerConstantExpression>(expr, evaluateInteger);
  return c != nullptr ? c->value : 0;
}

void expressionSetIntegerValue(Expression* expr, int value) {
  if (auto* c = asConstant<IntegerConstantExpression>(expr, evaluateInteger)) c->value = value;
}

long expressionGetLongValue(const Expression* expr) {
  auto* c = asConstant<LongConstantExpression>(expr, evaluateLong);
  return c != nullptr ? c->value : 0;
}

void expressionSetLongValue(Expression* expr, long value) {
  if (auto* c = asConstant<LongConstantExpression>(expr, evaluateLong)) c->value = value;
}

const char* expressionGetStringValue(const Expression* expr) {
  auto* c = asConstant<StringConstantExpression>(expr, evaluateString);
  return c != nullptr ? c->value : nullptr;
}

void expressionSetStringValue(Expression* expr, const char* value) {
  if (auto* c = asConstant<StringConstantExpression>(expr, evaluateString)) {
    char* copy = kyrStrdup(value);
    kyrFree(c->value);
    c->value = copy;
  }
}

KyrList* expressionGetListValue(const Expression* expr) {
  auto* c = asConstant<ListExpression>(expr, evaluateList);
  return c != nullptr ? c->value : nullptr;
}

void expressionSetListValue(Expression* expr, KyrList* value) {
  if (auto* c = asConstant<ListExpression>(expr, evaluateList)) {
    if (c->value != value) kyrListDestroyDbg(c->value);
    c->value = value;
  }
}

// Gives an operator's or operand's new expression its context and behaviour; a creator that
// refused (null) leaves the context to be freed here.
Expression* bindExpression(Expression* expr, ExpressionContext* ctx, EvaluateFcn evaluate,
                           KyrDestructorFcn destructor, ExpressionEmbodiment embodiment) {
  if (expr == nullptr) {
    freeContext(ctx);
    return nullptr;
  }
  expr->evaluate = evaluate;
  expr->destructor = destructor;
  expr->embodiment = embodiment;
  expr->exprCtx = ctx;
  return expr;
}

Expression* operatorExpressionCreate(Operator* op, Expression** inputs, int numInputs,
                                     const ExpressionOrigin& origin) {
  auto* ctx = kyrNew<OperatorContext>();
  initContext(ctx, op->type, EXPRCTX_OPERATOR, origin);
  ctx->destructor = destroyOperatorContext;
  ctx->op = op;
  ctx->numInputs = numInputs;
  ctx->inputs = static_cast<Expression**>(
      kyrMalloc(sizeof(Expression*) * static_cast<size_t>(numInputs > 0 ? numInputs : 1)));
  for (int i = 0; i < numInputs; ++i) ctx->inputs[i] = inputs[i];
  return bindExpression(op->createExpression(op, ctx), ctx, op->evaluate, op->destroyExpression,
                        EXPR_IS_OPERATOR);
}

Expression* operandExpressionCreate(Operand* operand, ExpressionType type, int numArgs,
                                    char* const* args, const ExpressionOrigin& origin) {
  auto* ctx = kyrNew<OperandContext>();
  initContext(ctx, type, EXPRCTX_OPERAND, origin);
  ctx->destructor = destroyOperandContext;
  ctx->numActualArgs = numArgs > 0 ? numArgs : 0;
  if (ctx->numActualArgs > 0) {
    ctx->actualArgs =
        static_cast<char**>(kyrMalloc(sizeof(char*) * static_cast<size_t>(ctx->numActualArgs)));
    for (int i = 0; i < ctx->numActualArgs; ++i) ctx->actualArgs[i] = kyrStrdup(args[i]);
  }
  return bindExpression(operand->createExpression(operand, ctx), ctx, operand->evaluate,
                        operand->destroyExpression, EXPR_IS_OPERAND);
}

int operatorContextGetNumInputs(const OperatorContext* ctx) {
  return ctx != nullptr ? ctx->numInputs : 0;
}

Expression* operatorContextGetInput(const OperatorContext* ctx, int i) {
  if (ctx == nullptr || i < 0 || i >= ctx->numInputs) return nullptr;
  return ctx->inputs[i];
}

int operandContextGetNumArguments(const OperandContext* ctx) {
  return ctx != nullptr ? ctx->numActualArgs : 0;
}

const char* operandContextGetArgument(const OperandContext* ctx, int i) {
  if (ctx == nullptr || i < 0 || i >= ctx->numActualArgs) return nullptr;
  return ctx->actualArgs[i];
}

void* expressionContextGetPassback(const ExpressionContext* ctx) {
  return ctx != nullptr ? ctx->passback : nullptr;
}

Language* expressionContextGetLanguage(const ExpressionContext* ctx) {
  return ctx != nullptr ? ctx->language : nullptr;
}

}  // namespace kyr
