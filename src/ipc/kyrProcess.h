// What the server process and the client processes of one web server share: the process
// object's state, its send lock, and the wake-up that lets stop end a loop blocked in a wait.
#pragma once

#include <atomic>

#include "kyrlib.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"

namespace kyr {

enum KyrProcessState {
  PROCESS_STARTING = 0,
  PROCESS_RUNNING = 1,
  PROCESS_STOPPING = 2,
  PROCESS_NOT_RUNNING = 3,
};

struct KyrProcess {
  Kyr* kyr;
  // Serialises sends on this process's sockets, and (client) the replacement of its socket
  // against a stop shutting it down. A leaf lock.
  KyrLock* lock;
  // Start moves NOT_RUNNING to STARTING and the loop to RUNNING; stop moves it to STOPPING and
  // waits for the loop to set NOT_RUNNING. Atomic: stop reads it without the control lock.
  std::atomic<int> state;
  TrContext* trCtx;
  TrRecord* debugIPC;
  // Stop writes a byte here; the loop waits on the read end beside its sockets, so a stop ends
  // any wait at once.
  int wakePipe[2];
};

bool kyrProcessInit(KyrProcess* process, Kyr* kyr, const char* lockName);
void kyrProcessDestroy(KyrProcess* process);
void kyrProcessWake(KyrProcess* process);
// Empties the wake pipe after the loop woke.
void kyrProcessDrainWake(KyrProcess* process);
// Sleeps up to the given seconds with the control lock released; a stop ends it early.
void kyrProcessSleep(KyrProcess* process, int seconds);
// Runs the loop on a library thread; -1 (and NOT_RUNNING again) when it cannot be started or
// the process is not NOT_RUNNING.
int kyrProcessStart(KyrProcess* process, void (*loop)(void*), void* arg);
// The loop's first step under the control lock: RUNNING unless a stop came first.
bool kyrProcessEnterRunning(KyrProcess* process);
// Asks the loop to end and waits (control lock released meanwhile) until it has; the caller
// holds the control lock and has made the loop's blocking call return.
void kyrProcessAwaitStop(KyrProcess* process);

}  // namespace kyr
