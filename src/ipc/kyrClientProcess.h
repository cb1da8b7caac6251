// A client process: a worker that receives the routing data from the server process over the
// unix-domain socket instead of fetching it, and reconnects whenever the server goes away.
#pragma once

#include "ipc/kyrProcess.h"

struct KyrClientProcess {
  kyr::KyrProcess process;
  int socket;  // -1 while not connected; replaced and shut down under process.lock
};

namespace kyr {

KyrClientProcess* kyrClientProcessCreate(Kyr* kyr);
// The caller holds the control lock. 0, or -1 unless not running or when no thread starts.
int kyrClientProcessStart(KyrClientProcess* cp);
// Ends the loop (its blocked read included); the caller holds the control lock. -1 unless
// running.
int kyrClientProcessStop(KyrClientProcess* cp);
void kyrClientProcessDelete(KyrClientProcess* cp);

}  // namespace kyr
