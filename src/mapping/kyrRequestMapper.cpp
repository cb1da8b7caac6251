// The request mapper and its applications: creation and deletion, application roots shared by
// the editions of one application, links to virtual host groups and clusters, and the mapping
// of one request to a web module of the edition its routing rules choose.
#include "mapping/kyrRequestMapper.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/kyrRoutingInfo.h"
#include "lang/kyrAction.h"
#include "mapping/URIMatcher.h"
#include "mapping/kyrWebRouteWorkClass.h"
#include "request/kyrHttpContext.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

void applicationFree(void* p) {
  auto* app = static_cast<Application*>(p);
  kyrListDestroy(app->webModules);
  free(app->webModuleArray);
  kyrListDestroy(app->webRouteWorkClasses);
  kyrFree(app->name);
  free(app->simpleName);
  kyrFree(app->edition);
  kyrFree(app->sessionAffinityCookies);
  kyrFree(app->state);
  kyrDelete(app);
}

void appRootFree(void* p) {
  auto* root = static_cast<ApplicationRoot*>(p);
  kyrListDestroy(root->applications);
  free(root->editions);
  kyrFree(root->name);
  kyrDelete(root);
}

// Replaces a published null-terminated array with a copy of the list, retiring the old one.
template <class T>
void publishArray(KyrRoutingInfo* ri, T**& slot, const KyrList* list) {
  auto** array = reinterpret_cast<T**>(kyrListCreateArray(list));
  T** old = kyrPublishExchange(slot, array);
  size_t bytes = static_cast<size_t>(kyrListGetCount(list) + 1) * sizeof(void*);
  kyrRoutingInfoRetire(ri, old, free, bytes);
}

// Takes the application out of its root; the root goes with its last edition.
void leaveRoot(Application* app) {
  RequestMapper* rm = app->rm;
  KyrLockGuard guard(rm->lock, "rmApplicationDelete");
  ApplicationRoot* root = app->root;
  kyrListFindAndRemove(root->applications, app);
  publishArray(rm->ri, root->editions, root->applications);
  if (kyrListIsEmpty(root->applications)) {
    kyrHashPut(rm->appRoots, root->name, nullptr);
    kyrRoutingInfoRetire(rm->ri, root, appRootFree, sizeof(ApplicationRoot));
  }
}

// The first module of the edition whose context root starts the full path.
WebModule* moduleForPath(Application* app, const char* path) {
  for (WebModule** wm = kyrPublished(app->webModuleArray); *wm != nullptr; ++wm) {
    const char* root = kyrPublished((*wm)->contextRoot);
    if (root != nullptr && strncmp(path, root, strlen(root)) == 0) return *wm;
  }
  return nullptr;
}

// Frees the cut copy pathOnly may make.
struct PathOnly {
  explicit PathOnly(const char* path) : full(path), cut(pathOnly(path)) {}
  ~PathOnly() {
    if (cut != full) kyrFree(const_cast<char*>(cut));
  }
  PathOnly(const PathOnly&) = delete;
  PathOnly& operator=(const PathOnly&) = delete;
  const char* full;
  const char* cut;
};

}  // namespace

RequestMapper* rmCreate(KyrRoutingInfo* ri) {
  auto* rm = kyrNew<RequestMapper>();
  rm->ri = ri;
  rm->lock = kyrLockCreate("RequestMapper.lock");
  rm->appRoots = kyrHashMapCreate2(appRootFree);
  rm->matcher = kyrURLMatcherCreate(ri);
  rm->applications = kyrListCreate(applicationFree);
  rm->vHostEntries = kyrListCreate(vHostEntryFree);
  Kyr* kyr = kyrRoutingInfoGetKyr(ri);
  rm->trCtx = kyr->trCtx;
  rm->debugCtl = trRecordGet(kyr->trMgr, "control.mapper");
  rm->debugReq = trRecordGet(kyr->trMgr, "http.request.map.url");
  rm->rolloutRec = trRecordGet(kyr->trMgr, "http.request.select.editionRollout");
  return rm;
}

void rmDelete(RequestMapper* rm) {
  if (rm == nullptr) return;
  kyrURLMatcherDestroy(rm->matcher);
  kyrListDestroy(rm->applications);
  kyrListDestroy(rm->vHostEntries);
  kyrHashMapDestroy(rm->appRoots);
  kyrLockDestroy(rm->lock);
  kyrDelete(rm);
}

