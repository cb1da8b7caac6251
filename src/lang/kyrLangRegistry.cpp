// The language registry: creating and freeing languages, operators, operands, their pattern
// slots, formal arguments and selectable values, and registration with its duplicate check.
#include <cstdarg>
#include <cstdio>

#include "lang/kyrLanguage.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

constexpr const char* kModule = "kyrLanguage";

void operatorDestroy(void* op) { operatorFree(static_cast<Operator*>(op)); }
void operandDestroy(void* op) { operandFree(static_cast<Operand*>(op)); }

template <class T>
T** copyPointerArray(int count, T** source) {
  if (count <= 0 || source == nullptr) return nullptr;
  auto** copy = static_cast<T**>(kyrMalloc(sizeof(T*) * static_cast<size_t>(count)));
  for (int i = 0; i < count; ++i) copy[i] = source[i];
  return copy;
}

void freeSelectableValues(int count, SelectableValue** values) {
  for (int i = 0; i < count && values != nullptr; ++i) selectableValueFree(values[i]);
  kyrFree(values);
}

template <class T>
bool nameTaken(const KyrList* list, const char* name) {
  for (KyrListEle* e = kyrListGetHead(list); e != nullptr; e = kyrListGetNext(e)) {
    if (kyrStrCmpIgnoreCase(static_cast<T*>(kyrListEleGetObject(e))->name, name) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

void langReportError(const char* module, const char* fmt, ...) {
  fprintf(stderr, "\n** KYR_ERROR(%s): ", module);
  va_list args;
  va_start(args, fmt);
  vfprintf(stderr, fmt, args);
  va_end(args);
}

Language* langCreate(TrContext* trCtx, TrRecord* trRec) {
  auto* lang = static_cast<Language*>(kyrMalloc(sizeof(Language)));
  lang->fieldSeparator = kyrStrdup("$");
  lang->operators = kyrListCreateDbg(operatorDestroy);
  lang->operands = kyrListCreateDbg(operandDestroy);
  lang->trCtx = trCtx;
  lang->trRec = trRec;
  return lang;
}

void langFree(Language* lang) {
  if (lang == nullptr) return;
  kyrFree(lang->fieldSeparator);
  kyrListDestroyDbg(lang->operators);
  kyrListDestroyDbg(lang->operands);
  kyrFree(lang);
}

void langSetFieldSeparator(Language* lang, const char* fs) {
  kyrFree(lang->fieldSeparator);
  lang->fieldSeparator = kyrStrdup(fs);
}

const char* langGetFieldSeparator(const Language* lang) { return lang->fieldSeparator; }
TrContext* langGetTrCtx(const Language* lang) { return lang->trCtx; }
TrRecord* langGetTrRec(const Language* lang) { return lang->trRec; }

bool langRegisterOperator(Language* lang, Operator* op) {
  if (nameTaken<Operator>(lang->operators, op->name)) {
    langReportError(kModule,
                    "langRegisterOperator - Operator with name %s is already registered.  "
                    "Redundant one ignored.",
                    op->name);
    return false;
  }
  return kyrListAddTail(lang->operators, op) != nullptr;
}

bool langRegisterOperand(Language* lang, Operand* op) {
  if (nameTaken<Operand>(lang->operands, op->name)) {
    langReportError(kModule,
                    "langRegisterOperand - Operand with name %s is already registered.  "
                    "Redundant one ignored.",
                    op->name);
    return false;
  }
  return kyrListAddTail(lang->operands, op) != nullptr;
}

Operand* langFindOperand(const Language* lang, const char* name) {
  if (name == nullptr) return nullptr;
  for (KyrListEle* e = kyrListGetHead(lang->operands); e != nullptr; e = kyrListGetNext(e)) {
    auto* op = static_cast<Operand*>(kyrListEleGetObject(e));
    if (kyrStrCmpIgnoreCase(op->name, name) == 0) return op;
  }
  return nullptr;
}

bool langIsKeyword(const Language* lang, const char* word) {
  for (KyrListEle* e = kyrListGetHead(lang->operators); e != nullptr; e = kyrListGetNext(e)) {
    auto* op = static_cast<Operator*>(kyrListEleGetObject(e));
    for (int i = 0; i < op->numInputElements; ++i) {
      InputElement* ie = op->inputElements[i];
      if (ie->ie_type == IETYPE_TOKEN &&
          kyrStrCmpIgnoreCase(static_cast<TokenInputElement*>(ie)->string, word) == 0) {
        return true;
      }
    }
  }
  return false;
}

InputElement* tokenInputElementCreate(const char* s) {
  auto* ie = static_cast<TokenInputElement*>(kyrMalloc(sizeof(TokenInputElement)));
  ie->ie_type = IETYPE_TOKEN;
  ie->string = kyrStrdup(s);
  return ie;
}

InputElement* typeInputElementCreate(ExpressionType type) {
  auto* ie = static_cast<TypeInputElement*>(kyrMalloc(sizeof(TypeInputElement)));
  ie->ie_type = IETYPE_EXPRTYPE;
  ie->type = type;
  return ie;
}

Operator* operatorCreate(const char* name, ExpressionType type,
                         OperatorExpressionCreatorFcn createExpression,
                         KyrDestructorFcn destroyExpression, EvaluateFcn evaluate,
                         int numInputElements, ...) {
  auto* op = static_cast<Operator*>(kyrMalloc(sizeof(Operator)));
  op->evaluate = evaluate;
  op->name = kyrStrdup(name);
  op->type = type;
  op->numInputElements = numInputElements;
  op->createExpression = createExpression;
  op->destroyExpression = destroyExpression;
  op->inputElements = static_cast<InputElement**>(kyrMalloc(
      sizeof(InputElement*) * static_cast<size_t>(numInputElements > 0 ? numInputElements : 1)));
  va_list args;
  va_start(args, numInputElements);
  for (int i = 0; i < numInputElements; ++i) op->inputElements[i] = va_arg(args, InputElement*);
  va_end(args);
  return op;
}

void operatorFree(Operator* op) {
  if (op == nullptr) return;
  for (int i = 0; i < op->numInputElements; ++i) {
    InputElement* ie = op->inputElements[i];
    if (ie != nullptr && ie->ie_type == IETYPE_TOKEN) {
      kyrFree(static_cast<TokenInputElement*>(ie)->string);
    }
    kyrFree(ie);
  }
  kyrFree(op->inputElements);
  kyrFree(op->name);
  kyrFree(op);
}

Operand* operandCreate(const char* name, int numSelectableValues,
                       SelectableValue** selectableValues, int numFormalArgs,
                       FormalArg** formalArgs, OperandExpressionCreatorFcn createExpression,
                       KyrDestructorFcn destroyExpression, EvaluateFcn evaluate,
                       OperandValidatorFcn validateInput, int numReturnTypes, ...) {
  auto* op = static_cast<Operand*>(kyrMalloc(sizeof(Operand)));
  op->evaluate = evaluate;
  op->name = kyrStrdup(name);
  op->numSelectableValues = selectableValues != nullptr ? numSelectableValues : 0;
  op->selectableValues = copyPointerArray(numSelectableValues, selectableValues);
  op->numFormalArgs = formalArgs != nullptr ? numFormalArgs : 0;
  op->formalArgs = copyPointerArray(numFormalArgs, formalArgs);
  op->validateInput = validateInput;
  op->createExpression = createExpression;
  op->destroyExpression = destroyExpression;
  op->numReturnTypes = numReturnTypes;
  op->returnTypes = static_cast<ExpressionType*>(kyrMalloc(
      sizeof(ExpressionType) * static_cast<size_t>(numReturnTypes > 0 ? numReturnTypes : 1)));
  va_list args;
  va_start(args, numReturnTypes);
  for (int i = 0; i < numReturnTypes; ++i) {
    op->returnTypes[i] = static_cast<ExpressionType>(va_arg(args, int));
  }
  va_end(args);
  return op;
}

void operandFree(Operand* op) {
  if (op == nullptr) return;
  freeSelectableValues(op->numSelectableValues, op->selectableValues);
  for (int i = 0; i < op->numFormalArgs; ++i) formalArgFree(op->formalArgs[i]);
  kyrFree(op->formalArgs);
  kyrFree(op->returnTypes);
  kyrFree(op->name);
  kyrFree(op);
}

const char* operandGetName(const Operand* op) { return op != nullptr ? op->name : nullptr; }
int operandGetNumReturnTypes(const Operand* op) { return op != nullptr ? op->numReturnTypes : 0; }
const ExpressionType* operandGetReturnTypes(const Operand* op) {
  return op != nullptr ? op->returnTypes : nullptr;
}

bool operandReturns(const Operand* op, ExpressionType type) {
  for (int i = 0; i < op->numReturnTypes; ++i) {
    if (op->returnTypes[i] == type) return true;
  }
  return false;
}

int operandFindFormalArg(const Operand* op, const char* name) {
  for (int i = 0; i < op->numFormalArgs; ++i) {
    if (kyrStrCmpIgnoreCase(op->formalArgs[i]->name, name) == 0) return i;
  }
  return -1;
}

FormalArg* formalArgCreate(const char* name, FormalArgType fat, const char* defaultValue,
                           int numSelectableValues, SelectableValue** selectableValues) {
  if (name == nullptr) return nullptr;
  auto* arg = static_cast<FormalArg*>(kyrMalloc(sizeof(FormalArg)));
  arg->name = kyrStrdup(name);
  arg->fat = fat;
  arg->defaultValue = kyrStrdup(defaultValue);
  arg->numSelectableValues = selectableValues != nullptr ? numSelectableValues : 0;
  arg->selectableValues = copyPointerArray(numSelectableValues, selectableValues);
  return arg;
}

void formalArgFree(FormalArg* arg) {
  if (arg == nullptr) return;
  freeSelectableValues(arg->numSelectableValues, arg->selectableValues);
  kyrFree(arg->defaultValue);
  kyrFree(arg->name);
  kyrFree(arg);
}

SelectableValue* selectableValueCreate(const char* string, int intValue) {
  auto* sv = static_cast<SelectableValue*>(kyrMalloc(sizeof(SelectableValue)));
  sv->string = kyrStrdup(string);
  sv->key = kyrStrdup(string);
  sv->intValue = intValue;
  return sv;
}

SelectableValue* selectableValueStrCreate(const char* string, const char* key) {
  auto* sv = static_cast<SelectableValue*>(kyrMalloc(sizeof(SelectableValue)));
  sv->string = kyrStrdup(string);
  sv->key = kyrStrdup(key);
  return sv;
}

void selectableValueFree(SelectableValue* sv) {
  if (sv == nullptr) return;
  kyrFree(sv->string);
  kyrFree(sv->key);
  kyrFree(sv);
}

OperandInstanceInfo* operandInstanceInfoCreate(Operand* operand, int numActualArgs,
                                               char* const* actualArgs) {
  auto* info = static_cast<OperandInstanceInfo*>(kyrMalloc(sizeof(OperandInstanceInfo)));
  info->operand = operand;
  info->numActualArguments = numActualArgs > 0 ? numActualArgs : 0;
  if (info->numActualArguments > 0) {
    info->actualArguments = static_cast<char**>(
        kyrMalloc(sizeof(char*) * static_cast<size_t>(info->numActualArguments)));
    for (int i = 0; i < info->numActualArguments; ++i) {
      info->actualArguments[i] = kyrStrdup(actualArgs[i]);
    }
  }
  return info;
}

void operandInstanceInfoFree(void* object) {
  auto* info = static_cast<OperandInstanceInfo*>(object);
  if (info == nullptr) return;
  for (int i = 0; i < info->numActualArguments; ++i) kyrFree(info->actualArguments[i]);
  kyrFree(info->actualArguments);
  kyrFree(info);
}

int operandInstanceInfoGetNumActualArgs(const OperandInstanceInfo* info) {
  return info != nullptr ? info->numActualArguments : -1;
}

char** operandInstanceInfoGetActualArgs(const OperandInstanceInfo* info) {
  return info != nullptr ? info->actualArguments : nullptr;
}

const char* operandInstanceInfoGetActualArg(const OperandInstanceInfo* info, int i) {
  if (info == nullptr || i < 0 || i >= info->numActualArguments) return nullptr;
  return info->actualArguments[i];
}

Operand* operandInstanceInfoGetOperand(const OperandInstanceInfo* info) {
  return info != nullptr ? info->operand : nullptr;
}

}  // namespace kyr
