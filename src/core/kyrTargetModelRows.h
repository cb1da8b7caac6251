// The routing-data reader's rows for the target model (node, server, serverApplication,
// transport, cluster) and the "cluster:server" relationship: adapters from the reader's untyped
// calls onto the target selector, plus the publisher-port endpoints that bring connectors.
#pragma once

#include "core/kyrObjectHandlers.h"

namespace kyr {

extern const ObjectHandler kNodeRow;
extern const ObjectHandler kServerRow;
extern const ObjectHandler kServerApplicationRow;
extern const ObjectHandler kTransportRow;
extern const ObjectHandler kClusterRow;

void linkClusterServer(void* cluster, void* server, bool add);

}  // namespace kyr
