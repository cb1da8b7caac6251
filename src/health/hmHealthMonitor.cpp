// Checking servers against their health policies, and combining the triggers of every worker
// process into what the publisher is told. A process that triggers a policy first for a
// server sends the trigger; the last one to untrigger it sends the untrigger. A client process
// that dies holding a trigger counts as untriggering it: the publisher must not keep a trigger
// that no live process holds.
#include "health/hmHealthMonitor.h"

#include <string>
#include <vector>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "connector/kyrRestRequest.h"
#include "core/kyr.h"
#include "health/hmHealthPolicy.h"
#include "health/hmTriggerRecord.h"
#include "ipc/kyrMessage.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// The processes holding one policy triggered for one server, with what the publisher is told.
struct TriggerHolders {
  std::string key;
  std::string group;
  std::string url;
  std::string policy;
  std::string server;
  KyrList* fds;  // ints in pointers
};

struct OwnedTrigger {
  bool triggered;
  std::string policy, server, group, url;
};

void holdersDelete(void* object) {
  auto* holders = static_cast<TriggerHolders*>(object);
  kyrListDestroy(holders->fds);
  kyrDelete(holders);
}

// Putting null takes the entry out and hands its value back.
void holdersRemove(KyrHashMap* map, const std::string& key) {
  holdersDelete(kyrHashPut(map, key.c_str(), nullptr));
}

std::string keyOf(const HealthTrigger& t) {
  return std::string(t.groupName) + '\t' + t.policyName + '\t' + t.serverName;
}

// The last component of an object name, for log lines.
std::string shortName(const char* name) {
  if (name == nullptr) return "";
  char* value = kyrNameGetValue(name, false);
  std::string text = value != nullptr ? value : name;
  kyrFree(value);
  return text;
}

void logTriggered(HealthMonitor* hm, TargetServer* server, const HealthPolicy* policy, long value) {
  const char* node = server->node != nullptr ? server->node->name : nullptr;
  char* nodeParent = node != nullptr ? kyrGetParentName(node) : nullptr;
  std::string names[] = {shortName(policy->name), shortName(server->name), shortName(node),
                         shortName(nodeParent)};
  kyrFree(nodeParent);
  if (policy->type == HP_EXCESSIVE_RESPONSE_TIME) {
    trLog(hm->trCtx, hm->logResponsePolicyTriggered, names[0].c_str(), names[1].c_str(),
          names[2].c_str(), names[3].c_str(), policy->threshold.load(),
          static_cast<unsigned>(value));
  } else {
    trLog(hm->trCtx, hm->logTimeoutPolicyTriggered, names[0].c_str(), names[1].c_str(),
          names[2].c_str(), names[3].c_str(), policy->threshold.load(), static_cast<int>(value));
  }
}

void hmHealthPolicyStateChangeCallback(Kyr* kyr, void* obj) {
  auto* record = static_cast<char*>(obj);
  int32_t size = hmTriggerRecordSize(record);
  if (kyrIsClientProcess(kyr)) {
    KyrMessage msg{};
    msg.hdr.type = MT_CLIENT_TO_SERVER_HEALTH_TRIGGER;
    msg.hdr.len = size;
    msg.body = record;
    kyrClientProcessSendMessage(kyr, &msg);
  } else {
    ControlLockGuard guard("hmHealthPolicyStateChangeCallback");
    hmServerProcessHandleMessage(kyr, record, static_cast<size_t>(size), 1);
  }
  kyrFree(record);
}

void hmHealthPolicyStateChange(Kyr* kyr, TargetServer* server, HealthPolicyLink* link,
                               bool triggered) {
  link->triggered = triggered;
  HealthPolicy* policy = link->policy;
  KyrConnector* c = policy->connector;
  HealthTrigger trigger{triggered, policy->name, server->name, c != nullptr ? c->cg->name : "",
                        c != nullptr ? c->URL : ""};
  trDebug(kyr->healthMonitor->trCtx, kyr->healthMonitor->debugReq,
          "hmHealthPolicyStateChange: policy %s %s for server %s\n", policy->name,
          triggered ? "triggered" : "untriggered", server->name);
  kyrProcessAsync(kyr, hmTriggerRecordCreate(trigger), hmHealthPolicyStateChangeCallback);
}

