// Work classes and their edition routing rules.
#include "mapping/kyrWebRouteWorkClass.h"

#include <cstring>

#include "core/kyrRoutingInfo.h"
#include "lang/kyrAction.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// Requests match edition rules without the set's lock; what a delta replaces in the set lives
// as long as the version they hold.
void retireIntoVersion(void* ri, void* object, void (*freeFn)(void*), size_t bytes) {
  kyrRoutingInfoRetire(static_cast<KyrRoutingInfo*>(ri), object, freeFn, bytes);
}

void deleteAction(void* action) { actionDelete(static_cast<Action*>(action)); }

}  // namespace

bool isDefaultWebRouteWorkClass(const WebRouteWorkClass* wc) {
  static constexpr char kSuffix[] = "Default_HTTP_WC";
  if (wc->name == nullptr) return false;
  size_t length = strlen(wc->name);
  return length >= sizeof kSuffix - 1 &&
         strcmp(wc->name + length - (sizeof kSuffix - 1), kSuffix) == 0;
}

WebRouteWorkClass* rmWebRouteWorkClassCreate(Application* app, const char* name) {
  RequestMapper* rm = app->rm;
  trDebug(rm->trCtx, rm->debugCtl, "rmWebRouteWorkClassCreate: name='%s'\n",
          name != nullptr ? name : "null");
  auto* wc = kyrNew<WebRouteWorkClass>();
  wc->application = app;
  wc->name = name != nullptr ? kyrStrdup(name) : nullptr;
  Kyr* kyr = kyrRoutingInfoGetKyr(rm->ri);
  wc->rules = kyrRulesCreate(kyrGetHttpLanguage(kyr), kyr);
  kyrRulesSetType(wc->rules, KYRRULESTYPE_WEBROUTEWORKCLASS);
  kyrRulesSetRetire(wc->rules, retireIntoVersion, rm->ri);
  return wc;
}

void rmWebRouteWorkClassInit(WebRouteWorkClass* wc) {
  Application* app = wc->application;
  kyrListAddTail(app->webRouteWorkClasses, wc);
  if (isDefaultWebRouteWorkClass(wc)) kyrPublish(app->defaultWebRouteWorkClass, wc);
}

void rmWebRouteWorkClassDelete(WebRouteWorkClass* wc) {
  Application* app = wc->application;
  if (app->defaultWebRouteWorkClass == wc) kyrPublish(app->defaultWebRouteWorkClass, nullptr);
  kyrListFindAndRemove(app->webRouteWorkClasses, wc);
  kyrRoutingInfoRetire(app->rm->ri, wc, webRouteWorkClassFree, sizeof(WebRouteWorkClass));
}

void webRouteWorkClassFree(void* p) {
  auto* wc = static_cast<WebRouteWorkClass*>(p);
  // The rules are released one by one by their own deletes; what is left goes with the set.
  kyrRulesFree(wc->rules);
  kyrFree(wc->name);
  kyrDelete(wc);
}

bool rmWebRouteWorkClassSetPropStr(WebRouteWorkClass*, const char*, const char*) { return false; }
bool rmWebRouteWorkClassSetPropInt(WebRouteWorkClass*, const char*, int) { return false; }
bool rmWebRouteWorkClassSetPropBool(WebRouteWorkClass*, const char*, bool) { return false; }

void* rmWebPatternCreate(WebRouteWorkClass* wc, const char*) { return wc; }
bool rmWebPatternSetPropStr(void*, const char*, const char*) { return false; }
bool rmWebPatternSetPropInt(void*, const char*, int) { return false; }
bool rmWebPatternSetPropBool(void*, const char*, bool) { return false; }
void rmWebPatternInit(void*) {}
void rmWebPatternDelete(void*) {}

KyrRule* rmEditionRoutingRuleCreate(WebRouteWorkClass* wc, const char* name) {
  KyrRule* rule = kyrRuleCreate(wc->rules);
  kyrRuleSetApplication(rule, wc->application);
  kyrRuleSetType(rule, KYRRULETYPE_WEBROUTEWORKCLASS);
  bool isDefault = name != nullptr && strcmp(name, "default") == 0;
  kyrRuleSetOrder(rule, isDefault ? kKyrRuleDefaultOrder : ruleNameToSortOrder(name));
  return rule;
}

bool rmEditionRoutingRuleSetPropStr(KyrRule* rule, const char*, const char* value) {
  Action* action = actionCreate(value);
  KyrRules* rules = kyrRuleGetRules(rule);
  KyrLockGuard guard(rules->lock, "rmEditionRoutingRuleSetPropStr");
  // A request may be reading the old action: the set retires it.
  void* old = kyrRuleGetObject(rule);
  kyrRuleSetObject(rule, action);
  kyrRulesDispose(rules, old, deleteAction, sizeof(Action));
  return true;
}

bool rmEditionRoutingRuleSetPropInt(KyrRule*, const char*, int) { return false; }
bool rmEditionRoutingRuleSetPropBool(KyrRule*, const char*, bool) { return false; }

void rmEditionRoutingRuleInit(KyrRule* rule) { kyrRulesInsertRule(kyrRuleGetRules(rule), rule); }

void rmEditionRoutingRuleDelete(KyrRule* rule) { kyrRuleFree(rule); }

}  // namespace kyr