KyrRoutingInfo* rmGetRoutingInfo(RequestMapper* rm) { return rm->ri; }
URLMatcher* rmGetURLMatcher(RequestMapper* rm) { return rm->matcher; }

char* appNameToAppRootName(const char* appName) {
  const char* edition = strstr(appName, "-edition");
  return edition != nullptr ? kyrStrndup(appName, static_cast<size_t>(edition - appName))
                            : kyrStrdup(appName);
}

Application* rmApplicationCreate(RequestMapper* rm, const char* name) {
  auto* app = kyrNew<Application>();
  app->rm = rm;
  app->name = kyrStrdup(name);
  app->simpleName = kyrPathToName(name);
  app->edition = kyrStrdup("");
  app->webModules = kyrListCreate(rmWebModuleFree);
  app->webModuleArray = reinterpret_cast<WebModule**>(kyrListCreateArray(app->webModules));
  app->webRouteWorkClasses = kyrListCreate(webRouteWorkClassFree);
  char* rootName = appNameToAppRootName(name);
  {
    KyrLockGuard guard(rm->lock, "rmApplicationCreate");
    auto* root = static_cast<ApplicationRoot*>(kyrHashGet(rm->appRoots, rootName));
    if (root == nullptr) {
      trDebug(rm->trCtx, rm->debugCtl,
              "rmApplicationCreate: creating application '%s' with root name of '%s' "
              "(rmaddr=%p)\n",
              name, rootName, static_cast<void*>(rm));
      root = kyrNew<ApplicationRoot>();
      root->name = kyrStrdup(rootName);
      root->applications = kyrListCreate(nullptr);
      root->editions = reinterpret_cast<Application**>(kyrListCreateArray(root->applications));
      kyrHashPut(rm->appRoots, root->name, root);  // the map borrows the root's own name
    } else {
      trDebug(rm->trCtx, rm->debugCtl,
              "linking edition '%s' to previously created application root '%s'\n", name, rootName);
    }
    kyrListAddTail(root->applications, app);
    publishArray(rm->ri, root->editions, root->applications);
    app->root = root;
  }
  kyrFree(rootName);
  kyrListAddTail(rm->applications, app);
  return app;
}

void rmApplicationDelete(Application* app) {
  leaveRoot(app);
  // Requests that mapped to the application may still read it and whatever modules it has left.
  kyrListFindAndRemove(app->rm->applications, app);
  kyrRoutingInfoRetire(app->rm->ri, app, applicationFree, sizeof(Application));
}

KyrRoutingInfo* rmApplicationGetRoutingInfo(Application* app) { return app->rm->ri; }
const char* rmApplicationGetSimpleName(Application* app) { return app->simpleName; }
void rmApplicationSetState(Application* app, const char* state) {
  kyrRoutingInfoReplaceText(app->rm->ri, &app->state, state);
}
void rmApplicationSetEdition(Application* app, const char* edition) {
  kyrRoutingInfoReplaceText(app->rm->ri, &app->edition, edition);
}
void rmApplicationSetSessionAffinityCookies(Application* app, const char* cookies) {
  kyrRoutingInfoReplaceText(app->rm->ri, &app->sessionAffinityCookies, cookies);
}
const char* appGetSessionAffinityCookies(Application* app) {
  return kyrPublished(app->sessionAffinityCookies);
}
void appAddWebModule(Application* app, WebModule* wm) {
  kyrListAddTail(app->webModules, wm);
  appPublishWebModules(app);
}
void appPublishWebModules(Application* app) {
  publishArray(app->rm->ri, app->webModuleArray, app->webModules);
}

bool rmApplicationSetPropStr(Application* app, const char* name, const char* value) {
  if (strcmp(name, "state") == 0) {
    rmApplicationSetState(app, value);
  } else if (strcmp(name, "edition") == 0) {
    rmApplicationSetEdition(app, value);
  } else if (strcmp(name, "sessionAffinityCookies") == 0) {
    rmApplicationSetSessionAffinityCookies(app, value);
  } else {
    return false;
  }
  return true;
}

bool rmApplicationSetPropInt(Application*, const char*, int) { return false; }
bool rmApplicationSetPropBool(Application*, const char*, bool) { return false; }

