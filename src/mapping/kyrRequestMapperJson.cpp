// State dumps of the request mapper, for the library's state report. Layout:
//   rmToJSON:      { "applications": { root name: appRootToJSON }, "urlMatcher": ... }
//   appRootToJSON: { "editions": [ appToJSON, ... ] }        (editions in creation order)
//   appToJSON:     { "name", "edition", "state"?, "sessionAffinityCookies"?,
//                    "webModules": { module name: wmToJSON } }
//   wmToJSON:      { "contextRoot"?, "uris": [...], "sslMapMode", "sessionAffinityCookies"?,
//                    "fileServingEnabled", "clusters": [...] }
// Members marked ? are left out when unset.
#include "mapping/kyrRequestMapper.h"

namespace kyr {
namespace {

void setString(json_t* object, const char* key, const char* value) {
  if (value != nullptr) json_object_set_new(object, key, json_string(value));
}

json_t* stringArray(KyrList* list) {
  json_t* array = json_array();
  for (KyrListEle* e = kyrListGetHead(list); e != nullptr; e = kyrListGetNext(e)) {
    json_array_append_new(array, json_string(static_cast<const char*>(kyrListEleGetObject(e))));
  }
  return array;
}

const char* sslMapModeName(KyrSSLMapMode mode) {
  switch (mode) {
    case MapInboundToOutbound:
      return "direct";
    case SSLOffLoad:
      return "http";
    case SSLOnLoad:
      return "https";
    default:
      return "null";
  }
}

}  // namespace

json_t* wmToJSON(WebModule* wm) {
  json_t* o = json_object();
  setString(o, "contextRoot", wm->contextRoot);
  json_object_set_new(o, "uris", stringArray(wm->uris));
  json_object_set_new(o, "sslMapMode", json_string(sslMapModeName(wm->sslMapMode)));
  setString(o, "sessionAffinityCookies", wm->sessionAffinityCookies);
  json_object_set_new(o, "fileServingEnabled", json_boolean(wm->fileServingEnabled));
  json_object_set_new(o, "clusters", stringArray(wm->clusters));
  return o;
}

json_t* appToJSON(Application* app) {
  json_t* o = json_object();
  setString(o, "name", app->name);
  setString(o, "edition", app->edition);
  setString(o, "state", app->state);
  setString(o, "sessionAffinityCookies", app->sessionAffinityCookies);
  json_t* modules = json_object();
  for (KyrListEle* e = kyrListGetHead(app->webModules); e != nullptr; e = kyrListGetNext(e)) {
    auto* wm = static_cast<WebModule*>(kyrListEleGetObject(e));
    json_object_set_new(modules, wm->name, wmToJSON(wm));
  }
  json_object_set_new(o, "webModules", modules);
  return o;
}

json_t* appRootToJSON(ApplicationRoot* root) {
  json_t* editions = json_array();
  for (KyrListEle* e = kyrListGetHead(root->applications); e != nullptr; e = kyrListGetNext(e)) {
    json_array_append_new(editions, appToJSON(static_cast<Application*>(kyrListEleGetObject(e))));
  }
  json_t* o = json_object();
  json_object_set_new(o, "editions", editions);
  return o;
}

json_t* rmToJSON(RequestMapper* rm) {
  json_t* roots = json_object();
  {
    KyrLockGuard guard(rm->lock, "rmToJSON");
    KyrHashIterator it;
    for (kyrHashIteratorStart(rm->appRoots, &it); kyrHashNext(&it) != nullptr;) {
      json_object_set_new(roots, kyrHashThisKey(&it),
                          appRootToJSON(static_cast<ApplicationRoot*>(kyrHashThisVal(&it))));
    }
  }
  json_t* o = json_object();
  json_object_set_new(o, "applications", roots);
  json_object_set_new(o, "urlMatcher", urlMatcherToJSON(rm->matcher));
  return o;
}

}  // namespace kyr
