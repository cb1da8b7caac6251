// One rule: parsing its expression (keeping the tokenizer's error for the routing data's
// author), matching it against an object, its attributes, and the parent wrapper of rule sets.
#include "lang/kyrRule.h"

#include "lang/kyrAction.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrLangParse.h"
#include "lang/kyrTokenizer.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

TrContext* controlContext(const KyrRule* rule) {
  return rule->rules != nullptr && rule->rules->kyr != nullptr ? kyrGetTrContext(rule->rules->kyr)
                                                               : nullptr;
}

TrRecord* ruleRecord(const KyrRule* rule, TrRecord* KyrRules::*record) {
  return rule->rules != nullptr ? rule->rules->*record : nullptr;
}

void clearParse(KyrRule* rule) {
  expressionFree(rule->expr);
  rule->expr = nullptr;
  kyrFree(rule->expressionString);
  rule->expressionString = nullptr;
  kyrFree(rule->errorString);
  rule->errorString = nullptr;
  kyrFree(rule->errorPositionIndicatorString);
  rule->errorPositionIndicatorString = nullptr;
}

void parseFailed(KyrRule* rule, const char* message, int position, const char* indicator) {
  rule->errorString = kyrStrdup(message);
  rule->errorPosition = position;
  rule->errorPositionIndicatorString = kyrStrdup(indicator);
  trLog(controlContext(rule), ruleRecord(rule, &KyrRules::recCtrlParseError),
        rule->expressionString, position, message);
}

void freeAttachedObject(KyrRule* rule) {
  switch (rule->ruleType) {
    case KYRRULETYPE_WEBROUTEWORKCLASS:
      actionDelete(static_cast<Action*>(rule->object));
      break;
    case KYRRULETYPE_REQUESTTRACE:
    case KYRRULETYPE_CONTROLTRACE:
      if (rule->object != nullptr) trSpecRefRelease(static_cast<TrSpec*>(rule->object));
      break;
    default:
      break;  // the owner keeps it
  }
  rule->object = nullptr;
}

}  // namespace

KyrRule* kyrRuleCreate(KyrRules* rules) {
  auto* rule = static_cast<KyrRule*>(kyrMalloc(sizeof(KyrRule)));
  rule->rules = rules;
  rule->errorPosition = -1;
  rule->order = kKyrRuleDefaultOrder;
  rule->ruleType = KYRRULETYPE_UNKNOWN;
  return rule;
}

void kyrRuleFree(KyrRule* rule) {
  if (rule == nullptr) return;
  if (rule->rules != nullptr) kyrRulesRemoveRule(rule->rules, rule);
  freeAttachedObject(rule);
  clearParse(rule);
  kyrFree(rule);
}

bool kyrRuleSetExpr(KyrRule* rule, const char* text) {
  clearParse(rule);
  if (text == nullptr) {
    rule->errorPosition = 0;
    rule->expressionString = kyrStrdup("NULL");
    return true;
  }
  // The text is kept even when it fails, so that dumps and traces can show what was wrong.
  rule->expressionString = kyrStrdup(text);
  Tokenizer* t = tokenizerCreate(text);
  bool ok = false;
  if (tokenizerIsError(t)) {
    parseFailed(rule, tokenizerGetErrorMessage(t), tokenizerGetErrorPosition(t),
                tokenizerGetErrorPositionIndicatorString(t));
  } else {
    Language* lang = rule->rules != nullptr ? rule->rules->language : nullptr;
    Expression* expr = langParse(lang, t, 0, EXPR_BOOLEAN, nullptr);
    if (tokenizerIsError(t)) {
      expressionFree(expr);
      parseFailed(rule, tokenizerGetErrorMessage(t), tokenizerGetErrorPosition(t),
                  tokenizerGetErrorPositionIndicatorString(t));
    } else if (expr == nullptr) {
      parseFailed(rule, "kyrRule: Internal Error - no expression created.", 0, "^");
    } else {
      rule->expr = expr;
      rule->errorPosition = -1;
      trDebug(controlContext(rule), ruleRecord(rule, &KyrRules::recCtrlParseProcess),
              "kyrRule: Parsed expression '%s' for rule #%d", text, rule->order);
      ok = true;
    }
  }
  tokenizerFree(t);
  return ok;
}

