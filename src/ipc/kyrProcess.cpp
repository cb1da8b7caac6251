// The process objects' common part: state changes, the wake pipe, sleeps that a stop ends, and
// the wait for a loop to finish.
#include "ipc/kyrProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "core/kyr.h"
#include "runtime/kyrThread.h"

namespace kyr {

bool kyrProcessInit(KyrProcess* process, Kyr* kyr, const char* lockName) {
  process->kyr = kyr;
  process->state = PROCESS_NOT_RUNNING;
  process->trCtx = kyr->trCtx;
  process->debugIPC = kyr->ipcProcessRec;
  if (pipe2(process->wakePipe, O_NONBLOCK | O_CLOEXEC) != 0) return false;
  process->lock = kyrLockCreate(lockName);
  return true;
}

void kyrProcessDestroy(KyrProcess* process) {
  close(process->wakePipe[0]);
  close(process->wakePipe[1]);
  kyrLockDestroy(process->lock);
}

void kyrProcessWake(KyrProcess* process) {
  char byte = 1;
  // A full pipe already holds a wake-up, which is all the loop needs.
  (void)!write(process->wakePipe[1], &byte, 1);
}

void kyrProcessDrainWake(KyrProcess* process) {
  char bytes[64];
  while (read(process->wakePipe[0], bytes, sizeof bytes) > 0) {
  }
}

void kyrProcessSleep(KyrProcess* process, int seconds) {
  pollfd wake{process->wakePipe[0], POLLIN, 0};
  kyrControlUnlock();
  poll(&wake, 1, seconds * 1000);
  kyrControlLock("kyrProcessSleep");
  kyrProcessDrainWake(process);
}

int kyrProcessStart(KyrProcess* process, void (*loop)(void*), void* arg) {
  int expected = PROCESS_NOT_RUNNING;
  if (!process->state.compare_exchange_strong(expected, PROCESS_STARTING)) return -1;
  kyrProcessDrainWake(process);
  if (kyrThreadCreate(loop, arg, &process->kyr->env) == nullptr) {
    process->state = PROCESS_NOT_RUNNING;
    return -1;
  }
  return 0;
}

bool kyrProcessEnterRunning(KyrProcess* process) {
  int expected = PROCESS_STARTING;
  return process->state.compare_exchange_strong(expected, PROCESS_RUNNING);
}

void kyrProcessAwaitStop(KyrProcess* process) {
  kyrProcessWake(process);
  // The loop needs the control lock to see the stop and to leave.
  kyrControlUnlock();
  while (process->state != PROCESS_NOT_RUNNING) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kyrControlLock("kyrProcessAwaitStop");
}

}  // namespace kyr
