// Adapters from the routing-data reader onto the health policies.
#include "core/kyrHealthRows.h"

#include "health/hmHealthPolicy.h"
#include "selection/kyrTargetSelector.h"

namespace kyr {
namespace {

void* healthPolicyCreate(void*, const char* fullName, KyrConnector* connector, KyrRoutingInfo*) {
  return hmHealthPolicyCreate(fullName, connector);
}

}  // namespace

const ObjectHandler kHealthPolicyRow = {"healthPolicy",
                                        RoutingInfo,
                                        false,
                                        healthPolicyCreate,
                                        Untyped<hmHealthPolicySetPropStr>::call,
                                        Untyped<hmHealthPolicySetPropInt>::call,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        Untyped<hmHealthPolicyDelete>::call,
                                        {},
                                        false,
                                        true};

void linkServerHealthPolicy(void* server, void* policy, bool add) {
  tsLinkServerToHealthPolicy(static_cast<TargetServer*>(server), static_cast<HealthPolicy*>(policy),
                             add);
}

}  // namespace kyr