bool kyrRuleMatches(TrContext* trCtx, KyrRule* rule, void* object) {
  if (rule == nullptr) return false;
  TrRecord* process = ruleRecord(rule, &KyrRules::recReqProcess);
  // The set's own record is the evaluation's debug record, so no lookup per rule is needed.
  LocalEvaluationContext ec(trCtx, process, object);
  if (rule->expr == nullptr) return false;
  EvalValue result = expressionEvaluate(rule->expr, ec.get());
  bool matches = result.firstWordAsBoolean();
  if (matches) {
    trDebug(trCtx, process, "kyrRule: Rule #%d (%s) matches context %p", rule->order,
            rule->expressionString != nullptr ? rule->expressionString : "NULL", object);
  }
  return matches;
}

void kyrRuleSetOrder(KyrRule* rule, int order) { rule->order = order; }
int kyrRuleGetOrder(const KyrRule* rule) { return rule->order; }
void kyrRuleSetType(KyrRule* rule, KyrRuleType type) { rule->ruleType = type; }
KyrRuleType kyrRuleGetType(const KyrRule* rule) { return rule->ruleType; }

const char* kyrRuleGetTypeString(const KyrRule* rule) {
  if (rule == nullptr) return "UNKNOWN-NULL";
  switch (rule->ruleType) {
    case KYRRULETYPE_UNKNOWN:
      return "UNKNOWN";
    case KYRRULETYPE_WEBROUTEWORKCLASS:
      return "WEBROUTEWORKCLASS";
    case KYRRULETYPE_REQUESTTRACE:
      return "REQUESTTRACE";
    case KYRRULETYPE_CONTROLTRACE:
      return "CONTROLTRACE";
    default:
      return "UNKNOWN!";  // deliberately the health-policy type too: it has no print name
  }
}

void kyrRuleSetObject(KyrRule* rule, void* object) { rule->object = object; }
void* kyrRuleGetObject(const KyrRule* rule) { return rule->object; }
void kyrRuleSetApplication(KyrRule* rule, void* application) { rule->application = application; }
void* kyrRuleGetApplication(const KyrRule* rule) { return rule->application; }
KyrRules* kyrRuleGetRules(const KyrRule* rule) { return rule->rules; }
Expression* kyrRuleGetExpr(const KyrRule* rule) { return rule->expr; }
const char* kyrRuleGetExpressionString(const KyrRule* rule) { return rule->expressionString; }
bool kyrRuleIsError(const KyrRule* rule) { return rule->errorString != nullptr; }
const char* kyrRuleGetError(const KyrRule* rule) { return rule->errorString; }
int kyrRuleGetErrorPosition(const KyrRule* rule) { return rule->errorPosition; }
const char* kyrRuleGetErrorPositionIndicatorString(const KyrRule* rule) {
  return rule->errorPositionIndicatorString;
}

KyrRuleParentWrapper* kyrRuleParentWrapperCreate(void* object, KyrRuleParentWrapperType type) {
  auto* wrapper = static_cast<KyrRuleParentWrapper*>(kyrMalloc(sizeof(KyrRuleParentWrapper)));
  wrapper->type = type;
  wrapper->object = object;
  return wrapper;
}

void kyrRuleParentWrapperDestroy(KyrRuleParentWrapper* wrapper) { kyrFree(wrapper); }

KyrRuleParentWrapperType kyrRuleParentWrapperGetType(const KyrRuleParentWrapper* wrapper) {
  return wrapper != nullptr ? wrapper->type : KYRRULEPARENTTYPE_UNKNOWN;
}

void* kyrRuleParentWrapperGetObject(const KyrRuleParentWrapper* wrapper) {
  return wrapper != nullptr ? wrapper->object : nullptr;
}

}  // namespace kyr
