// Reduction of the parse stack by the registered operator patterns. Registration order is the
// only precedence: a pass tries the operators in that order and, for each, every start
// position from the bottom up, and the first pattern that matches is reduced. Because the
// stack is reduced after every token, operators of equal standing group from left to right.
#include <cstring>

#include "lang/kyrLangParse.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

constexpr int kMaxSlots = 16;  // longer patterns never match

// How one pattern slot takes its stack entry.
struct SlotPlan {
  enum Kind { KEYWORD, OPERAND, EXPRESSION, SELECTABLE_INT } kind;
  Expression* expr;  // EXPRESSION: the entry's expression, or the element of a singleton list
  int intValue;      // SELECTABLE_INT: the value the entry's text selects
};

bool typesCompatible(ExpressionType want, ExpressionType have) {
  if (want == have) return true;
  return (want == EXPR_INT && have == EXPR_LONG) || (want == EXPR_LONG && have == EXPR_INT);
}

Expression* firstListItem(const Expression* list) {
  return static_cast<Expression*>(
      kyrListEleGetObject(kyrListGetHead(expressionGetListValue(list))));
}

// Unwraps constant lists of exactly one element, repeatedly. Nothing is detached here.
Expression* promoteSingletonList(Expression* expr) {
  while (expressionIsList(expr) && kyrListGetCount(expressionGetListValue(expr)) == 1) {
    expr = firstListItem(expr);
  }
  return expr;
}

// Takes `inner` out of the nest of singleton lists rooted at `outer`, which is then freed
// with its stack entry while `inner` lives on in the new expression.
void detachFromSingletonLists(Expression* outer, Expression* inner) {
  for (Expression* e = outer; e != inner;) {
    KyrList* items = expressionGetListValue(e);
    Expression* child = firstListItem(e);
    if (child == inner) {
      kyrListRemove(items, kyrListGetHead(items));
      return;
    }
    e = child;
  }
}

bool isStringConstant(const Expression* expr) {
  return expr->embodiment == EXPR_IS_CONSTANT && expressionGetType(expr) == EXPR_STRING;
}

// A text where an integer is wanted may name one of the selectable values of the operand just
// accepted. Deliberately strict: only the entry directly below may be that operand reference.
bool selectableIntFor(ElementStack& stack, int index, const Operand* lastOperand,
                      const Expression* text, int* value) {
  if (lastOperand == nullptr || stack.at(index - 1).elementType != eet_OperandInstanceInfo) {
    return false;
  }
  const char* s = expressionGetStringValue(text);
  for (int i = 0; i < lastOperand->numSelectableValues; ++i) {
    const SelectableValue* sv = lastOperand->selectableValues[i];
    if (kyrStrCmpIgnoreCase(sv->string, s) == 0) {
      *value = sv->intValue;
      return true;
    }
  }
  return false;
}

bool planTypedSlot(ElementStack& stack, int index, bool firstSlot, ExpressionType want,
                   const Operand** lastOperand, SlotPlan* plan) {
  ElementEntry& entry = stack.at(index);
  if (entry.elementType == eet_OperandInstanceInfo) {
    auto* info = static_cast<OperandInstanceInfo*>(entry.object);
    if (!operandReturns(info->operand, want)) return false;
    *lastOperand = info->operand;
    plan->kind = SlotPlan::OPERAND;
    return true;
  }
  if (entry.elementType != eet_Expression) return false;
  auto* expr = static_cast<Expression*>(entry.object);
  if (!firstSlot && want == EXPR_INT && isStringConstant(expr)) {
    plan->kind = SlotPlan::SELECTABLE_INT;
    return selectableIntFor(stack, index, *lastOperand, expr, &plan->intValue);
  }
  if (!typesCompatible(want, expressionGetType(expr))) {
    expr = promoteSingletonList(expr);
    if (expressionGetType(expr) != want) return false;
  }
  plan->kind = SlotPlan::EXPRESSION;
  plan->expr = expr;
  return true;
}

