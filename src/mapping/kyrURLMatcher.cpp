// The URL matcher: the groups of a version in order, and the best web module over all groups
// that accept a request's host and port.
#include "mapping/kyrURLMatcher.h"

#include <cstdlib>
#include <cstring>

#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "mapping/mapTrace.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "trace/trWrite.h"

namespace kyr {

namespace {

void vhostMatcherFree(void* object) { deleteVHostMatcher(static_cast<VHostMatcher*>(object)); }

// Makes the list of groups the array requests walk.
void publishGroups(URLMatcher* m) {
  auto** groups = reinterpret_cast<VHostMatcher**>(kyrListCreateArray(m->vhostMatcherList));
  VHostMatcher** old = kyrPublishExchange(m->vhtMatchersArray, groups);
  size_t bytes = static_cast<size_t>(kyrListGetCount(m->vhostMatcherList) + 1) * sizeof(void*);
  kyrRoutingInfoRetire(m->ri, old, free, bytes);
}

int groupCount(VHostMatcher* const* groups) {
  int count = 0;
  while (groups[count] != nullptr) ++count;
  return count;
}

size_t contextRootLength(WebModule* wm) {
  const char* root = wmGetContextRoot(wm);
  return root != nullptr ? strlen(root) : 0;
}

bool isGenericApplicationModule(WebModule* wm) {
  const char* name = wmGetName(wm);
  return name != nullptr && strstr(name, "/GenericApplication") != nullptr;
}

const char* orNull(const char* text) { return text != nullptr ? text : "NULL"; }

}  // namespace

URLMatcher* kyrURLMatcherCreate(KyrRoutingInfo* ri) {
  auto* m = kyrNew<URLMatcher>();
  m->ri = ri;
  m->vhostMatcherMap = kyrHashMapCreate();
  m->vhostMatcherList = kyrListCreate(vhostMatcherFree);
  publishGroups(m);
  TrMgr* mgr = ri->kyr->trMgr;
  m->trCtx = trMgrGetDefaultContext(mgr);
  m->debugCtl = trRecordGet(mgr, "control.mapper");
  m->debugReq = trRecordGet(mgr, "http.request.map.url");
  return m;
}

void kyrURLMatcherDestroy(URLMatcher* m) {
  if (m == nullptr) return;
  kyrHashMapDestroy(m->vhostMatcherMap);
  kyrListDestroy(m->vhostMatcherList);
  free(m->vhtMatchersArray);
  kyrDelete(m);
}

void addVHostMatcher(URLMatcher* m, VHostMatcher* vhtm) {
  trDebug(m->trCtx, m->debugCtl, "addVHostMatcher: %s\n", vhtm->name);
  kyrListAddTail(m->vhostMatcherList, vhtm);
  publishGroups(m);
  kyrHashPut(m->vhostMatcherMap, vhtm->name, vhtm);
}

VHostMatcher* getVHostMatcher(const URLMatcher* m, const char* name) {
  // Requests ask while the map may change; a walk of the few published groups needs no lock.
  VHostMatcher* vhtm = nullptr;
  for (VHostMatcher** group = kyrPublished(m->vhtMatchersArray);
       name != nullptr && *group != nullptr && vhtm == nullptr; ++group) {
    if (strcmp((*group)->name, name) == 0) vhtm = *group;
  }
  if (vhtm == nullptr) {
    trDebug(m->trCtx, m->debugCtl, "WARN: getVHostMatcher %s - not found\n", orNull(name));
  }
  return vhtm;
}

void URLMatcherDeleteVHostMatcher(URLMatcher* m, const char* name) {
  if (name == nullptr) return;
  auto* vhtm = static_cast<VHostMatcher*>(kyrHashPut(m->vhostMatcherMap, name, nullptr));
  if (vhtm == nullptr) return;
  trDebug(m->trCtx, m->debugCtl, "URLMatcherDeleteVHostMatcher: %s\n", vhtm->name);
  kyrListFindAndRemove(m->vhostMatcherList, vhtm);
  publishGroups(m);
  kyrRoutingInfoRetire(m->ri, vhtm, vhostMatcherFree, sizeof(VHostMatcher));
}

void URLMatcherPublish(URLMatcher* m) {
  for (KyrListEle* e = kyrListGetHead(m->vhostMatcherList); e != nullptr; e = kyrListGetNext(e)) {
    URIMatcherPublish(getURIMatcher(static_cast<VHostMatcher*>(kyrListEleGetObject(e))));
  }
}

URLMatch findLongestURI(const URLMatcher* m, KyrHttpContext* ctx, const char* host, int port,
                        const char* uri) {
  TrContext* trCtx = requestTrContext(ctx, m->trCtx);
  VHostMatcher** groups = kyrPublished(m->vhtMatchersArray);
  // The groups trace on the same record and context: with tracing off (the usual case) their
  // untraced test spares two enablement checks per group on every request.
  bool tracing = trEnabled(trCtx, m->debugReq) != 0;
  if (tracing) {
    trDebug(trCtx, m->debugReq, "matchLongestURI: %s:%d//%s, vhostNum=%d\n", orNull(host), port,
            orNull(uri), groupCount(groups));
  }
  URLMatch best{nullptr, nullptr};
  for (VHostMatcher** group = groups; *group != nullptr; ++group) {
    bool accepted =
        tracing ? matchVHost(*group, host, port, ctx) : vhostAccepts(*group, host, port);
    if (!accepted) continue;
    auto* wm = static_cast<WebModule*>(matchVHostURI(*group, uri, ctx));
    if (wm == nullptr) continue;
    if (best.webModule != nullptr) {
      if (!isBetterThan(m, wm, best.webModule)) continue;
      trDebug(trCtx, m->debugReq, "matchLongestURI: found longer match; switch from %s to %s",
              orNull(wmGetName(best.webModule)), orNull(wmGetName(wm)));
    }
    best = {wm, *group};
  }
  return best;
}

WebModule* matchLongestURI(const URLMatcher* m, KyrHttpContext* ctx, const char* host, int port,
                           const char* uri) {
  URLMatch best = findLongestURI(m, ctx, host, port, uri);
  const char* groupName = best.vhostMatcher != nullptr ? best.vhostMatcher->name : nullptr;
  if (ctx != nullptr) kyrHttpContextSetMatchedVHostName(ctx, groupName);
  trDebug(requestTrContext(ctx, m->trCtx), m->debugReq, "matchLongestURI: Exit - %s, %s\n",
          orNull(groupName),
          best.webModule != nullptr ? orNull(wmGetName(best.webModule)) : "NULL");
  return best.webModule;
}

bool isBetterThan(const URLMatcher* urlMatcher, WebModule* lhsObj, WebModule* rhsObj) {
  size_t lhsLen = contextRootLength(lhsObj);
  size_t rhsLen = contextRootLength(rhsObj);
  if (lhsLen != rhsLen) {
    if (lhsLen < rhsLen) return false;
    trDebug(urlMatcher->trCtx, urlMatcher->debugReq,
            "isBetterThan() '%s' and '%s': TRUE because of context root", orNull(wmGetName(lhsObj)),
            orNull(wmGetName(rhsObj)));
    return true;
  }
  if (!isGenericApplicationModule(rhsObj)) return false;
  trDebug(urlMatcher->trCtx, urlMatcher->debugReq,
          "isBetterThan() '%s' and '%s': TRUE because of generic app", orNull(wmGetName(lhsObj)),
          orNull(wmGetName(rhsObj)));
  return true;
}

json_t* urlMatcherToJSON(const URLMatcher* m) {
  json_t* groups = json_array();
  for (VHostMatcher** group = kyrPublished(m->vhtMatchersArray); *group != nullptr; ++group) {
    json_array_append_new(groups, vhostMatcherToJSON(*group));
  }
  json_t* json = json_object();
  json_object_set_new(json, "VHostGroups", groups);
  return json;
}

}  // namespace kyr
