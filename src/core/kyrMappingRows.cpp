// Request-mapping rows of the routing-data reader. A "webModule" object is both the mapper's
// module and the selector's virtual cluster of the same name; the module keeps the pointer to
// its other half so relationships and deletion reach both.
#include "core/kyrMappingRows.h"

#include <cstring>

#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"

namespace kyr {
namespace {

void* applicationCreate(void*, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  return rmApplicationCreate(kyrRoutingInfoGetRequestMapper(ri), fullName);
}

void* webModuleCreate(void* app, const char* fullName, KyrConnector* c, KyrRoutingInfo* ri) {
  int restVersion = c != nullptr ? static_cast<int>(c->restVersion) : -1;
  WebModule* wm = rmWebModuleCreate(static_cast<Application*>(app), fullName, restVersion);
  wm->virtualCluster = tsVirtualClusterCreate(kyrRoutingInfoGetTargetSelector(ri), wm, fullName);
  return wm;
}

void webModuleDelete(void* obj) {
  auto* wm = static_cast<WebModule*>(obj);
  tsVirtualClusterDelete(wm->virtualCluster);
  rmWebModuleDelete(wm);
}

// URIs are added to their module and stored as no object of their own; the reader reports the
// missing object, which publishers have always seen. Only publishers that escape slashes in
// values (rest version above 0) send URIs whose value can be read back.
void* uriCreate(void* wm, const char* fullName, KyrConnector* c, KyrRoutingInfo*) {
  if (c == nullptr || c->restVersion <= 0) return nullptr;
  char* uri = kyrNameGetValue(fullName, false);
  rmWebModuleAddUri(static_cast<WebModule*>(wm), uri);
  kyrFree(uri);
  return nullptr;
}

void* vHostGroupCreate(void*, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  return createVHostMatcher(ri, fullName);
}

RequestMapper* mapperOf(VHostMatcher* group) {
  return kyrRoutingInfoGetRequestMapper(vhostMatcherGetRoutingInfo(group));
}

bool vHostGroupInit(void* obj) {
  auto* group = static_cast<VHostMatcher*>(obj);
  rmAddVHostMatcher(mapperOf(group), group);
  return true;
}

void vHostGroupDelete(void* obj) {
  auto* group = static_cast<VHostMatcher*>(obj);
  rmDeleteVHostMatcher(mapperOf(group), group);
}

void* vHostCreate(void* group, const char*, KyrConnector*, KyrRoutingInfo* ri) {
  return rmVHostEntryCreate(kyrRoutingInfoGetRequestMapper(ri), static_cast<VHostMatcher*>(group));
}

}  // namespace

const ObjectHandler kApplicationRow = {"application",
                                       RoutingInfo,
                                       true,
                                       applicationCreate,
                                       Untyped<rmApplicationSetPropStr>::call,
                                       Untyped<rmApplicationSetPropInt>::call,
                                       Untyped<rmApplicationSetPropBool>::call,
                                       Untyped<rmApplicationSetPropNull>::call,
                                       nullptr,
                                       Untyped<rmApplicationDelete>::call,
                                       {},
                                       true};

const ObjectHandler kWebModuleRow = {"webModule",
                                     ParentMandatory,
                                     true,
                                     webModuleCreate,
                                     Untyped<rmWebModuleSetPropStr>::call,
                                     Untyped<rmWebModuleSetPropInt>::call,
                                     Untyped<rmWebModuleSetPropBool>::call,
                                     nullptr,
                                     initKeeping<rmWebModuleInit>,
                                     webModuleDelete,
                                     {"application"}};

const ObjectHandler kUriRow = {"uri",   ParentMandatory, true,    uriCreate, nullptr,      nullptr,
                               nullptr, nullptr,         nullptr, nullptr,   {"webModule"}};

const ObjectHandler kVHostGroupRow = {"vHostGroup",   RoutingInfo,     true,    vHostGroupCreate,
                                      nullptr,        nullptr,         nullptr, nullptr,
                                      vHostGroupInit, vHostGroupDelete};

const ObjectHandler kVHostRow = {"vHost",
                                 ParentMandatory,
                                 true,
                                 vHostCreate,
                                 Untyped<rmVHostEntrySetPropStr>::call,
                                 Untyped<rmVHostEntrySetPropInt>::call,
                                 nullptr,
                                 nullptr,
                                 initKeeping<rmVHostEntryInit>,
                                 Untyped<kyrVHostDelete>::call,
                                 {"vHostGroup"}};

void linkClusterWebModule(void* cluster, void* webModule, bool add) {
  auto* c = static_cast<Cluster*>(cluster);
  auto* wm = static_cast<WebModule*>(webModule);
  rmLinkClusterToWebModule(c, wm, add);
  tsLinkVirtualClusterToCluster(wm->virtualCluster, c, add);
}

void linkVHostGroupWebModule(void* vHostGroup, void* webModule, bool add) {
  rmLinkVHostAndWebModule(static_cast<VHostMatcher*>(vHostGroup),
                          static_cast<WebModule*>(webModule), add);
}

void linkServerWebModule(void* server, void* webModule, bool add) {
  tsLinkServerToWebModule(static_cast<TargetServer*>(server), static_cast<WebModule*>(webModule),
                          add);
}

}  // namespace kyr
