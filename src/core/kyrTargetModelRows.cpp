// Target-model rows of the routing-data reader. Each adapter casts the reader's untyped object
// to the selector's type; the publisher-port endpoints additionally keep the connector group's
// connector list in step with the ports the publishers announce.
#include "core/kyrTargetModelRows.h"

#include <cstring>
#include <string>

#include "connector/kyrConnectorGroup.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "selection/kyrTargetSelector.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

TargetSelector* selectorOf(KyrRoutingInfo* ri) { return kyrRoutingInfoGetTargetSelector(ri); }

void* nodeCreate(void*, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  return tsNodeCreate(selectorOf(ri), fullName);
}

void* serverCreate(void* node, const char* fullName, KyrConnector* c, KyrRoutingInfo*) {
  return tsServerCreate(static_cast<TargetNode*>(node), fullName, c);
}

void* serverApplicationCreate(void* server, const char* fullName, KyrConnector* c,
                              KyrRoutingInfo*) {
  return tsServerApplicationCreate(static_cast<TargetServer*>(server), fullName, c);
}

void* endPointCreate(void* server, const char* fullName, KyrConnector*, KyrRoutingInfo*) {
  return tsEndPointCreate(static_cast<TargetServer*>(server), fullName);
}

void* clusterCreate(void*, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  return tsClusterCreate(selectorOf(ri), fullName);
}

// ---- Publisher ports: the endpoints through which publishers serve routing data.

bool isPublisherPort(KyrTargetEndpoint* tep) {
  char* shortName = kyrNameGetValue(tsEndPointGetName(tep), false);
  bool publisher = shortName != nullptr && (strcmp(shortName, "YKAGENT_PORT") == 0 ||
                                            strcmp(shortName, "SMART_ROUTING_PORT") == 0);
  kyrFree(shortName);
  return publisher;
}

std::string publisherURL(KyrTargetEndpoint* tep) {
  const char* scheme = strcmp(kyrTargetEndpointGetProtocol(tep), "https") == 0 ? "https" : "http";
  const char* host = kyrTargetEndpointGetHostName(tep);
  return std::string(scheme) + "://" + (host != nullptr ? host : "") + ":" +
         std::to_string(kyrTargetEndpointGetPort(tep));
}

// The group the announcing server's documents come from; null for servers without one.
KyrConnectorGroup* groupOf(KyrTargetEndpoint* tep) {
  KyrConnector* c = tsServerGetConnector(tsEndPointGetServer(tep));
  return c != nullptr ? c->cg : nullptr;
}

bool endPointInit(void* obj) {
  auto* tep = static_cast<KyrTargetEndpoint*>(obj);
  tsEndPointInit(tep);
  KyrConnectorGroup* cg = groupOf(tep);
  if (cg == nullptr || !isPublisherPort(tep)) return true;
  std::string url = publisherURL(tep);
  if (kyrConnectorGroupFindConnector(cg, url.c_str()) != nullptr) return true;
  trDebug(cg->kyr->trCtx, cg->kyr->processRec,
          "kyrEndPointInit: A connector with URL %s is not present in the connector group %s, so "
          "creating it\n",
          url.c_str(), cg->name);
  kyrConnectorCreate2(cg, url.c_str());
  return true;
}

void endPointDelete(void* obj) {
  auto* tep = static_cast<KyrTargetEndpoint*>(obj);
  KyrConnectorGroup* cg = groupOf(tep);
  if (cg != nullptr && isPublisherPort(tep)) {
    KyrConnector* c = kyrConnectorGroupFindConnector(cg, publisherURL(tep).c_str());
    if (c != nullptr) kyrConnectorGroupRemoveConnector(cg, c);
  }
  tsEndPointDelete(tep);
}

}  // namespace

const ObjectHandler kNodeRow = {
    "node",  RoutingInfo, false,   nodeCreate, Untyped<tsNodeSetPropStr>::call,
    nullptr, nullptr,     nullptr, nullptr,    Untyped<tsNodeDelete>::call};

const ObjectHandler kServerRow = {"server",
                                  ParentMandatory,
                                  false,
                                  serverCreate,
                                  Untyped<tsServerSetPropStr>::call,
                                  Untyped<tsServerSetPropInt>::call,
                                  Untyped<tsServerSetPropBool>::call,
                                  Untyped<tsServerSetPropNull>::call,
                                  initKeeping<tsServerInit>,
                                  Untyped<tsServerDelete>::call,
                                  {"node"}};

const ObjectHandler kServerApplicationRow = {"serverApplication",
                                             ParentMandatory,
                                             false,
                                             serverApplicationCreate,
                                             Untyped<tsServerApplicationSetPropStr>::call,
                                             Untyped<tsServerApplicationSetPropInt>::call,
                                             Untyped<tsServerApplicationSetPropBool>::call,
                                             nullptr,
                                             initKeeping<tsServerApplicationInit>,
                                             Untyped<tsServerApplicationDelete>::call,
                                             {"server"}};

const ObjectHandler kTransportRow = {"transport",
                                     ParentMandatory,
                                     false,
                                     endPointCreate,
                                     Untyped<tsEndPointSetPropStr>::call,
                                     Untyped<tsEndPointSetPropInt>::call,
                                     Untyped<tsEndPointSetPropBool>::call,
                                     nullptr,
                                     endPointInit,
                                     endPointDelete,
                                     {"server"}};

const ObjectHandler kClusterRow = {"cluster",
                                   RoutingInfo,
                                   false,
                                   clusterCreate,
                                   Untyped<tsClusterSetPropStr>::call,
                                   Untyped<tsClusterSetPropInt>::call,
                                   Untyped<tsClusterSetPropBool>::call,
                                   nullptr,
                                   nullptr,
                                   Untyped<tsClusterDelete>::call};

void linkClusterServer(void* cluster, void* server, bool add) {
  tsLinkClusterServer(static_cast<Cluster*>(cluster), static_cast<TargetServer*>(server), add);
}

}  // namespace kyr
