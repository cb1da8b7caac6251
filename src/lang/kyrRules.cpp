// Rule sets: ordered insertion, removal, purge, the first-match walk, and the dump written to
// "control.rules.list" after every change.

#include "lang/kyrRule.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

TrContext* controlContext(const KyrRules* rules) {
  return rules->kyr != nullptr ? kyrGetTrContext(rules->kyr) : nullptr;
}

void lookUpRecords(KyrRules* rules) {
  TrMgr* mgr = rules->kyr != nullptr ? kyrGetTrMgr(rules->kyr) : nullptr;
  rules->recReqMatch = trMgrGetRecord(mgr, "http.request.rules.traceRuleMatch");
  rules->recReqProcess = trMgrGetRecord(mgr, "http.request.rules.process");
  rules->recCtrlParseError = trMgrGetRecord(mgr, "control.rules.parsing.error");
  rules->recCtrlParseProcess = trMgrGetRecord(mgr, "control.rules.parsing.process");
  rules->recCtrlInsert = trMgrGetRecord(mgr, "control.rules.insertAndRemove");
  rules->recCtrlList = trMgrGetRecord(mgr, "control.rules.list");
  rules->recCtrlProcess = trMgrGetRecord(mgr, "control.rules.process");
}

const char* textOf(const KyrRule* rule, const char* none) {
  return rule->expressionString != nullptr ? rule->expressionString : none;
}

void dumpIfListed(KyrRules* rules, const char* where) {
  TrContext* ctx = controlContext(rules);
  if (trEnabled(ctx, rules->recCtrlList)) dumpRules(where, ctx, rules);
}

// Publishes the list as the new match order and gives up the old one. Under the lock.
void publishMatchOrder(KyrRules* rules) {
  auto** order = reinterpret_cast<KyrRule**>(kyrListCreateArray(rules->rules));
  KyrRule** old = kyrPublishExchange(rules->matchOrder, order);
  int count = kyrListGetCount(rules->rules);
  kyrPublish(rules->size, count);
  if (old != nullptr) kyrRulesDispose(rules, old, free, (count + 1) * sizeof(KyrRule*));
}

// Frees the rules of a list taken out of `rules`, or retires them through it; with `rules` null
// they are freed at once.
void freeDetachedRules(KyrRules* rules, KyrList* list) {
  while (auto* rule = static_cast<KyrRule*>(kyrListRemoveHead(list))) {
    kyrRulesDispose(rules, rule, kyrRuleFreeDetached, sizeof(KyrRule));
  }
  kyrListDestroyDbg(list);
}

KyrList* detachAll(KyrRules* rules) {
  KyrLockGuard guard(rules->lock, "kyrRulesPurge");
  KyrList* all = rules->rules;
  rules->rules = kyrListCreateDbg(nullptr);
  publishMatchOrder(rules);
  return all;
}

}  // namespace

KyrRules* kyrRulesCreate(Language* language, Kyr* kyr) {
  auto* rules = static_cast<KyrRules*>(kyrMalloc(sizeof(KyrRules)));
  rules->rules = kyrListCreateDbg(nullptr);
  rules->lock = kyrLockCreate("kyrRules");
  rules->matchOrder = reinterpret_cast<KyrRule**>(kyrListCreateArray(rules->rules));
  rules->language = language;
  rules->kyr = kyr;
  rules->type = KYRRULESTYPE_UNKNOWN;
  lookUpRecords(rules);
  return rules;
}

void kyrRulesFree(KyrRules* rules) {
  if (rules == nullptr) return;
  freeDetachedRules(nullptr, rules->rules);  // no request reads a set that is being freed
  free(rules->matchOrder);
  kyrLockDestroy(rules->lock);
  kyrFree(rules);
}

void kyrRulesSetType(KyrRules* rules, KyrRulesType type) { rules->type = type; }
KyrRulesType kyrRulesGetType(const KyrRules* rules) { return rules->type; }

const char* kyrRulesGetTypeString(const KyrRules* rules) {
  if (rules == nullptr) return "UNKNOWN-NULL";
  switch (rules->type) {
    case KYRRULESTYPE_UNKNOWN:
      return "UNKNOWN";
    case KYRRULESTYPE_WEBROUTEWORKCLASS:
      return "WEBROUTEWORKCLASS";
    case KYRRULESTYPE_VQTRACESPEC:
      return "VQTRACESPEC";
    default:
      return "UNKNOWN!";
  }
}

