// The routing-data reader: applies one JSON document (complete or delta) from a connector to
// the connector's stored complete document and to the routing model, in the order deletions,
// additions, property settings.
#pragma once

#include <jansson.h>

#include <cstdint>

#include "connector/kyrConnector.h"
#include "core/kyrRoutingInfo.h"

namespace kyr {

// Rebuilds a fresh version from a connector's stored complete document.
void jsonHandleStoredDocument(KyrRoutingInfo* ri, KyrConnector* c);

// The cell record of a version (the "cell" object type).
void cellDelete(Cell* cell);

}  // namespace kyr