bool rmApplicationSetPropNull(Application* app, const char* name) {
  if (strcmp(name, "sessionAffinityCookies") != 0) return false;
  rmApplicationSetSessionAffinityCookies(app, nullptr);
  // Policies were built from the old cookies; they are rebuilt on next use.
  for (KyrListEle* e = kyrListGetHead(app->webModules); e != nullptr; e = kyrListGetNext(e)) {
    wmDropHttpAffinityPolicy(static_cast<WebModule*>(kyrListEleGetObject(e)));
  }
  return true;
}

Application* getApplicationByEdition(Application* app, const char* edition) {
  for (Application** candidate = kyrPublished(app->root->editions); *candidate != nullptr;
       ++candidate) {
    const char* candidateEdition = kyrPublished((*candidate)->edition);
    if (candidateEdition != nullptr && strcmp(candidateEdition, edition) == 0) return *candidate;
  }
  return nullptr;
}

void rmPublish(RequestMapper* rm) { URLMatcherPublish(rm->matcher); }

void rmAddVHostMatcher(RequestMapper* rm, VHostMatcher* vhostMatcher) {
  addVHostMatcher(rm->matcher, vhostMatcher);
}

void rmLinkVHostAndWebModule(VHostMatcher* vhostMatcher, WebModule* wm, bool add) {
  RequestMapper* rm = wm->rm;
  if (!add) {
    // The patterns stay in the group until the version is rebuilt.
    trDebug(rm->trCtx, rm->debugCtl,
            "rmLinkVHostAndWebModule: called to delete the relationship of vHostGroup=%s and "
            "webModule=%s, nothing to do, returning\n",
            getVHostMatcherName(vhostMatcher), wm->name);
    return;
  }
  trDebug(rm->trCtx, rm->debugCtl, "rmLinkVHostAndWebModule: vHostGroup=%s, webModule=%s\n",
          getVHostMatcherName(vhostMatcher), wm->name);
  // The patterns reach requests when the document is done (rmPublish).
  URIMatcher* uriMatcher = getURIMatcher(vhostMatcher);
  for (KyrListEle* e = kyrListGetHead(wm->uris); e != nullptr; e = kyrListGetNext(e)) {
    char* pattern =
        URIMatcherMakePattern(wm->contextRoot, static_cast<const char*>(kyrListEleGetObject(e)));
    URIMatcherPut(uriMatcher, pattern, wm, true);
    kyrFree(pattern);
  }
}

bool rmLinkClusterToWebModule(Cluster* cluster, WebModule* wm, bool add) {
  RequestMapper* rm = wm->rm;
  const char* clusterName = tsClusterGetName(cluster);
  if (add) {
    if (kyrListFindStr(wm->clusters, clusterName) == nullptr) {
      kyrListAddTail(wm->clusters, strdup(clusterName));
      trDebug(rm->trCtx, rm->debugCtl,
              "rmLinkClusterToWebModule: Added the cluster %s to the cluster list of the web "
              "module %s\n",
              clusterName, wm->name);
    }
    trDebug(rm->trCtx, rm->debugCtl,
            "rmLinkClusterToWebModule: cluster list size of the web module %s after add is %d\n",
            wm->name, kyrListGetCount(wm->clusters));
  } else {
    trDebug(rm->trCtx, rm->debugCtl,
            "rmLinkClusterToWebModule: Removing the cluster %s from the cluster list of the web "
            "module %s\n",
            clusterName, wm->name);
    kyrListFindAndRemoveStr(wm->clusters, clusterName);
    trDebug(rm->trCtx, rm->debugCtl,
            "rmLinkClusterToWebModule: cluster list size of the web module %s after remove is "
            "%d\n",
            wm->name, kyrListGetCount(wm->clusters));
  }
  return true;
}

const char* pathOnly(const char* s) {
  size_t cut = strcspn(s, "?;");
  return s[cut] == '\0' ? s : kyrStrndup(s, cut);
}

