// Expressions of the rule language: the parsed tree that rules evaluate. Constants, operator
// expressions (built from a matched pattern) and operand expressions share the common head;
// each carries an owned context saying its type and where in the rule text it came from.
#pragma once

#include "lang/kyrLanguage.h"

namespace kyr {

struct ExpressionContext {
  ExpressionType type;
  ExpressionContextType exprCtxType;
  void* passback;  // handed through from langParse
  Language* language;
  KyrDestructorFcn destructor;  // frees what the context holds (not the context); may be null
  int depth;                    // parenthesis depth at which it was built
  int exprPos;                  // position of the token that completed it
  const char* exprString;       // that token's text; not owned, valid only while parsing
};

struct OperatorContext : ExpressionContext {
  Operator* op;
  int numInputs;
  Expression** inputs;  // owned array; the expressions go to the operator's expression
};

struct OperandContext : ExpressionContext {
  int numActualArgs;
  char** actualArgs;  // owned copies; a slot may be null
};

// Expressions are read-only once built, so one tree may be evaluated by many threads at once.
struct Expression : Evaluable {
  KyrDestructorFcn destructor;  // frees what the expression holds (not the expression)
  ExpressionEmbodiment embodiment;
  ExpressionContext* exprCtx;  // owned
  char* errorMessage;          // owned, or null
};

struct IntegerConstantExpression : Expression {
  int value;
};
struct LongConstantExpression : Expression {
  long value;
};
struct StringConstantExpression : Expression {
  char* value;  // owned
};
struct BooleanConstantExpression : Expression {
  bool value;
};
struct ListExpression : Expression {
  KyrList* value;  // owned list of Expression
};

// Where a new expression comes from; copied into its context.
struct ExpressionOrigin {
  Language* language;
  void* passback;
  int depth;
  int position;
  const char* text;
};

// Evaluates `expr`; no result when either argument is null.
EvalValue expressionEvaluate(const Expression* expr, EvaluationContext* ec);
void expressionFree(Expression* expr);
void expressionDestroy(void* expr);  // expressionFree as a list destructor

bool expressionIsError(const Expression* expr);
void expressionSetError(Expression* expr, const char* message);
void expressionClearError(Expression* expr);
const char* expressionGetErrorMessage(const Expression* expr);
ExpressionType expressionGetType(const Expression* expr);
Language* expressionGetLanguage(const Expression* expr);
void* expressionGetPassback(const Expression* expr);
bool expressionIsList(const Expression* expr);  // a constant list (not an operand of type list)

// Constants. The getters read the value of a constant of that kind; the setters replace it
// (a string is copied; a list is taken over).
Expression* integerConstantCreate(int value, const ExpressionOrigin& origin);
Expression* longConstantCreate(long value, const ExpressionOrigin& origin);
Expression* stringConstantCreate(const char* value, const ExpressionOrigin& origin);
Expression* booleanConstantCreate(bool value, const ExpressionOrigin& origin);
Expression* listExpressionCreate(KyrList* items, const ExpressionOrigin& origin);
bool expressionGetBooleanValue(const Expression* expr);
void expressionSetBooleanValue(Expression* expr, bool value);
int expressionGetIntegerValue(const Expression* expr);
void expressionSetIntegerValue(Expression* expr, int value);
long expressionGetLongValue(const Expression* expr);
void expressionSetLongValue(Expression* expr, long value);
const char* expressionGetStringValue(const Expression* expr);
void expressionSetStringValue(Expression* expr, const char* value);
KyrList* expressionGetListValue(const Expression* expr);
void expressionSetListValue(Expression* expr, KyrList* value);

// Builds the operator's expression over `inputs` (taken over on success; left with the caller
// on failure); null when the operator's creator fails.
Expression* operatorExpressionCreate(Operator* op, Expression** inputs, int numInputs,
                                     const ExpressionOrigin& origin);
// Builds an operand expression of `type` with copies of the arguments; null on failure.
Expression* operandExpressionCreate(Operand* operand, ExpressionType type, int numArgs,
                                    char* const* args, const ExpressionOrigin& origin);

int operatorContextGetNumInputs(const OperatorContext* ctx);
Expression* operatorContextGetInput(const OperatorContext* ctx, int i);
int operandContextGetNumArguments(const OperandContext* ctx);
const char* operandContextGetArgument(const OperandContext* ctx, int i);
void* expressionContextGetPassback(const ExpressionContext* ctx);
Language* expressionContextGetLanguage(const ExpressionContext* ctx);

}  // namespace kyr
