// The routing-data reader's rows for the request-mapping model (application, webModule, uri,
// vHostGroup, vHost) and the relationships that bind web modules to clusters, virtual host
// groups and servers. Every change to these objects rebuilds the whole version.
#pragma once

#include "core/kyrObjectHandlers.h"

namespace kyr {

extern const ObjectHandler kApplicationRow;
extern const ObjectHandler kWebModuleRow;
extern const ObjectHandler kUriRow;
extern const ObjectHandler kVHostGroupRow;
extern const ObjectHandler kVHostRow;

void linkClusterWebModule(void* cluster, void* webModule, bool add);
void linkVHostGroupWebModule(void* vHostGroup, void* webModule, bool add);
void linkServerWebModule(void* server, void* webModule, bool add);

}  // namespace kyr
