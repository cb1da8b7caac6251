// Rule rows of the routing-data reader. Work classes and trace rule sets are stored wrapped,
// so that a rule below either finds out which kind of set it joins; a trace rule's action is a
// trace specification, and a control trace rule's becomes the handle's default at once.
// Requests read the rules of a published version while deltas change them in place, so every
// change to a rule already in a set is made under that set's lock, which matching also holds.
#include "core/kyrRuleRows.h"

#include <cstring>

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "lang/kyrHttpLanguage.h"
#include "mapping/kyrWebRouteWorkClass.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

constexpr int kControlTraceOrder = 999999;

// The object of a trace rule set's wrapper: the set, and the version whose requests consult it.
struct TraceRuleSet {
  KyrRules* rules;
  KyrRoutingInfo* ri;
};

KyrRuleParentWrapper* wrapperOf(void* obj) { return static_cast<KyrRuleParentWrapper*>(obj); }

WebRouteWorkClass* workClassOf(void* obj) {
  return static_cast<WebRouteWorkClass*>(kyrRuleParentWrapperGetObject(wrapperOf(obj)));
}

TraceRuleSet* traceSetOf(void* obj) {
  return static_cast<TraceRuleSet*>(kyrRuleParentWrapperGetObject(wrapperOf(obj)));
}

// Wrappers are kept by the version: the objects they wrap are freed by their owners.
KyrRuleParentWrapper* keptWrapper(KyrRoutingInfo* ri, void* object, KyrRuleParentWrapperType type) {
  KyrRuleParentWrapper* wrapper = kyrRuleParentWrapperCreate(object, type);
  kyrListAddTail(ri->ruleParents, wrapper);
  return wrapper;
}

// ---- webRouteWorkClass

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
bool workClassInit(void* obj) {
  rmWebRouteWorkClassInit(workClassOf(obj));
  return true;
}

void workClassDelete(void* obj) {
  rmWebRouteWorkClassDelete(workClassOf(obj));
  wrapperOf(obj)->object = nullptr;  // the wrapper itself goes with the version
}

// ---- ruleSet: only this web server's trace rules are kept.

bool isThisServer(Kyr* kyr, const char* serverName) {
  const char* shortName = strrchr(serverName, '/');
  shortName = shortName != nullptr ? shortName + 1 : serverName;
  const char* own = kyr->serverName != nullptr ? kyr->serverName : "";
  size_t ownLength = strlen(own);
  size_t shortLength = strlen(shortName);
  return shortLength <= ownLength && strcmp(own + ownLength - shortLength, shortName) == 0;
}

void* ruleSetCreate(void* server, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  Kyr* kyr = kyrRoutingInfoGetKyr(ri);
  const char* serverName = tsServerGetName(static_cast<TargetServer*>(server));
  if (strstr(fullName, "vqTraceSpecs") == nullptr || !isThisServer(kyr, serverName)) {
    trDebug(kyr->trCtx, kyr->processRec,
            "kyrRuleSetCreateFromJSON: Ignoring the rule set for server=%s as it is not this "
            "server\n",
            serverName);
    return nullptr;
  }
  auto* set = kyrNew<TraceRuleSet>();
  set->rules = kyrRulesCreate(kyrGetHttpLanguage(kyr), kyr);
  set->ri = ri;
  kyrRulesSetType(set->rules, KYRRULESTYPE_VQTRACESPEC);
  {
    KyrLockGuard guard(kyr->requestTraceRules->lock, "kyrRuleSetCreate");
    kyrListAddTail(ri->traceRuleSets, set->rules);
    kyrPublish(ri->traceRuleSetCount, kyrListGetCount(ri->traceRuleSets));
  }
  return keptWrapper(ri, set, KYRRULEPARENTTYPE_VQTRACESPEC);
}

// Requests stop consulting the set at once. Its rules stay until their own deletes or the end
// of the version: the version's object map still names them, and a later delta may reach them.
void ruleSetDelete(void* obj) {
  TraceRuleSet* set = traceSetOf(obj);
  Kyr* kyr = kyrRoutingInfoGetKyr(set->ri);
  KyrLockGuard guard(kyr->requestTraceRules->lock, "kyrRuleSetDelete");
  kyrListFindAndRemove(set->ri->traceRuleSets, set->rules);
  kyrPublish(set->ri->traceRuleSetCount, kyrListGetCount(set->ri->traceRuleSets));
}

// ---- rule

