// The handle's state report: the current version's applications and clusters, the library's
// build level and the connector groups (or, in a client process, the control state the server
// process sent), built under the control lock so that no routing data is applied meanwhile.
#include <jansson.h>

#include <cstdlib>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrProcessMessages.h"
#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"

namespace kyr {

json_t* kyrConnectorGroupsToJSON(Kyr* kyr) {
  if (kyr->controlState != nullptr) return json_incref(kyr->controlState);
  json_t* groups = json_object();
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    auto* cg = static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e));
    json_object_set_new(groups, cg->name, kyrConnectorGroupToJSON(cg));
  }
  return groups;
}

}  // namespace kyr

using namespace kyr;

extern "C" {

json_t* kyrToJSON(Kyr* kyr) {
  if (kyr == nullptr) return nullptr;
  ControlLockGuard guard("kyrToJSON");
  KyrRoutingInfo* ri = kyrRoutingInfoObtain(kyr);
  json_t* report = json_object();
  // A destroyed handle has no routing data any more (and one being destroyed gives the control
  // lock up while its worker ends): a host still holding a reference gets the rest.
  if (ri != nullptr) {
    json_object_set_new(report, "applications", rmToJSON(kyrRoutingInfoGetRequestMapper(ri)));
    json_object_set_new(report, "clusters", tsToJSON(kyrRoutingInfoGetTargetSelector(ri)));
  }
  json_object_set_new(report, "version", json_string(kyrGetVersion()));
  json_object_set_new(report, "connectorGroups", kyrConnectorGroupsToJSON(kyr));
  kyrRoutingInfoRelease(ri);
  return report;
}

char* kyrToJSONString(Kyr* kyr) {
  json_t* report = kyrToJSON(kyr);
  if (report == nullptr) return nullptr;
  char* text = json_dumps(report, JSON_INDENT(2));
  json_decref(report);
  return text;
}

char* kyrGetStateInfo(Kyr* kyr, const char*) { return kyrToJSONString(kyr); }

}  // extern "C"
