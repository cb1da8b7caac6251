// State dumps of the target model as Jansson objects: the state report shows every cluster in
// full, and a rejected request's diagnostics show its cluster in brief.
#include "selection/kyrTargetSelector.h"

namespace kyr {
namespace {

json_t* stringOrNull(const char* s) { return s != nullptr ? json_string(s) : json_null(); }

}  // namespace

json_t* tsServerApplicationToJSON(TargetServerApplication* sapp, bool verbose) {
  json_t* obj = json_object();
  json_object_set_new(obj, "state", stringOrNull(sapp->state));
  if (verbose)
    json_object_set_new(obj, "outstandingRequests", json_integer(sapp->outstandingRequestCount));
  return obj;
}

json_t* tsServerToJSON(TargetServer* server, bool verbose) {
  json_t* obj = json_object();
  json_object_set_new(obj, "state", stringOrNull(server->state));
  json_object_set_new(obj, "weight", json_integer(server->weight));
  json_object_set_new(obj, "maintenanceMode", json_string(mm2str(server->maintenanceMode)));
  if (server->reasonForNoAffinity != nullptr) {
    json_object_set_new(obj, "noAffinity", json_string(server->reasonForNoAffinity));
  }
  if (server->reasonForNoLoadBalancing != nullptr) {
    json_object_set_new(obj, "noLoadBalancing", json_string(server->reasonForNoLoadBalancing));
  }
  if (verbose) {
    json_object_set_new(obj, "cloneID", stringOrNull(server->cloneId));
    json_object_set_new(obj, "averageResponseTimeInMillis", json_integer(server->avgResponseTime));
    json_object_set_new(obj, "sessionAffinityCookies",
                        stringOrNull(server->sessionAffinityCookies));
    json_object_set_new(obj, "outstandingRequests", json_integer(server->outstandingRequestCount));
  }
  json_t* apps = json_object();
  for (KyrListEle* e = kyrListGetHead(server->serverApplications); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* sapp = static_cast<TargetServerApplication*>(kyrListEleGetObject(e));
    json_object_set_new(apps, sapp->name, tsServerApplicationToJSON(sapp, verbose));
  }
  json_object_set_new(obj, "applications", apps);
  return obj;
}

json_t* tsClusterToJSON(Cluster* cluster, bool verbose) {
  json_t* servers = json_object();
  for (KyrListEle* e = kyrListGetHead(cluster->servers); e != nullptr; e = kyrListGetNext(e)) {
    auto* server = static_cast<TargetServer*>(kyrListEleGetObject(e));
    json_object_set_new(servers, server->name, tsServerToJSON(server, verbose));
  }
  json_t* obj = json_object();
  json_object_set_new(obj, "servers", servers);
  return obj;
}

json_t* tsToJSON(TargetSelector* ts) {
  KyrLockGuard guard(ts->lock, "tsToJSON");
  json_t* obj = json_object();
  for (KyrListEle* e = kyrListGetHead(ts->clusters); e != nullptr; e = kyrListGetNext(e)) {
    auto* cluster = static_cast<Cluster*>(kyrListEleGetObject(e));
    json_object_set_new(obj, cluster->name, tsClusterToJSON(cluster, true));
  }
  return obj;
}

}  // namespace kyr
