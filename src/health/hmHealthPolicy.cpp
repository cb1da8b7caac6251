// Health policies and their links to servers. A policy is counted: the routing data may delete
// it while servers still link to it, and a link must never point at freed memory.
#include "health/hmHealthPolicy.h"

#include <cstring>

#include "connector/kyrConnector.h"
#include "core/kyr.h"
#include "health/hmHealthMonitor.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

void policyRelease(HealthPolicy* policy) {
  if (--policy->refcnt > 0) return;
  if (policy->connector != nullptr) kyrConnectorReleaseRef(policy->connector, "HealthPolicy");
  kyrFree(policy->name);
  kyrDelete(policy);
}

}  // namespace

const char* hmHealthPolicyTypeName(int type) {
  switch (type) {
    case HP_EXCESSIVE_RESPONSE_TIME:
      return "ExcessiveResponseTime";
    case HP_EXCESSIVE_REQUEST_TIMEOUT:
      return "ExcessiveRequestTimeout";
    default:
      return "UNKNOWN";
  }
}

HealthPolicy* hmHealthPolicyCreate(const char* name, KyrConnector* connector) {
  if (name == nullptr) return nullptr;
  auto* policy = kyrNew<HealthPolicy>();
  policy->name = kyrStrdup(name);
  policy->type = HP_UNKNOWN;
  policy->connector = connector;
  if (connector != nullptr) kyrConnectorObtainRef(connector, "HealthPolicy");
  policy->refcnt = 1;
  return policy;
}

bool hmHealthPolicySetPropStr(HealthPolicy* policy, const char* name, const char* value) {
  if (strcmp(name, "type") != 0 || value == nullptr) return false;
  if (strcmp(value, "ExcessiveResponseTime") == 0) {
    policy->type = HP_EXCESSIVE_RESPONSE_TIME;
  } else if (strcmp(value, "ExcessiveRequestTimeout") == 0) {
    policy->type = HP_EXCESSIVE_REQUEST_TIMEOUT;
  } else {
    return false;
  }
  return true;
}

bool hmHealthPolicySetPropInt(HealthPolicy* policy, const char* name, int value) {
  if (strcmp(name, "threshold") != 0) return false;
  policy->threshold = value;
  return true;
}

void hmHealthPolicyDelete(HealthPolicy* policy) {
  if (policy != nullptr) policyRelease(policy);
}

void hmLinkServerToHealthPolicy(Kyr* kyr, TargetServer* /*server*/, KyrList* policyList,
                                HealthPolicy* policy, bool add) {
  for (KyrListEle* e = kyrListGetHead(policyList); e != nullptr; e = kyrListGetNext(e)) {
    auto* link = static_cast<HealthPolicyLink*>(kyrListEleGetObject(e));
    if (link->policy != policy) continue;
    if (!add) {
      kyrListRemove(policyList, e);
      hmHealthPolicyLinkDelete(link);
    }
    return;  // linked once, however often the routing data says so
  }
  if (!add) return;
  auto* link = kyrNew<HealthPolicyLink>();
  link->policy = policy;
  ++policy->refcnt;
  kyrListAddTail(policyList, link);
  HealthMonitor* hm = kyr->healthMonitor;
  trDebug(hm->trCtx, hm->debugCtl, "hmLinkServerToHealthPolicy: linked policy %s\n", policy->name);
}

void hmHealthPolicyLinkDelete(void* object) {
  auto* link = static_cast<HealthPolicyLink*>(object);
  policyRelease(link->policy);
  kyrDelete(link);
}

}  // namespace kyr
