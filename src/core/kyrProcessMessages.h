// The library's side of several worker processes: what the server process and a client
// process do with each message, the routing data and control state the server sends, and the
// agreement of the clients on which routes a publisher hears about.
#pragma once

#include <jansson.h>

#include "kyrlib.h"

namespace kyr {

// The sappMap's value destructor.
void kyrSappEntryDelete(void* entry);
// The connector groups as the state report shows them: the server's control state in a client
// process that received one, else this handle's own groups.
json_t* kyrConnectorGroupsToJSON(Kyr* kyr);

// Each runs under the control lock.
int kyrServerProcessHandleMessage(Kyr* kyr, KyrMessage* msg, int fd);
int kyrClientProcessHandleMessage(Kyr* kyr, KyrMessage* msg);
// A client's socket closed: its share of route agreement goes with it.
void kyrServerProcessClientGone(Kyr* kyr, int fd);
// The whole routing data to one client, or to every client for fd -1.
void sendAllRoutingInfoToClient(Kyr* kyr, int fd);
// The server's connector groups as control state, to one client or (fd -1) every client.
void kyrUpdateControlState(Kyr* kyr, int fd);
// A document the server applied, passed on to every client (the text has the connector
// stamped in).
void kyrServerProcessBroadcastDocument(Kyr* kyr, const char* text, bool isDelta);
// Client process: queues the document for the server process (MT_C2S_JSON). -1 when this is no
// client process or the text cannot be made.
int kyrClientProcessSendJson(Kyr* kyr, json_t* doc);

}  // namespace kyr
