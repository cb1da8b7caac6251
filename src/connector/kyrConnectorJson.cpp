// Connector groups and connectors in the library's state report. Layout:
//   group:     { "state", "initialized", "currentConnector" (URL or null),
//                "connectors": { URL: connector } }
//   connector: { "state", "versionId", "restVersion", "failures" }
#include <jansson.h>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"

namespace kyr {

json_t* kyrConnectorToJSON(KyrConnector* c) {
  json_t* o = json_object();
  json_object_set_new(o, "state", json_string(kyrState2String(c->state)));
  json_object_set_new(o, "versionId", json_integer(c->vid));
  json_object_set_new(o, "restVersion", json_integer(c->restVersion));
  json_object_set_new(o, "failures", json_integer(c->failures));
  return o;
}

json_t* kyrConnectorGroupToJSON(KyrConnectorGroup* cg) {
  kyrControlLockAssertHeld();
  json_t* connectors = json_object();
  for (KyrListEle* e = kyrListGetHead(cg->connectorList); e != nullptr; e = kyrListGetNext(e)) {
    auto* c = static_cast<KyrConnector*>(kyrListEleGetObject(e));
    json_object_set_new(connectors, c->URL, kyrConnectorToJSON(c));
  }
  json_t* o = json_object();
  json_object_set_new(o, "state", json_string(kyrState2String(cg->state)));
  json_object_set_new(o, "initialized", json_boolean(cg->initialized));
  json_object_set_new(
      o, "currentConnector",
      cg->curConnector != nullptr ? json_string(cg->curConnector->URL) : json_null());
  json_object_set_new(o, "connectors", connectors);
  return o;
}

}  // namespace kyr