// Decides, without changing anything, whether `op` matches the stack at `start`.
bool planMatch(const Operator* op, ElementStack& stack, int start, SlotPlan* plans) {
  if (op->numInputElements <= 0 || op->numInputElements > kMaxSlots ||
      start + op->numInputElements > stack.size()) {
    return false;
  }
  const Operand* lastOperand = nullptr;
  for (int j = 0; j < op->numInputElements; ++j) {
    const InputElement* ie = op->inputElements[j];
    ElementEntry& entry = stack.at(start + j);
    switch (ie->ie_type) {
      case IETYPE_TOKEN:
        if (entry.elementType != eet_Identifier ||
            kyrStrCmpIgnoreCase(static_cast<const TokenInputElement*>(ie)->string,
                                static_cast<const char*>(entry.object)) != 0) {
          return false;
        }
        plans[j].kind = SlotPlan::KEYWORD;
        break;
      case IETYPE_EXPRTYPE:
        if (!planTypedSlot(stack, start + j, j == 0, static_cast<const TypeInputElement*>(ie)->type,
                           &lastOperand, &plans[j])) {
          return false;
        }
        break;
      default:
        langReportError("kyrLanguage", "Bad expected type!  expectedEle=%d\n", ie->ie_type);
        return false;
    }
  }
  return true;
}

// Builds the inputs of a planned match and the operator's expression; on success the stack
// entries from `start` up are replaced by it. On failure nothing on the stack has changed.
bool reduceAt(Operator* op, ElementStack& stack, int start, const SlotPlan* plans,
              const ExpressionOrigin& origin) {
  Expression* inputs[kMaxSlots];
  bool created[kMaxSlots] = {};
  int numInputs = 0;
  Operand* lastOperand = nullptr;
  bool ok = true;
  for (int j = 0; j < op->numInputElements && ok; ++j) {
    ElementEntry& entry = stack.at(start + j);
    const SlotPlan& plan = plans[j];
    if (plan.kind == SlotPlan::KEYWORD) continue;
    Expression* input = nullptr;
    if (plan.kind == SlotPlan::OPERAND) {
      auto* info = static_cast<OperandInstanceInfo*>(entry.object);
      input = operandExpressionCreate(
          info->operand, static_cast<const TypeInputElement*>(op->inputElements[j])->type,
          info->numActualArguments, info->actualArguments, origin);
      lastOperand = info->operand;
    } else {
      input = plan.kind == SlotPlan::SELECTABLE_INT ? integerConstantCreate(plan.intValue, origin)
                                                    : plan.expr;
      // The validator's answer is deliberately not used: it may only look.
      if (lastOperand != nullptr && lastOperand->validateInput != nullptr) {
        lastOperand->validateInput(lastOperand, op, input);
      }
    }
    ok = input != nullptr;
    created[numInputs] = plan.kind != SlotPlan::EXPRESSION;
    inputs[numInputs++] = input;
  }
  Expression* expr = ok ? operatorExpressionCreate(op, inputs, numInputs, origin) : nullptr;
  if (expr == nullptr) {
    for (int i = 0; i < numInputs; ++i) {
      if (created[i]) expressionFree(inputs[i]);
    }
    return false;
  }
  // The new expression owns its inputs now: take them off their stack entries.
  for (int j = 0; j < op->numInputElements; ++j) {
    ElementEntry& entry = stack.at(start + j);
    if (plans[j].kind != SlotPlan::EXPRESSION) continue;
    auto* outer = static_cast<Expression*>(entry.object);
    if (outer == plans[j].expr) {
      entry.object = nullptr;
    } else {
      detachFromSingletonLists(outer, plans[j].expr);
    }
  }
  stack.truncate(start);
  stack.pushExpression(expr);
  return true;
}

bool langReduceSinglePass(Language* lang, ElementStack& stack, const ExpressionOrigin& origin) {
  SlotPlan plans[kMaxSlots];
  for (KyrListEle* e = kyrListGetHead(lang->operators); e != nullptr; e = kyrListGetNext(e)) {
    auto* op = static_cast<Operator*>(kyrListEleGetObject(e));
    for (int start = 0; start + op->numInputElements <= stack.size(); ++start) {
      if (planMatch(op, stack, start, plans) && reduceAt(op, stack, start, plans, origin)) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

void ElementStack::truncate(int from) {
  while (size() > from) {
    ElementEntry entry = entries_.back();
    entries_.pop_back();
    if (entry.object != nullptr && entry.destructor != nullptr) entry.destructor(entry.object);
  }
}

bool langReduceCompletely(Language* lang, ElementStack& stack, const ExpressionOrigin& origin) {
  bool reduced = false;
  while (langReduceSinglePass(lang, stack, origin)) reduced = true;
  return reduced;
}

}  // namespace kyr