void kyrRulesSetKyr(KyrRules* rules, Kyr* kyr) {
  rules->kyr = kyr;
  lookUpRecords(rules);
}

Kyr* kyrRulesGetKyr(const KyrRules* rules) { return rules->kyr; }
Language* kyrRulesGetLang(const KyrRules* rules) { return rules->language; }
void kyrRulesLockObtain(KyrRules* rules, const char* who) { kyrLockObtain(rules->lock, who); }
void kyrRulesLockRelease(KyrRules* rules) { kyrLockRelease(rules->lock); }

void kyrRulesInsertRule(KyrRules* rules, KyrRule* rule) {
  trDebug(controlContext(rules), rules->recCtrlInsert,
          "kyrRule: Inserting rule #%d ('%s') into rules container of type %s.\n", rule->order,
          textOf(rule, "NULL"), kyrRulesGetTypeString(rules));
  {
    KyrLockGuard guard(rules->lock, "kyrRulesAddRule");
    rule->rules = rules;
    KyrListEle* e = kyrListGetHead(rules->rules);
    while (e != nullptr && static_cast<KyrRule*>(kyrListEleGetObject(e))->order <= rule->order) {
      e = kyrListGetNext(e);
    }
    if (e != nullptr) {
      kyrListInsertBefore(rules->rules, e, rule);
    } else {
      kyrListAddTail(rules->rules, rule);
    }
    publishMatchOrder(rules);
  }
  dumpIfListed(rules, "after insertion");
}

KyrRule* kyrRulesRemoveRule(KyrRules* rules, KyrRule* rule) {
  trDebug(controlContext(rules), rules->recCtrlInsert,
          "kyrRule: Removing rule #%d (%s)from rules object\n", rule->order, textOf(rule, "null"));
  KyrRule* removed;
  {
    KyrLockGuard guard(rules->lock, "kyrRulesRemoveRule");
    removed = static_cast<KyrRule*>(kyrListFindAndRemove(rules->rules, rule));
    if (removed != nullptr) publishMatchOrder(rules);
  }
  dumpIfListed(rules, "after removal");
  return removed;
}

void kyrRulesPurge(KyrRules* rules) { freeDetachedRules(rules, detachAll(rules)); }

void kyrRulesSetRetire(KyrRules* rules, KyrRulesRetireFcn retire, void* owner) {
  rules->retire = retire;
  rules->retireOwner = owner;
}

void kyrRulesDispose(KyrRules* rules, void* object, void (*freeFn)(void*), size_t bytes) {
  if (object == nullptr) return;
  if (rules != nullptr && rules->retire != nullptr) {
    rules->retire(rules->retireOwner, object, freeFn, bytes);
  } else {
    freeFn(object);
  }
}

bool kyrRulesIsEmpty(KyrRules* rules) { return kyrPublished(rules->size) == 0; }

KyrRule* kyrRulesFindMatchingRule(TrContext* trCtx, KyrRules* rules, void* object) {
  if (rules == nullptr) return nullptr;
  for (KyrRule** rule = kyrPublished(rules->matchOrder); *rule != nullptr; ++rule) {
    if (kyrRuleMatches(trCtx, *rule, object)) return *rule;
  }
  trDebug(trCtx, rules->recReqProcess, "kyrRule: No rule found matching context %p", object);
  return nullptr;
}

void dumpRules(const char* where, TrContext* trCtx, KyrRules* rules) {
  KyrLockGuard guard(rules->lock, "dumpRules");
  trDebug(trCtx, rules->recCtrlList, "kyrRules: %s rules - %s\n", kyrRulesGetTypeString(rules),
          where);
  for (KyrListEle* e = kyrListGetHead(rules->rules); e != nullptr; e = kyrListGetNext(e)) {
    auto* rule = static_cast<KyrRule*>(kyrListEleGetObject(e));
    if (kyrRuleIsError(rule)) {
      trDebug(trCtx, rules->recCtrlList,
              "kyrRule: Rule %d: type=%s expr='%s' Error Message: %s, position=%d\n", rule->order,
              kyrRuleGetTypeString(rule), textOf(rule, "NULL"), rule->errorString,
              rule->errorPosition);
    } else {
      trDebug(trCtx, rules->recCtrlList, "kyrRule: Rule %d: type=%s expr='%s'\n", rule->order,
              kyrRuleGetTypeString(rule), textOf(rule, "NULL"));
    }
  }
}

}  // namespace kyr
