// The rule language's registry: a Language holds the operators (keyword patterns such as
// INT "BETWEEN" INT "AND" INT) and the operands (named values such as `uri`) that rule texts may
// use. Registration order is the grammar's only precedence (see kyrLangReduce.cpp).
#pragma once

#include "lang/kyrEvalValue.h"
#include "runtime/kyrList.h"
#include "tr.h"

namespace kyr {

enum ExpressionEmbodiment { EXPR_IS_CONSTANT = 0, EXPR_IS_OPERATOR = 1, EXPR_IS_OPERAND = 2 };
enum ExpressionContextType { EXPRCTX_OPERATOR = 0, EXPRCTX_OPERAND = 1 };
enum FormalArgType {
  ARG_BOOLEAN = 0,
  ARG_INT = 1,
  ARG_LONG = 2,
  ARG_STRING = 3,
  ARG_SELECTABLEVALUE = 4
};
enum InputElementType { IETYPE_UNKNOWN = 0, IETYPE_TOKEN = 1, IETYPE_EXPRTYPE = 2 };

struct Evaluable;
struct Expression;
struct Operator;
struct Operand;
struct OperatorContext;
struct OperandContext;
struct EvaluationContext;

// Evaluates `self` (an expression) against a context. Never throws; returns no result when it
// cannot evaluate.
using EvaluateFcn = EvalValue (*)(const Evaluable* self, EvaluationContext* ec);
// Builds the expression for a matched pattern or an operand reference; null on failure. The
// language then fills in the evaluate function, destructor, embodiment and context.
using OperatorExpressionCreatorFcn = Expression* (*)(Operator* op, OperatorContext* ctx);
using OperandExpressionCreatorFcn = Expression* (*)(Operand* op, OperandContext* ctx);
using OperandValidatorFcn = bool (*)(Operand* operand, Operator* op, Expression* expr);

// First base of Operator, Operand and Expression, so all are evaluable through one slot.
struct Evaluable {
  EvaluateFcn evaluate;
};

struct InputElement {
  InputElementType ie_type;
};
struct TokenInputElement : InputElement {
  char* string;  // owned keyword, compared without regard to case
};
struct TypeInputElement : InputElement {
  ExpressionType type;
};

struct SelectableValue {
  char* string;
  char* key;
  int intValue;
};

struct FormalArg {
  char* name;
  FormalArgType fat;
  char* defaultValue;
  int numSelectableValues;
  SelectableValue** selectableValues;  // owned, with the values
};

struct Operator : Evaluable {
  char* name;           // internal name such as "IntEqualsInt"
  ExpressionType type;  // of the result
  int numInputElements;
  OperatorExpressionCreatorFcn createExpression;
  KyrDestructorFcn destroyExpression;  // frees what createExpression put in the expression
  InputElement** inputElements;        // owned pattern slots, in order
};

struct Operand : Evaluable {
  char* name;  // the word written in rules, matched without regard to case
  int numSelectableValues;
  SelectableValue** selectableValues;  // owned, with the values
  int numFormalArgs;
  FormalArg** formalArgs;             // owned, with the arguments
  OperandValidatorFcn validateInput;  // may be null
  OperandExpressionCreatorFcn createExpression;
  KyrDestructorFcn destroyExpression;
  int numReturnTypes;
  ExpressionType* returnTypes;  // the types this operand can deliver
};

// An operand as written in a rule, kept on the parse stack until a pattern takes it.
struct OperandInstanceInfo {
  Operand* operand;
  int numActualArguments;
  char** actualArguments;  // owned copies; a slot may be null
};

struct Language {
  char* fieldSeparator;  // "$" after creation; its characters split a word into fields
  KyrList* operators;    // of Operator, registration order
  KyrList* operands;     // of Operand, registration order
  TrContext* trCtx;
  TrRecord* trRec;
};

Language* langCreate(TrContext* trCtx, TrRecord* trRec);
void langFree(Language* lang);
void langSetFieldSeparator(Language* lang, const char* fs);  // null clears it
const char* langGetFieldSeparator(const Language* lang);
TrContext* langGetTrCtx(const Language* lang);
TrRecord* langGetTrRec(const Language* lang);

// Append to the registry unless the name is taken (without regard to case): then the refusal
// goes to standard error, false is returned and the object stays with the caller.
bool langRegisterOperator(Language* lang, Operator* op);
bool langRegisterOperand(Language* lang, Operand* op);
Operand* langFindOperand(const Language* lang, const char* name);
// True when `word` is the keyword of a token slot of any registered operator.
bool langIsKeyword(const Language* lang, const char* word);

InputElement* tokenInputElementCreate(const char* s);
InputElement* typeInputElementCreate(ExpressionType type);

// The pattern's `numInputElements` InputElement* follow, in order; the operator owns them.
Operator* operatorCreate(const char* name, ExpressionType type,
                         OperatorExpressionCreatorFcn createExpression,
                         KyrDestructorFcn destroyExpression, EvaluateFcn evaluate,
                         int numInputElements, ...);
void operatorFree(Operator* op);

// The `numReturnTypes` ExpressionType values follow, in order. The operand copies the two
// pointer arrays and owns the selectable values and formal arguments in them.
Operand* operandCreate(const char* name, int numSelectableValues,
                       SelectableValue** selectableValues, int numFormalArgs,
                       FormalArg** formalArgs, OperandExpressionCreatorFcn createExpression,
                       KyrDestructorFcn destroyExpression, EvaluateFcn evaluate,
                       OperandValidatorFcn validateInput, int numReturnTypes, ...);
void operandFree(Operand* op);
const char* operandGetName(const Operand* op);
int operandGetNumReturnTypes(const Operand* op);
const ExpressionType* operandGetReturnTypes(const Operand* op);
bool operandReturns(const Operand* op, ExpressionType type);
// Index of the formal argument of that name (without regard to case), or -1.
int operandFindFormalArg(const Operand* op, const char* name);

// Null for a null name. The argument keeps the selectable values (and the array's copy).
FormalArg* formalArgCreate(const char* name, FormalArgType fat, const char* defaultValue,
                           int numSelectableValues, SelectableValue** selectableValues);
void formalArgFree(FormalArg* arg);
SelectableValue* selectableValueCreate(const char* string, int intValue);
SelectableValue* selectableValueStrCreate(const char* string, const char* key);
void selectableValueFree(SelectableValue* sv);

OperandInstanceInfo* operandInstanceInfoCreate(Operand* operand, int numActualArgs,
                                               char* const* actualArgs);
void operandInstanceInfoFree(void* info);
int operandInstanceInfoGetNumActualArgs(const OperandInstanceInfo* info);
char** operandInstanceInfoGetActualArgs(const OperandInstanceInfo* info);
const char* operandInstanceInfoGetActualArg(const OperandInstanceInfo* info, int i);
Operand* operandInstanceInfoGetOperand(const OperandInstanceInfo* info);

// Internal inconsistencies go to standard error after "\n** KYR_ERROR(<module>): ".
void langReportError(const char* module, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace kyr