const char* evaluateAppEditionRoutingRules(Application* app, KyrHttpContext* ctx) {
  // Editions are chosen by the rules of the application's default work class; an application
  // without one always serves its own edition.
  WebRouteWorkClass* wc = kyrPublished(app->defaultWebRouteWorkClass);
  if (wc == nullptr) {
    const char* edition = kyrPublished(app->edition);
    kyrHttpContextSetPermit(ctx, edition, false);
    return edition;
  }
  // No lock: a delta publishes the set's new match order and each rule's new expression or
  // action whole, and what it replaces lives as long as the version this request holds.
  KyrRule* rule = kyrRulesFindMatchingRule(kyrHttpContextGetTrContext(ctx), wc->rules, ctx);
  if (rule == nullptr) {
    kyrHttpContextSetReject(ctx, 500, "no edition routing rule match found; Error Status Code=500");
    return nullptr;
  }
  const auto* action = static_cast<const Action*>(kyrRuleGetObject(rule));
  if (action == nullptr) {
    kyrHttpContextSetReject(ctx, 500,
                            "no edition routing rule action found; Error Status Code=500");
    return nullptr;
  }
  switch (actionGetType(action)) {
    case REDIRECT:
      kyrHttpContextSetRedirect(ctx, actionGetRedirectUrl(action));
      return nullptr;
    case PERMIT:
      kyrHttpContextSetPermit(ctx, actionGetEdition(action), actionGetPermitSticky(action));
      return ctx->editionName.text;
    case REJECT:
      kyrHttpContextSetReject(ctx, actionGetRejectErrorCode(action),
                              "matched reject edition routing rule");
      return nullptr;
    default:
      kyrHttpContextSetReject(ctx, 500,
                              "invalid edition routing rule action; Error Status Code=500");
      return nullptr;
  }
}

int rmMapRequest(RequestMapper* rm, KyrHttpContext* ctx) {
  TrContext* tr = kyrHttpContextGetTrContext(ctx);
  trDebug(tr, rm->debugReq, "rmMapRequest enter (rmaddr=%p)\n", static_cast<void*>(rm));
  const char* host = kyrHttpContextGetVirtualHost(ctx);
  int port = kyrHttpContextGetVirtualPort(ctx);
  const char* path = kyrHttpContextGetPath(ctx);
  if (host == nullptr) {
    kyrHttpContextSetReject(ctx, 500, "null host");
    trDebug(tr, rm->debugReq, "rmMapRequest: null host; Error Status Code=500\n");
    return -1;
  }
  if (path == nullptr) {
    kyrHttpContextSetReject(ctx, 500, "null path");
    trDebug(tr, rm->debugReq, "rmMapRequest: null path; Error Status Code=500\n");
    return -1;
  }
  PathOnly uri(path);
  WebModule* wm = matchLongestURI(rm->matcher, ctx, host, port, uri.cut);
  if (wm == nullptr) {
    kyrHttpContextSetReject(ctx, 404, "no mapping found");
    trDebug(tr, rm->debugReq, "failed to map %s:%d/%s to a web module; Error Status Code=404\n",
            host, port, path);
    return 0;
  }
  Application* app = wm->application;
  const char* edition = evaluateAppEditionRoutingRules(app, ctx);
  if (edition == nullptr) {
    trDebug(tr, rm->debugReq, "null edition name");
    return 1;
  }
  const char* matchedEdition = kyrPublished(app->edition);
  if (matchedEdition == nullptr || strcmp(edition, matchedEdition) != 0) {
    Application* chosen = getApplicationByEdition(app, edition);
    if (chosen == nullptr) {
      kyrHttpContextSetReject(ctx, 500,
                              "edition of application indicated by routing rule was not found");
      trDebug(tr, rm->debugReq,
              "edition '%s' of application '%s' was not found; Error Status Code=500\n", edition,
              app->name);
      return 0;
    }
    wm = moduleForPath(chosen, path);
    if (wm == nullptr) {
      trDebug(tr, rm->debugReq,
              "failed to map %s:%d/%s to a web module of edition '%s' of application '%s'\n", host,
              port, path, edition, chosen->name);
      return 0;
    }
    app = chosen;
  }
  kyrHttpContextSetApplicationName(ctx, app->simpleName);
  kyrHttpContextSetEditionName(ctx, kyrPublished(app->edition));
  kyrHttpContextSetWebModule(ctx, wm);
  kyrHttpContextSetContextRoot(ctx, kyrPublished(wm->contextRoot));
  trTrace(tr, rm->debugReq, 7, "mapped request %s:%d/%s to web module %s\n", host, port, path,
          wm->name);
  return 1;
}

}  // namespace kyr
