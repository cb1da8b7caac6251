// VHostMatcher: a virtual host group's aliases with their pruning, the group's host:port test,
// and its text and JSON dumps.
#include "mapping/VHostMatcher.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/kyrRoutingInfo.h"
#include "mapping/mapTrace.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "trace/trWrite.h"

namespace kyr {

namespace {

void vhostFree(void* object) { vHostDelete(static_cast<VHost*>(object)); }

void aliasesFree(void* aliases) { delete static_cast<VHostAliases*>(aliases); }

// Makes the builder's aliases the ones requests test.
void publishAliases(VHostMatcher* vhtm) {
  auto* aliases = new VHostAliases();
  aliases->any = vhtm->any;
  aliases->hasHost = !vhtm->hosts.empty();
  if (aliases->hasHost) aliases->firstHost = vhtm->hosts[0];
  aliases->ports = vhtm->ports;
  for (KyrListEle* e = kyrListGetHead(vhtm->vhostList); e != nullptr; e = kyrListGetNext(e)) {
    aliases->vhosts.push_back(static_cast<const VHost*>(kyrListEleGetObject(e)));
  }
  const VHostAliases* old =
      kyrPublishExchange(vhtm->aliases, static_cast<const VHostAliases*>(aliases));
  size_t bytes = sizeof(VHostAliases) + aliases->vhosts.size() * sizeof(VHost*);
  kyrRoutingInfoRetire(vhtm->ri, const_cast<VHostAliases*>(old), aliasesFree, bytes);
}

void retireVHost(VHostMatcher* vhtm, VHost* vh) {
  kyrRoutingInfoRetire(vhtm->ri, vh, vhostFree, sizeof(VHost));
}

// Deletes every specific alias for which `covered` holds.
template <class Pred>
void pruneIf(VHostMatcher* vhtm, Pred covered) {
  bool changed = false;
  for (KyrListEle* ele = kyrListGetHead(vhtm->vhostList); ele != nullptr;) {
    KyrListEle* next = kyrListGetNext(ele);
    auto* vh = static_cast<VHost*>(kyrListEleGetObject(ele));
    if (covered(vh)) {
      trDebug(vhtm->trCtx, vhtm->debugCtl, "prune: %s: removing %s:%d\n", vhtm->name, vh->host,
              vh->port);
      kyrListRemove(vhtm->vhostList, ele);
      retireVHost(vhtm, vh);
      changed = true;
    }
    ele = next;
  }
  if (changed) publishAliases(vhtm);
}

}  // namespace

VHostMatcher* createVHostMatcher(KyrRoutingInfo* ri, const char* name) {
  auto* vhtm = kyrNew<VHostMatcher>();
  vhtm->ri = ri;
  vhtm->vhostList = kyrListCreate(vhostFree);
  publishAliases(vhtm);
  vhtm->name = kyrStrdup(name != nullptr ? name : "");
  vhtm->uriMatcher = URIMatcherCreate(ri, vhtm->name);
  TrMgr* mgr = ri->kyr->trMgr;
  vhtm->trCtx = trMgrGetDefaultContext(mgr);
  vhtm->debugCtl = trRecordGet(mgr, "control.mapper");
  vhtm->debugReq = trRecordGet(mgr, "http.request.map.url");
  return vhtm;
}

void deleteVHostMatcher(VHostMatcher* vhtm) {
  if (vhtm == nullptr) return;
  kyrListDestroy(vhtm->vhostList);
  delete vhtm->aliases;  // nothing reads a group that is being deleted
  URIMatcherDelete(vhtm->uriMatcher);
  kyrFree(vhtm->name);
  kyrDelete(vhtm);
}

VHost* putVHost(VHostMatcher* vhtm, const char* host, int port) {
  trDebug(vhtm->trCtx, vhtm->debugCtl, "putVHost: %s: host=%s, port=%d\n", vhtm->name,
          host != nullptr ? host : "null", port);
  if (vhtm->any) return nullptr;
  VHost* vh = nullptr;
  if (isAnyHostText(host)) {
    if (port == -1) {
      vhtm->any = true;
    } else {
      vhtm->ports.push_back(port);
      pruneByPort(vhtm, port);
    }
  } else if (port == -1) {
    vhtm->hosts.emplace_back(host);
    pruneByHost(vhtm, host);
  } else if (!containsHost(vhtm, host) && !containsPort(vhtm, port)) {
    vh = VHostCreate(vhtm->ri, host, port, false);
    kyrListAddTail(vhtm->vhostList, vh);
  } else {
    return nullptr;
  }
  publishAliases(vhtm);
  return vh;
}

void delVHost(VHostMatcher* vhtm, VHost* vh) {
  if (kyrListFindAndRemove(vhtm->vhostList, vh) == nullptr) return;
  retireVHost(vhtm, vh);
  publishAliases(vhtm);
}

bool containsHost(const VHostMatcher* vhtm, const char* host) {
  return !vhtm->hosts.empty() && compareHostsIgnoreCase(vhtm->hosts[0].c_str(), host);
}

bool containsPort(const VHostMatcher* vhtm, int port) {
  return std::find(vhtm->ports.begin(), vhtm->ports.end(), port) != vhtm->ports.end();
}

void pruneByHost(VHostMatcher* vhtm, const char* host) {
  pruneIf(vhtm, [host](const VHost* vh) { return compareHostsIgnoreCase(vh->host, host); });
}

void pruneByPort(VHostMatcher* vhtm, int port) {
  pruneIf(vhtm, [port](const VHost* vh) { return vh->port == port; });
}

bool vhostAccepts(const VHostMatcher* vhtm, const char* host, int port) {
  const VHostAliases* aliases = kyrPublished(vhtm->aliases);
  if (aliases->any) return true;
  if (std::find(aliases->ports.begin(), aliases->ports.end(), port) != aliases->ports.end()) {
    return true;
  }
  if (aliases->hasHost && compareHostsIgnoreCase(aliases->firstHost.c_str(), host)) return true;
  for (const VHost* vh : aliases->vhosts) {
    if (vh->port == port && compareHostsIgnoreCase(vh->host, host)) return true;
  }
  return false;
}

bool matchVHost(const VHostMatcher* vhtm, const char* host, int port, KyrHttpContext* ctx) {
  TrContext* trCtx = requestTrContext(ctx, vhtm->trCtx);
  trDebug(trCtx, vhtm->debugReq, "matchVHost: enter - host=%s, port=%d\n",
          host != nullptr ? host : "null", port);
  bool rc = vhostAccepts(vhtm, host, port);
  if (rc) trDebug(trCtx, vhtm->debugReq, "matchVHost: matched request to vhost=%s\n", vhtm->name);
  trDebug(trCtx, vhtm->debugReq, "matchVHost: exit - rc=%d\n", rc ? 1 : 0);
  return rc;
}

void* matchVHostURI(const VHostMatcher* vhtm, const char* uri, KyrHttpContext* ctx) {
  return URIMatcherMatch(vhtm->uriMatcher, uri, ctx);
}

const char* getVHostMatcherName(const VHostMatcher* vhtm) { return vhtm->name; }
KyrRoutingInfo* vhostMatcherGetRoutingInfo(const VHostMatcher* vhtm) { return vhtm->ri; }
URIMatcher* getURIMatcher(const VHostMatcher* vhtm) { return vhtm->uriMatcher; }

void addInfoVHostMatcher(const VHostMatcher* vhtm, KyrStringBuffer* sb) {
  std::string text = "vhost ";
  text.append(vhtm->name).append("\n    any=").append(vhtm->any ? "true" : "false");
  text.append("\n    ports=(");
  for (size_t i = 0; i < vhtm->ports.size(); ++i) {
    text.append(i > 0 ? "," : "").append(std::to_string(vhtm->ports[i]));
  }
  text.append(")\n    hosts=(");
  for (size_t i = 0; i < vhtm->hosts.size(); ++i)
    text.append(i > 0 ? "," : "").append(vhtm->hosts[i]);
  text.append(")\n    hosts:ports=(");
  for (KyrListEle* e = kyrListGetHead(vhtm->vhostList); e != nullptr; e = kyrListGetNext(e)) {
    auto* vh = static_cast<const VHost*>(kyrListEleGetObject(e));
    if (e != kyrListGetHead(vhtm->vhostList)) text.append(",");
    text.append(vh->host).append(":").append(std::to_string(vh->port));
  }
  text.append(")\n");
  sbAdd(sb, text.c_str());
  URIMatcherAddInfo(vhtm->uriMatcher, sb);
}

json_t* vhostMatcherToJSON(const VHostMatcher* vhtm) {
  json_t* vhosts = json_array();
  for (KyrListEle* e = kyrListGetHead(vhtm->vhostList); e != nullptr; e = kyrListGetNext(e)) {
    json_array_append_new(vhosts, vhostToJSON(static_cast<const VHost*>(kyrListEleGetObject(e))));
  }
  for (int port : vhtm->ports) json_array_append_new(vhosts, vhostEntryToJSON("*", port));
  json_t* json = json_object();
  json_object_set_new(json, "VHostGroup", json_string(vhtm->name));
  json_object_set_new(json, "VHosts", vhosts);
  return json;
}

}  // namespace kyr
