// Web route work classes: an application's rule sets whose first matching rule decides, per
// request, which edition serves it (or whether it is redirected or rejected). The one whose
// name ends in "Default_HTTP_WC" is the application's default work class. Web patterns have no
// object of their own: their handle is the work class.
#pragma once

#include "lang/kyrRule.h"
#include "mapping/kyrRequestMapper.h"

namespace kyr {

struct WebRouteWorkClass {
  Application* application;
  char* name;
  KyrRules* rules;  // over the handle's HTTP language, ordered by rule order
};

bool isDefaultWebRouteWorkClass(const WebRouteWorkClass* wc);
WebRouteWorkClass* rmWebRouteWorkClassCreate(Application* app, const char* name);
void rmWebRouteWorkClassInit(WebRouteWorkClass* wc);
// Takes the work class out of its application; it is freed with the version, since a request
// may be matching its rules.
void rmWebRouteWorkClassDelete(WebRouteWorkClass* wc);
// Frees the work class with the rules left in its set; only with its version.
void webRouteWorkClassFree(void* wc);
bool rmWebRouteWorkClassSetPropStr(WebRouteWorkClass* wc, const char* name, const char* value);
bool rmWebRouteWorkClassSetPropInt(WebRouteWorkClass* wc, const char* name, int value);
bool rmWebRouteWorkClassSetPropBool(WebRouteWorkClass* wc, const char* name, bool value);

// Web patterns: the handle is the work class itself, and a pattern takes no property.
void* rmWebPatternCreate(WebRouteWorkClass* wc, const char* name);
bool rmWebPatternSetPropStr(void* pattern, const char* name, const char* value);
bool rmWebPatternSetPropInt(void* pattern, const char* name, int value);
bool rmWebPatternSetPropBool(void* pattern, const char* name, bool value);
void rmWebPatternInit(void* pattern);
void rmWebPatternDelete(void* pattern);

// An edition routing rule in the work class's rule set; its action comes from a string
// property, and init inserts it in order.
KyrRule* rmEditionRoutingRuleCreate(WebRouteWorkClass* wc, const char* name);
bool rmEditionRoutingRuleSetPropStr(KyrRule* rule, const char* name, const char* value);
bool rmEditionRoutingRuleSetPropInt(KyrRule* rule, const char* name, int value);
bool rmEditionRoutingRuleSetPropBool(KyrRule* rule, const char* name, bool value);
void rmEditionRoutingRuleInit(KyrRule* rule);
void rmEditionRoutingRuleDelete(KyrRule* rule);

}  // namespace kyr