// The connector that tells the publisher: the one the policy came from while it talks to its
// publisher, else whichever of its group does.
KyrConnector* activeConnector(HealthMonitor* hm, const OwnedTrigger& t) {
  KyrConnectorGroup* cg = kyrFindConnectorGroup(hm->kyr, t.group.c_str());
  if (cg == nullptr) {
    trDebug(hm->trCtx, hm->debugCtl, "hmReestablishConnector - did not find connector group %s\n",
            t.group.c_str());
    return nullptr;
  }
  KyrConnector* c = kyrConnectorGroupFindConnector(cg, t.url.c_str());
  if (c == nullptr) {
    trDebug(hm->trCtx, hm->debugCtl,
            "hmReestablishConnector - did not find connector with URL %s\n", t.url.c_str());
  }
  if (c == nullptr || c->state != STARTED || c->client == nullptr) c = cg->curConnector;
  if (c == nullptr || c->state != STARTED || c->client == nullptr) {
    trDebug(hm->trCtx, hm->debugCtl, "hmReestablishConnector - no active connector for group %s\n",
            t.group.c_str());
    return nullptr;
  }
  return c;
}

void sendTrigger(HealthMonitor* hm, const OwnedTrigger& t) {
  KyrConnector* c = activeConnector(hm, t);
  if (c == nullptr) return;
  json_t* body = json_object();
  json_object_set_new(body, "healthPolicyName", json_string(t.policy.c_str()));
  json_object_set_new(body, "serverName", json_string(t.server.c_str()));
  json_object_set_new(body, "healthPolicyTriggered", json_boolean(t.triggered));
  KyrRestRequest* req = kyrRestRequestCreate(RRT_HEALTH_POLICY_TRIGGER, c->cg);
  kyrRestRequestSetJson(req, body);
  if (kyrConnectorRequestSend(c, req) != 0) kyrRestRequestDelete(req);
}

OwnedTrigger untriggerOf(const TriggerHolders& holders) {
  return OwnedTrigger{false, holders.policy, holders.server, holders.group, holders.url};
}

}  // namespace

HealthMonitor* hmHealthMonitorCreate(Kyr* kyr) {
  auto* hm = kyrNew<HealthMonitor>();
  hm->kyr = kyr;
  hm->lock = kyrLockCreate("HealthMonitor.lock");
  hm->triggeredPolicyMap = kyrHashMapCreate2(holdersDelete);
  hm->trCtx = kyr->trCtx;
  hm->debugCtl = trRecordGet(kyr->trMgr, "control.health");
  hm->debugReq = trRecordGet(kyr->trMgr, "http.response.health");
  hm->logResponsePolicyTriggered = trRecordGet(kyr->trMgr, "control.responseHealthPolicyTriggered");
  hm->logTimeoutPolicyTriggered = trRecordGet(kyr->trMgr, "control.timeoutHealthPolicyTriggered");
  return hm;
}

void hmHealthMonitorDelete(HealthMonitor* hm) {
  if (hm == nullptr) return;
  kyrHashMapDestroy(hm->triggeredPolicyMap);
  kyrLockDestroy(hm->lock);
  kyrDelete(hm);
}

void hmCheckHealthPolicies(Kyr* kyr, KyrHttpContext* /*ctx*/, TargetServer* server,
                           KyrList* policyList, KyrTime avgRT, long timeoutPct) {
  for (KyrListEle* e = kyrListGetHead(policyList); e != nullptr; e = kyrListGetNext(e)) {
    auto* link = static_cast<HealthPolicyLink*>(kyrListEleGetObject(e));
    HealthPolicy* policy = link->policy;
    long value;
    if (policy->type == HP_EXCESSIVE_RESPONSE_TIME) {
      if (avgRT == static_cast<KyrTime>(-1)) continue;
      value = static_cast<long>(avgRT);
    } else if (policy->type == HP_EXCESSIVE_REQUEST_TIMEOUT) {
      if (timeoutPct == -1) continue;
      value = timeoutPct;
    } else {
      continue;
    }
    bool over = value >= policy->threshold;  // reaching the threshold is crossing it
    if (!over && link->triggered) {
      hmHealthPolicyStateChange(kyr, server, link, false);
    } else if (over && !link->triggered) {
      logTriggered(kyr->healthMonitor, server, policy, value);
      hmHealthPolicyStateChange(kyr, server, link, true);
    }
  }
}

