// One rule: parsing its expression (keeping the tokenizer's error for the routing data's
// author), matching it against an object, its attributes, and the parent wrapper of rule sets.
#include "lang/kyrRule.h"

#include <cstring>

#include "lang/kyrAction.h"
#include "lang/kyrEvalContext.h"
#include "lang/kyrLangParse.h"
#include "lang/kyrTokenizer.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
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

// What parsing a text gives a rule. It is built aside and then replaces the rule's parse
// whole: requests may be matching the rule while a document changes its expression.
struct Parse {
  Expression* expr = nullptr;
  char* expressionString = nullptr;
  char* errorString = nullptr;
  int errorPosition = -1;
  char* errorPositionIndicatorString = nullptr;
};

void freeText(void* text) { kyrFree(text); }
void freeExpression(void* expr) { expressionFree(static_cast<Expression*>(expr)); }

// Installs `next` and gives up what it replaces through the rule's set.
void replaceParse(KyrRule* rule, const Parse& next) {
  KyrRules* rules = rule->rules;
  kyrRulesDispose(rules, kyrPublishExchange(rule->expr, next.expr), freeExpression,
                  sizeof(Expression));
  char* text = kyrPublishExchange(rule->expressionString, next.expressionString);
  kyrRulesDispose(rules, text, freeText, text != nullptr ? strlen(text) + 1 : 0);
  // The error texts are read only by dumps and lookups under the set's lock.
  kyrFree(rule->errorString);
  rule->errorString = next.errorString;
  rule->errorPosition = next.errorPosition;
  kyrFree(rule->errorPositionIndicatorString);
  rule->errorPositionIndicatorString = next.errorPositionIndicatorString;
}

void parseFailed(const KyrRule* rule, Parse* parse, const char* message, int position,
                 const char* indicator) {
  parse->errorString = kyrStrdup(message);
  parse->errorPosition = position;
  parse->errorPositionIndicatorString = kyrStrdup(indicator);
  trLog(controlContext(rule), ruleRecord(rule, &KyrRules::recCtrlParseError),
        parse->expressionString, position, message);
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

// A request matching the set without its lock may still be evaluating the rule, so the set
// decides when it is freed.
void kyrRuleFree(KyrRule* rule) {
  if (rule == nullptr) return;
  KyrRules* rules = rule->rules;
  if (rules != nullptr) kyrRulesRemoveRule(rules, rule);
  kyrRulesDispose(rules, rule, kyrRuleFreeDetached, sizeof(KyrRule));
}

void kyrRuleFreeDetached(void* p) {
  auto* rule = static_cast<KyrRule*>(p);
  freeAttachedObject(rule);
  expressionFree(rule->expr);
  kyrFree(rule->expressionString);
  kyrFree(rule->errorString);
  kyrFree(rule->errorPositionIndicatorString);
  kyrFree(rule);
}

bool kyrRuleSetExpr(KyrRule* rule, const char* text) {
  Parse parse;
  if (text == nullptr) {
    parse.errorPosition = 0;
    parse.expressionString = kyrStrdup("NULL");
    replaceParse(rule, parse);
    return true;
  }
  // The text is kept even when it fails, so that dumps and traces can show what was wrong.
  parse.expressionString = kyrStrdup(text);
  Tokenizer* t = tokenizerCreate(text);
  bool ok = false;
  if (tokenizerIsError(t)) {
    parseFailed(rule, &parse, tokenizerGetErrorMessage(t), tokenizerGetErrorPosition(t),
                tokenizerGetErrorPositionIndicatorString(t));
  } else {
    Language* lang = rule->rules != nullptr ? rule->rules->language : nullptr;
    Expression* expr = langParse(lang, t, 0, EXPR_BOOLEAN, nullptr);
    if (tokenizerIsError(t)) {
      expressionFree(expr);
      parseFailed(rule, &parse, tokenizerGetErrorMessage(t), tokenizerGetErrorPosition(t),
                  tokenizerGetErrorPositionIndicatorString(t));
    } else if (expr == nullptr) {
      parseFailed(rule, &parse, "kyrRule: Internal Error - no expression created.", 0, "^");
    } else {
      parse.expr = expr;
      trDebug(controlContext(rule), ruleRecord(rule, &KyrRules::recCtrlParseProcess),
              "kyrRule: Parsed expression '%s' for rule #%d", text, rule->order);
      ok = true;
    }
  }
  tokenizerFree(t);
  replaceParse(rule, parse);
  return ok;
}

bool kyrRuleMatches(TrContext* trCtx, KyrRule* rule, void* object) {
  if (rule == nullptr) return false;
  TrRecord* process = ruleRecord(rule, &KyrRules::recReqProcess);
  // The set's own record is the evaluation's debug record, so no lookup per rule is needed.
  LocalEvaluationContext ec(trCtx, process, object);
  const Expression* expr = kyrPublished(rule->expr);
  if (expr == nullptr) return false;
  EvalValue result = expressionEvaluate(expr, ec.get());
  bool matches = result.firstWordAsBoolean();
  if (matches) {
    const char* text = kyrPublished(rule->expressionString);
    trDebug(trCtx, process, "kyrRule: Rule #%d (%s) matches context %p", rule->order,
            text != nullptr ? text : "NULL", object);
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

void kyrRuleSetObject(KyrRule* rule, void* object) { kyrPublish(rule->object, object); }
void* kyrRuleGetObject(const KyrRule* rule) { return kyrPublished(rule->object); }
void kyrRuleSetApplication(KyrRule* rule, void* application) { rule->application = application; }
void* kyrRuleGetApplication(const KyrRule* rule) { return rule->application; }
KyrRules* kyrRuleGetRules(const KyrRule* rule) { return rule->rules; }
Expression* kyrRuleGetExpr(const KyrRule* rule) { return kyrPublished(rule->expr); }
const char* kyrRuleGetExpressionString(const KyrRule* rule) {
  return kyrPublished(rule->expressionString);
}
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
