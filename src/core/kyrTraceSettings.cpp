// The handle's trace settings: the default trace specification of the whole library, the
// default specification for requests, and conditional request-trace rules.
#include <cstdlib>
#include <cstring>

#include "core/kyr.h"
#include "core/kyrRuleRows.h"
#include "lang/kyrRule.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

using namespace kyr;

namespace {

// Installs a parsed specification as the library default; takes over the caller's reference.
void installDefaultTraceSpec(Kyr* kyr, TrSpec* spec, const char* who) {
  KyrLockGuard guard(kyr->trSpecLock, who);
  trContextSetSpec(trMgrGetDefaultContext(kyr->trMgr), spec);
}

}  // namespace

extern "C" {

int kyrSetDefaultTraceSpec(Kyr* kyr, const char* traceSpec) {
  TrSpec* spec = trSpecCreate(kyr->trMgr, traceSpec);
  if (spec == nullptr) return -1;
  trDebug(kyr->trCtx, kyr->processRec, "kyrSetDefaultTraceSpec: default trace spec set to %s",
          traceSpec);
  trLog(kyr->trCtx, kyr->defaultTraceSpecSet, traceSpec);
  installDefaultTraceSpec(kyr, spec, "kyrSetDefaultTraceSpec");
  return 0;
}

int kyrSetTraceSpecification(Kyr* kyr, const char* name, const char* traceSpecStr,
                             const char* condition) {
  if (kyr == nullptr) return -1;
  if (name == nullptr) return -2;
  if (traceSpecStr == nullptr) return -3;
  TrSpec* spec = trSpecCreate(kyr->trMgr, traceSpecStr);
  if (spec == nullptr) return -4;
  if (kyrStrCmpIgnoreCase(name, "default") == 0) {
    installDefaultTraceSpec(kyr, spec, "kyrSetTraceSpecification");
    trDebug(kyr->trCtx, kyr->processRec, "kyrSetTraceSpecification: default trace spec set to %s",
            traceSpecStr);
    trLog(kyr->trCtx, kyr->defaultTraceSpecSet, traceSpecStr);
    return 0;
  }
  // A named specification traces only the requests its condition matches.
  int order = ruleNameToSortOrder(name);
  KyrRule* rule = kyrRuleCreate(kyr->requestTraceRules);
  kyrRuleSetType(rule, KYRRULETYPE_REQUESTTRACE);
  kyrRuleSetObject(rule, spec);
  if (condition != nullptr) kyrRuleSetExpr(rule, condition);
  kyrRuleSetOrder(rule, order);
  kyrRuleInit(rule);
  trDebug(kyr->trCtx, kyr->processRec, "Created request trace rule with order %d.", order);
  trDebug(kyr->trCtx, kyr->processRec,
          "kyrSetTraceSpecification: Created conditional trace rule spec='%s', condition='%s'.",
          traceSpecStr, condition != nullptr ? condition : "null");
  trLog(kyr->trCtx, kyr->requestTraceSpecAdded, order, condition != nullptr ? condition : "null",
        traceSpecStr);
  return 0;
}

// A new reference, as trContextGetSpec hands out: the caller releases it.
TrSpec* kyrGetTrSpec(Kyr* kyr) { return trContextGetSpec(kyr->trCtx); }

void kyrSpecLockObtain(Kyr* kyr, const char* who) { kyrLockObtain(kyr->trSpecLock, who); }

void kyrSpecLockRelease(Kyr* kyr) { kyrLockRelease(kyr->trSpecLock); }

TrSpec* kyrGetCustomPropDefaultRequestTraceSpec(Kyr* kyr) {
  if (kyr == nullptr) return nullptr;
  KyrLockGuard guard(kyr->trSpecLock, "kyrGetCustomPropDefaultRequestTraceSpec");
  TrSpec* spec = kyr->customPropDefaultRequestTraceSpec;
  if (spec != nullptr) trSpecRefObtain(spec);
  return spec;
}

int ruleNameToSortOrder(const char* name) {
  if (name == nullptr || *name == '\0') return 0;
  const char* slash = strrchr(name, '/');
  return atoi(slash != nullptr ? slash + 1 : name);
}

}  // extern "C"
