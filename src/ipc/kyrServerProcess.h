// The server process: the worker that runs the connector groups listens on the unix-domain
// socket, hands each client process the routing data and reads what the clients send.
#pragma once

#include "ipc/kyrProcess.h"

struct KyrServerProcess {
  kyr::KyrProcess process;
  int listenerSocket;  // -1 until start makes it
  // Descriptors of the connected client processes, as ints in pointers. Guarded by
  // clientSocketListLock (a leaf lock): broadcasts from any thread walk it while the loop adds
  // and drops clients.
  kyr::KyrList* clientSocketList;
  kyr::KyrLock* clientSocketListLock;
};

namespace kyr {

KyrServerProcess* kyrServerProcessCreate(Kyr* kyr);
// Makes the listener and starts the loop; the caller holds the control lock. 0 or -1.
int kyrServerProcessStart(KyrServerProcess* sp);
// Ends the loop and closes the sockets; the caller holds the control lock. -1 unless running.
int kyrServerProcessStop(KyrServerProcess* sp);
void kyrServerProcessDelete(KyrServerProcess* sp);
// -1 when the socket path is missing or the socket cannot be bound, made private or listened
// on (each written to control.badportpath).
int serverProcessCreateListenerSocket(KyrServerProcess* sp);

}  // namespace kyr
