// Web modules (context root, URI patterns, SSL protocol map, cookies, file serving, cluster
// names) and the affinity policies they own.
#include <cstdlib>
#include <cstring>

#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

void hapFree(void* hap) { hapDelete(static_cast<HttpAffinityPolicy*>(hap)); }

void retirePolicy(WebModule* wm, HttpAffinityPolicy* hap) {
  kyrRoutingInfoRetire(wm->rm->ri, hap, hapFree, sizeof(HttpAffinityPolicy));
}

// Target selection installs a module's first policy under the selector lock while the routing
// data may drop it, so the slot is exchanged atomically and what it held is retired.
void installPolicy(WebModule* wm, HttpAffinityPolicy* hap) {
  retirePolicy(wm, kyrPublishExchange(wm->hap, hap));
}

}  // namespace

WebModule* rmWebModuleCreate(Application* app, const char* name, int restVersion) {
  auto* wm = kyrNew<WebModule>();
  wm->rm = app->rm;
  wm->application = app;
  wm->name = kyrStrdup(name);
  wm->nameHash = kyrHashCompute(wm->name);
  wm->sslMapMode = NullMapMode;
  // Plain copies: the runtime's string-list helpers free them with free().
  wm->uris = kyrListCreate(free);
  wm->clusters = kyrListCreate(free);
  wm->fileServingEnabled = true;
  wm->restVersion = restVersion;
  appAddWebModule(app, wm);
  return wm;
}

void rmWebModuleInit(WebModule* wm) {
  // Old publishers send no URIs: such a module serves everything below its context root.
  if (wm->restVersion < 0) rmWebModuleAddUri(wm, "*");
}

void rmWebModuleDelete(WebModule* wm) {
  Application* app = wm->application;
  kyrListFindAndRemove(app->webModules, wm);
  appPublishWebModules(app);
  // Requests may have mapped to the module, and its policy may be in use.
  kyrRoutingInfoRetire(wm->rm->ri, wm, rmWebModuleFree, sizeof(WebModule));
}

void rmWebModuleFree(void* p) {
  auto* wm = static_cast<WebModule*>(p);
  kyrListDestroy(wm->uris);
  kyrListDestroy(wm->clusters);
  hapDelete(wm->hap);
  kyrFree(wm->name);
  kyrFree(wm->contextRoot);
  kyrFree(wm->sessionAffinityCookies);
  kyrDelete(wm);
}

void rmWebModuleAddUri(WebModule* wm, const char* uri) {
  if (uri != nullptr) kyrListAddTail(wm->uris, strdup(uri));
}

bool rmWebModuleSetPropStr(WebModule* wm, const char* name, const char* value) {
  if (strcmp(name, "contextRoot") == 0) {
    kyrRoutingInfoReplaceText(wm->rm->ri, &wm->contextRoot, value);
  } else if (strcmp(name, "sessionAffinityCookies") == 0) {
    wmSetSessionAffinityCookies(wm, value);
  } else if (strcmp(name, "protocolMap") == 0) {
    KyrSSLMapMode mode;
    if (value == nullptr) {
      mode = NullMapMode;
    } else if (strcmp(value, "direct") == 0) {
      mode = MapInboundToOutbound;
    } else if (strcmp(value, "http") == 0) {
      mode = SSLOffLoad;
    } else if (strcmp(value, "https") == 0) {
      mode = SSLOnLoad;
    } else {
      return false;
    }
    kyrPublish(wm->sslMapMode, mode);
  } else {
    return false;
  }
  return true;
}

bool rmWebModuleSetPropInt(WebModule*, const char*, int) { return false; }

bool rmWebModuleSetPropBool(WebModule* wm, const char* name, bool value) {
  // "routingEnabled" is known but deliberately refused, like any unknown name.
  if (strcmp(name, "fileServingEnabled") != 0) return false;
  rmWebModuleSetFileServingEnabled(wm, value);
  return true;
}

const char* rmWebModuleGetName(WebModule* wm) { return wm->name; }
const char* rmWebModuleGetAppSimpleName(WebModule* wm) { return wm->application->simpleName; }
KyrSSLMapMode rmWebModuleGetSSLMapMode(WebModule* wm) { return kyrPublished(wm->sslMapMode); }
void rmWebModuleSetFileServingEnabled(WebModule* wm, bool enabled) {
  kyrPublish(wm->fileServingEnabled, enabled);
}
bool rmWebModuleGetFileServingEnabled(WebModule* wm) {
  return kyrPublished(wm->fileServingEnabled);
}
const char* wmGetName(WebModule* wm) { return wm->name; }
const char* wmGetContextRoot(WebModule* wm) { return kyrPublished(wm->contextRoot); }
Application* wmGetApplication(WebModule* wm) { return wm->application; }
HttpAffinityPolicy* wmGetHttpAffinityPolicy(WebModule* wm) { return kyrPublished(wm->hap); }
KyrList* wmGetClusters(WebModule* wm) { return wm->clusters; }
const char* wmGetSessionAffinityCookies(WebModule* wm) {
  return kyrPublished(wm->sessionAffinityCookies);
}
void wmSetSessionAffinityCookies(WebModule* wm, const char* cookies) {
  kyrRoutingInfoReplaceText(wm->rm->ri, &wm->sessionAffinityCookies, cookies);
}
void wmDropHttpAffinityPolicy(WebModule* wm) {
  retirePolicy(wm, kyrPublishExchange(wm->hap, nullptr));
}

HttpAffinityPolicy* hapCreate(WebModule* wm, char** cookieNames, const char* delimiter,
                              bool learnServerIDs) {
  auto* hap = kyrNew<HttpAffinityPolicy>();
  hap->cookieNames = cookieNames;
  hap->delimiter = delimiter != nullptr ? kyrStrdup(delimiter) : nullptr;
  hap->learnServerIDs = learnServerIDs;
  installPolicy(wm, hap);
  return hap;
}

HttpAffinityPolicy* hapCreate1(WebModule* wm, const char* descriptor) {
  auto* hap = kyrNew<HttpAffinityPolicy>();
  hap->descriptor = descriptor != nullptr ? kyrStrdup(descriptor) : nullptr;
  installPolicy(wm, hap);
  return hap;
}

const char* hapGetDelimiter(HttpAffinityPolicy* hap) { return hap->delimiter; }
char** hapGetCookieNames(HttpAffinityPolicy* hap) { return hap->cookieNames; }
bool hapGetLearnServerIDs(HttpAffinityPolicy* hap) { return hap->learnServerIDs; }

void hapDelete(HttpAffinityPolicy* hap) {
  if (hap == nullptr) return;
  kyrFree(hap->descriptor);
  kyrFree(hap->delimiter);
  if (hap->cookieNames != nullptr) {
    for (char** name = hap->cookieNames; *name != nullptr; ++name) kyrFree(*name);
    kyrFree(hap->cookieNames);
  }
  kyrDelete(hap);
}

}  // namespace kyr
