// The client process's loop: connect to the server process (retrying while it is not there
// yet), hand every message to the library, and after a broken connection wait a second and
// connect again. The routing data already received keeps serving requests meanwhile. The
// control lock is held except while the loop waits: for a message, a connection or a sleep.
#include "ipc/kyrClientProcess.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/kyr.h"
#include "core/kyrProcessMessages.h"
#include "ipc/kyrMessage.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// A server process that stops reading must not hold a sending worker thread for longer.
constexpr int kSendTimeoutSecs = 5;

void replaceSocket(KyrClientProcess* cp, int fd) {
  KyrLockGuard guard(cp->process.lock, "replaceSocket");
  if (cp->socket >= 0) close(cp->socket);
  cp->socket = fd;
}

// 0 connected, 1 not yet there (try again), -1 give up.
int connectToServer(KyrClientProcess* cp) {
  Kyr* kyr = cp->process.kyr;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    trDebug(kyr->trCtx, cp->process.debugIPC, "kyrClientProcessRun: socket() failed: error=%s\n",
            strerror(errno));
    kyrProcessSleep(&cp->process, 5);
    return 1;
  }
  timeval tv{kSendTimeoutSecs, 0};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  replaceSocket(cp, fd);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const char* path = kyrGetUnixDomainSocketPath(kyr);
  strncpy(addr.sun_path, path != nullptr ? path : "", sizeof addr.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return 0;
  int error = errno;
  if (error == ECONNREFUSED || error == EACCES || error == ENOENT || error == EINTR) {
    // The server process may not be listening yet.
    trDebug(kyr->trCtx, cp->process.debugIPC,
            "kyrClientProcessRun: client connect to daemon errno(%d):%s\n", error, strerror(error));
    kyrProcessSleep(&cp->process, 1);
    return 1;
  }
  trDebug(kyr->trCtx, cp->process.debugIPC,
          "kyrClientProcessRun: client failed to connect to daemon (%d):%s\n", error,
          strerror(error));
  return -1;
}

void readFromServer(KyrClientProcess* cp) {
  Kyr* kyr = cp->process.kyr;
  while (cp->process.state != PROCESS_STOPPING) {
    KyrMessage msg{};
    kyrControlUnlock();
    int rc = readMessage(cp->socket, &msg);
    int error = errno;
    kyrControlLock("kyrClientProcessRun");
    if (rc != 0) {
      trDebug(kyr->trCtx, cp->process.debugIPC,
              "kyrClientProcessRun: failed to read server message: %s\n", strerror(error));
      return;
    }
    kyrClientProcessHandleMessage(kyr, &msg);
    kyrMessageFreeBody(&msg);
  }
}

void kyrClientProcessRun(void* arg) {
  auto* cp = static_cast<KyrClientProcess*>(arg);
  KyrProcess* process = &cp->process;
  kyrControlLock("kyrClientProcessRun");
  bool running = kyrProcessEnterRunning(process);
  while (running && process->state != PROCESS_STOPPING) {
    int rc = connectToServer(cp);
    if (rc < 0) break;
    if (rc > 0) continue;
    readFromServer(cp);
    if (process->state != PROCESS_STOPPING) kyrProcessSleep(process, 1);
  }
  replaceSocket(cp, -1);
  trDebug(process->kyr->trCtx, process->debugIPC, "kyrClientProcessRun stopped or failed\n");
  process->state = PROCESS_NOT_RUNNING;
  kyrControlUnlock();
}

}  // namespace

KyrClientProcess* kyrClientProcessCreate(Kyr* kyr) {
  auto* cp = kyrNew<KyrClientProcess>();
  if (!kyrProcessInit(&cp->process, kyr, "KyrClientProcess.lock")) {
    kyrDelete(cp);
    return nullptr;
  }
  cp->socket = -1;
  return cp;
}

int kyrClientProcessStart(KyrClientProcess* cp) {
  kyrControlLockAssertHeld();
  return kyrProcessStart(&cp->process, kyrClientProcessRun, cp);
}

int kyrClientProcessStop(KyrClientProcess* cp) {
  kyrControlLockAssertHeld();
  int state = cp->process.state;
  if (state != PROCESS_RUNNING && state != PROCESS_STARTING) return -1;
  cp->process.state = PROCESS_STOPPING;
  {
    // Ends a blocked read; closing alone would not wake the reader.
    KyrLockGuard guard(cp->process.lock, "kyrClientProcessStop");
    if (cp->socket >= 0) shutdown(cp->socket, SHUT_RDWR);
  }
  kyrProcessAwaitStop(&cp->process);
  return 0;
}

void kyrClientProcessDelete(KyrClientProcess* cp) {
  if (cp == nullptr) return;
  replaceSocket(cp, -1);
  kyrProcessDestroy(&cp->process);
  kyrDelete(cp);
}

}  // namespace kyr

using namespace kyr;

extern "C" {

int kyrClientProcessSendMessage(Kyr* kyr, KyrMessage* msg) {
  if (kyr == nullptr || msg == nullptr || kyr->clientProcess == nullptr) return -1;
  KyrClientProcess* cp = kyr->clientProcess;
  KyrLockGuard guard(cp->process.lock, "kyrClientProcessSendMessage");
  if (cp->socket < 0) return -1;
  return writeMessage(cp->socket, msg);
}

}  // extern "C"
