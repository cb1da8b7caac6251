// Rule rows of the routing-data reader. Work classes and trace rule sets are stored wrapped,
// so that a rule below either finds out which kind of set it joins; a trace rule's action is a
// trace specification, and a control trace rule's becomes the handle's default at once.
#include "core/kyrRuleRows.h"

#include <cstring>

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "lang/kyrHttpLanguage.h"
#include "mapping/kyrWebRouteWorkClass.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

constexpr int kControlTraceOrder = 999999;

KyrRuleParentWrapper* wrapperOf(void* obj) { return static_cast<KyrRuleParentWrapper*>(obj); }

WebRouteWorkClass* workClassOf(void* obj) {
  return static_cast<WebRouteWorkClass*>(kyrRuleParentWrapperGetObject(wrapperOf(obj)));
}

KyrRules* traceRulesOf(void* obj) {
  return static_cast<KyrRules*>(kyrRuleParentWrapperGetObject(wrapperOf(obj)));
}

// ---- webRouteWorkClass

// Wrappers are kept by the version: the objects they wrap are freed by their owners.
KyrRuleParentWrapper* keptWrapper(KyrRoutingInfo* ri, void* object, KyrRuleParentWrapperType type) {
  KyrRuleParentWrapper* wrapper = kyrRuleParentWrapperCreate(object, type);
  kyrListAddTail(ri->ruleParents, wrapper);
  return wrapper;
}

void* workClassCreate(void* app, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  return keptWrapper(ri, rmWebRouteWorkClassCreate(static_cast<Application*>(app), fullName),
                     KYRRULEPARENTTYPE_WEBROUTEWORKCLASS);
}

bool workClassSetPropStr(void* obj, const char* name, const char* value) {
  return rmWebRouteWorkClassSetPropStr(workClassOf(obj), name, value);
}
bool workClassSetPropInt(void* obj, const char* name, int value) {
  return rmWebRouteWorkClassSetPropInt(workClassOf(obj), name, value);
}
bool workClassSetPropBool(void* obj, const char* name, bool value) {
  return rmWebRouteWorkClassSetPropBool(workClassOf(obj), name, value);
}
void workClassInit(void* obj) { rmWebRouteWorkClassInit(workClassOf(obj)); }

void workClassDelete(void* obj) {
  rmWebRouteWorkClassDelete(workClassOf(obj));
  wrapperOf(obj)->object = nullptr;  // the wrapper itself goes with the version
}

// ---- ruleSet: only this web server's trace rules are kept.

void* ruleSetCreate(void* server, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  Kyr* kyr = kyrRoutingInfoGetKyr(ri);
  const char* serverName = tsServerGetName(static_cast<TargetServer*>(server));
  const char* shortName = strrchr(serverName, '/');
  shortName = shortName != nullptr ? shortName + 1 : serverName;
  const char* own = kyr->serverName != nullptr ? kyr->serverName : "";
  size_t ownLength = strlen(own);
  size_t shortLength = strlen(shortName);
  bool ours = shortLength <= ownLength && strcmp(own + ownLength - shortLength, shortName) == 0;
  if (strstr(fullName, "vqTraceSpecs") == nullptr || !ours) {
    trDebug(kyr->trCtx, kyr->processRec,
            "kyrRuleSetCreateFromJSON: Ignoring the rule set for server=%s as it is not this "
            "server\n",
            serverName);
    return nullptr;
  }
  KyrRules* rules = kyrRulesCreate(kyrGetHttpLanguage(kyr), kyr);
  kyrRulesSetType(rules, KYRRULESTYPE_VQTRACESPEC);
  return keptWrapper(ri, rules, KYRRULEPARENTTYPE_VQTRACESPEC);
}

// The set is emptied now and freed with its wrapper when the version goes.
void ruleSetDelete(void* obj) { kyrRulesPurge(traceRulesOf(obj)); }

// ---- rule

