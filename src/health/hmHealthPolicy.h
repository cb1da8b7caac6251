// Health policies: a publisher's rule that a server answering too slowly, or timing out too
// often, is unhealthy; and the links that tie policies to the servers they watch, each with
// its own triggered flag.
#pragma once

#include <atomic>

#include "kyrlib.h"
#include "runtime/kyrList.h"

namespace kyr {

struct TargetServer;

enum HealthPolicyType {
  HP_UNKNOWN = 0,
  HP_EXCESSIVE_RESPONSE_TIME = 1,    // threshold: milliseconds of average response time
  HP_EXCESSIVE_REQUEST_TIMEOUT = 2,  // threshold: percent of requests timed out
};

// "UNKNOWN", "ExcessiveResponseTime", "ExcessiveRequestTimeout".
const char* hmHealthPolicyTypeName(int type);

struct HealthPolicy {
  char* name;  // the full object name
  // Read by request threads under a selector lock while a document may set them.
  std::atomic<int> type;
  std::atomic<int> threshold;
  KyrConnector* connector;  // the policy holds a reference on the connector it came from
  bool triggered;
  // Holders: the version's object map (until hmHealthPolicyDelete) and each link.
  std::atomic<int> refcnt;
};

// One policy watching one server. Owned by the server's list; guarded by its selector lock.
struct HealthPolicyLink {
  HealthPolicy* policy;  // the link holds a reference
  bool triggered;
};

HealthPolicy* hmHealthPolicyCreate(const char* name, KyrConnector* connector);
// Only "type" ("ExcessiveResponseTime" or "ExcessiveRequestTimeout"); true if taken.
bool hmHealthPolicySetPropStr(HealthPolicy* policy, const char* name, const char* value);
// Only "threshold".
bool hmHealthPolicySetPropInt(HealthPolicy* policy, const char* name, int value);
// The routing data deleted the policy; links still holding it keep it until they go.
void hmHealthPolicyDelete(HealthPolicy* policy);
// Adds or removes the server's link to the policy; the caller holds the server's selector lock.
void hmLinkServerToHealthPolicy(Kyr* kyr, TargetServer* server, KyrList* policyList,
                                HealthPolicy* policy, bool add);
// The list's element destructor.
void hmHealthPolicyLinkDelete(void* link);

}  // namespace kyr