int hmServerProcessHandleMessage(Kyr* kyr, const char* body, size_t length, int fd) {
  HealthMonitor* hm = kyr->healthMonitor;
  HealthTrigger t;
  if (!hmTriggerRecordRead(body, length, &t)) {
    trDebug(hm->trCtx, hm->debugCtl,
            "hmServerProcessHandleMessage: dropped a malformed trigger record from fd %d\n", fd);
    return -1;
  }
  std::string key = keyOf(t);
  bool send = false;
  {
    KyrLockGuard guard(hm->lock, "hmServerProcessHandleMessage");
    auto* holders = static_cast<TriggerHolders*>(kyrHashGet(hm->triggeredPolicyMap, key.c_str()));
    if (t.triggered) {
      if (holders == nullptr) {
        holders = kyrNew<TriggerHolders>();
        *holders = TriggerHolders{key,          t.groupName,  t.connectorURL,
                                  t.policyName, t.serverName, kyrListCreate(nullptr)};
        kyrHashPut(hm->triggeredPolicyMap, holders->key.c_str(), holders);
      }
      bool first = kyrListIsEmpty(holders->fds);
      send = kyrListAddUnique(holders->fds, kyrIntAsObject(fd)) && first;
      if (!send) {
        trDebug(hm->trCtx, hm->debugCtl,
                "hmServerProcessHandleMessage not sending JSON trigger request, not first child\n");
      }
    } else {
      // An untrigger nobody holds (forgotten by a reset) still goes out: the publisher may
      // hold it.
      if (holders != nullptr) kyrListRemoveObject(holders->fds, kyrIntAsObject(fd));
      send = holders == nullptr || kyrListIsEmpty(holders->fds);
      if (!send) {
        trDebug(
            hm->trCtx, hm->debugCtl,
            "hmServerProcessHandleMessage not sending JSON untrigger request, not last child\n");
      } else if (holders != nullptr) {
        holdersRemove(hm->triggeredPolicyMap, key);
      }
    }
  }
  if (send)
    sendTrigger(hm,
                OwnedTrigger{t.triggered, t.policyName, t.serverName, t.groupName, t.connectorURL});
  return 0;
}

void hmClientProcessCleanup(Kyr* kyr, int fd) {
  HealthMonitor* hm = kyr->healthMonitor;
  std::vector<OwnedTrigger> untriggers;
  std::vector<std::string> emptied;
  {
    KyrLockGuard guard(hm->lock, "hmClientProcessCleanup");
    KyrHashIterator hi;
    for (kyrHashIteratorStart(hm->triggeredPolicyMap, &hi); kyrHashNext(&hi) != nullptr;) {
      auto* holders = static_cast<TriggerHolders*>(kyrHashThisVal(&hi));
      if (kyrListRemoveObject(holders->fds, kyrIntAsObject(fd)) && kyrListIsEmpty(holders->fds)) {
        untriggers.push_back(untriggerOf(*holders));
        emptied.push_back(holders->key);
      }
    }
    for (const std::string& key : emptied) holdersRemove(hm->triggeredPolicyMap, key);
  }
  for (const OwnedTrigger& t : untriggers) sendTrigger(hm, t);
}

void hmResetInfo(Kyr* kyr) {
  HealthMonitor* hm = kyr->healthMonitor;
  KyrLockGuard guard(hm->lock, "hmResetInfo");
  KyrHashIterator hi;
  for (kyrHashIteratorStart(hm->triggeredPolicyMap, &hi); kyrHashNext(&hi) != nullptr;) {
    auto* holders = static_cast<TriggerHolders*>(kyrHashThisVal(&hi));
    trDebug(hm->trCtx, hm->debugCtl, "hmResetInfo: cleaning up triggers for group %s\n",
            holders->group.c_str());
    trDebug(hm->trCtx, hm->debugCtl, "hmResetInfo: cleaning up triggers for policy %s\n",
            holders->policy.c_str());
    trDebug(hm->trCtx, hm->debugCtl, "hmResetInfo: cleaning up triggers for server %s\n",
            holders->server.c_str());
  }
  kyrHashMapClean(hm->triggeredPolicyMap);
}

}  // namespace kyr