void* ruleCreate(void* parent, const char* fullName, KyrConnector*, KyrRoutingInfo*) {
  if (kyrRuleParentWrapperGetObject(wrapperOf(parent)) == nullptr) return nullptr;  // deleted
  if (kyrRuleParentWrapperGetType(wrapperOf(parent)) == KYRRULEPARENTTYPE_WEBROUTEWORKCLASS) {
    char* shortName = kyrNameGetValue(fullName, false);
    KyrRule* rule = rmEditionRoutingRuleCreate(workClassOf(parent), shortName);
    kyrFree(shortName);
    return rule;
  }
  KyrRule* rule = kyrRuleCreate(traceRulesOf(parent));
  const char* lastSegment = strrchr(fullName, '/');
  if (lastSegment != nullptr && strstr(lastSegment, "default") != nullptr) {
    kyrRuleSetType(rule, KYRRULETYPE_CONTROLTRACE);
    kyrRuleSetOrder(rule, kControlTraceOrder);
  } else {
    kyrRuleSetType(rule, KYRRULETYPE_REQUESTTRACE);
    kyrRuleSetOrder(rule, ruleNameToSortOrder(fullName));
  }
  return rule;
}

bool ruleSetPropStr(void* obj, const char* name, const char* value) {
  auto* rule = static_cast<KyrRule*>(obj);
  if (strcmp(name, "expression") == 0) return kyrRuleSetExpr(rule, value);
  if (strcmp(name, "action") != 0) return false;
  Kyr* kyr = kyrRulesGetKyr(kyrRuleGetRules(rule));
  switch (kyrRuleGetType(rule)) {
    case KYRRULETYPE_WEBROUTEWORKCLASS:
      return rmEditionRoutingRuleSetPropStr(rule, name, value);
    case KYRRULETYPE_CONTROLTRACE:
      return kyrSetDefaultTraceSpec(kyr, value == nullptr || *value == '\0' ? ":NOTICE" : value) == 0;
    default: {
      TrSpec* spec = trSpecCreate(kyr->trMgr, value);
      if (spec == nullptr) return false;
      if (TrSpec* old = static_cast<TrSpec*>(kyrRuleGetObject(rule))) trSpecRefRelease(old);
      kyrRuleSetObject(rule, spec);
      return true;
    }
  }
}

void ruleInitObject(void* obj) { kyrRuleInit(static_cast<KyrRule*>(obj)); }

void ruleDelete(void* obj) { kyrRuleFree(static_cast<KyrRule*>(obj)); }

}  // namespace

void ruleParentFree(void* p) {
  auto* wrapper = static_cast<KyrRuleParentWrapper*>(p);
  if (kyrRuleParentWrapperGetType(wrapper) == KYRRULEPARENTTYPE_VQTRACESPEC) {
    kyrRulesFree(static_cast<KyrRules*>(kyrRuleParentWrapperGetObject(wrapper)));
  }
  kyrRuleParentWrapperDestroy(wrapper);
}

void kyrRuleInit(KyrRule* rule) {
  KyrRules* rules = kyrRuleGetRules(rule);
  Kyr* kyr = kyrRulesGetKyr(rules);
  // A control trace rule acts when its action is set; it has nothing to match.
  if (kyrRuleGetType(rule) == KYRRULETYPE_CONTROLTRACE) return;
  if (kyrRuleGetObject(rule) == nullptr) {
    trDebug(kyr->trCtx, kyr->processRec, "kyrRuleInit: rule='%s' has no action. It will be ignored.\n",
            kyrRuleGetExpressionString(rule) != nullptr ? kyrRuleGetExpressionString(rule) : "null");
    // Kept in the set, which owns it, without an expression, so it never matches.
    kyrRuleSetExpr(rule, nullptr);
  } else if (kyrRuleGetExpressionString(rule) == nullptr) {
    kyrRuleSetExpr(rule, "true");
    kyrRuleSetOrder(rule, kKyrRuleDefaultOrder);
  }
  kyrRulesInsertRule(rules, rule);
}

const ObjectHandler kWebRouteWorkClassRow = {"webRouteWorkClass", ParentMandatory, true,
                                             workClassCreate,     workClassSetPropStr,
                                             workClassSetPropInt, workClassSetPropBool,
                                             nullptr,             workClassInit,
                                             workClassDelete};

const ObjectHandler kRuleRow = {"rule",  ParentMandatory, false,          ruleCreate,
                                ruleSetPropStr, nullptr,  nullptr,        nullptr,
                                ruleInitObject, ruleDelete};

const ObjectHandler kRuleSetRow = {"ruleSet", ParentMandatory, false,   ruleSetCreate, nullptr,
                                   nullptr,   nullptr,         nullptr, nullptr,       ruleSetDelete};

}  // namespace kyr