void* ruleCreate(void* parent, const char* fullName, KyrConnector*, KyrRoutingInfo*) {
  bool underWorkClass =
      kyrRuleParentWrapperGetType(wrapperOf(parent)) == KYRRULEPARENTTYPE_WEBROUTEWORKCLASS;
  if (kyrRuleParentWrapperGetObject(wrapperOf(parent)) == nullptr) return nullptr;  // deleted
  if (underWorkClass) {
    char* shortName = kyrNameGetValue(fullName, false);
    KyrRule* rule = rmEditionRoutingRuleCreate(workClassOf(parent), shortName);
    kyrFree(shortName);
    return rule;
  }
  KyrRule* rule = kyrRuleCreate(traceSetOf(parent)->rules);
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

// A request trace rule's action: its trace specification, replacing the previous one.
bool setTraceAction(KyrRule* rule, Kyr* kyr, const char* value) {
  TrSpec* spec = value != nullptr ? trSpecCreate(kyr->trMgr, value) : nullptr;
  if (spec == nullptr) return false;
  KyrLockGuard guard(kyrRuleGetRules(rule)->lock, "kyrRuleSetAction");
  if (auto* old = static_cast<TrSpec*>(kyrRuleGetObject(rule))) trSpecRefRelease(old);
  kyrRuleSetObject(rule, spec);
  return true;
}

bool ruleSetPropStr(void* obj, const char* name, const char* value) {
  auto* rule = static_cast<KyrRule*>(obj);
  KyrRules* rules = kyrRuleGetRules(rule);
  if (strcmp(name, "expression") == 0) {
    KyrLockGuard guard(rules->lock, "kyrRuleSetExpression");
    return kyrRuleSetExpr(rule, value);
  }
  if (strcmp(name, "action") != 0) return false;
  Kyr* kyr = kyrRulesGetKyr(rules);
  switch (kyrRuleGetType(rule)) {
    case KYRRULETYPE_WEBROUTEWORKCLASS:
      return rmEditionRoutingRuleSetPropStr(rule, name, value);
    case KYRRULETYPE_CONTROLTRACE:
      return kyrSetDefaultTraceSpec(kyr, value == nullptr || *value == '\0' ? ":NOTICE" : value) ==
             0;
    default:
      return setTraceAction(rule, kyr, value);
  }
}

bool ruleInitObject(void* obj) { return kyrRuleInit(static_cast<KyrRule*>(obj)); }

void ruleDelete(void* obj) {
  auto* rule = static_cast<KyrRule*>(obj);
  bool requestTrace = kyrRuleGetType(rule) == KYRRULETYPE_REQUESTTRACE;
  Kyr* kyr = kyrRulesGetKyr(kyrRuleGetRules(rule));
  kyrRuleFree(rule);
  if (requestTrace) trLog(kyr->trCtx, kyr->requestTraceSpecRemoved);
}

}  // namespace

void ruleParentFree(void* p) {
  auto* wrapper = static_cast<KyrRuleParentWrapper*>(p);
  if (kyrRuleParentWrapperGetType(wrapper) == KYRRULEPARENTTYPE_VQTRACESPEC) {
    auto* set = static_cast<TraceRuleSet*>(kyrRuleParentWrapperGetObject(wrapper));
    kyrRulesFree(set->rules);
    kyrDelete(set);
  }
  kyrRuleParentWrapperDestroy(wrapper);
}

bool kyrRuleInit(KyrRule* rule) {
  KyrRules* rules = kyrRuleGetRules(rule);
  Kyr* kyr = kyrRulesGetKyr(rules);
  if (kyrRuleGetType(rule) == KYRRULETYPE_CONTROLTRACE) {
    // It acted when its action was set; the set keeps it without an expression, so it never
    // matches a request.
    kyrRuleSetExpr(rule, nullptr);
  } else if (kyrRuleGetObject(rule) == nullptr) {
    const char* text = kyrRuleGetExpressionString(rule);
    trDebug(kyr->trCtx, kyr->processRec,
            "kyrRuleInit: rule='%s' has no action. It will be ignored.\n",
            text != nullptr ? text : "null");
    return false;
  } else if (kyrRuleGetExpressionString(rule) == nullptr) {
    kyrRuleSetExpr(rule, "true");
    kyrRuleSetOrder(rule, kKyrRuleDefaultOrder);
  }
  kyrRulesInsertRule(rules, rule);
  return true;
}

const ObjectHandler kWebRouteWorkClassRow = {"webRouteWorkClass",
                                             ParentMandatory,
                                             true,
                                             workClassCreate,
                                             workClassSetPropStr,
                                             workClassSetPropInt,
                                             workClassSetPropBool,
                                             nullptr,
                                             workClassInit,
                                             workClassDelete,
                                             {"application"},
                                             true};

const ObjectHandler kRuleRow = {"rule",
                                ParentMandatory,
                                false,
                                ruleCreate,
                                ruleSetPropStr,
                                nullptr,
                                nullptr,
                                nullptr,
                                ruleInitObject,
                                ruleDelete,
                                {"webRouteWorkClass", "ruleSet"}};

const ObjectHandler kRuleSetRow = {"ruleSet", ParentMandatory, false,     ruleSetCreate,
                                   nullptr,   nullptr,         nullptr,   nullptr,
                                   nullptr,   ruleSetDelete,   {"server"}};

}  // namespace kyr
