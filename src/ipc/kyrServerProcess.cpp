// The server process's loop and sends. The loop runs under the control lock and lets go of it
// only while it waits for a descriptor, so every message is handled in step with the library's
// other control work. It waits with poll rather than select: a busy web-server worker's
// descriptors run past select's limit.
#include "ipc/kyrServerProcess.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/kyr.h"
#include "core/kyrProcessMessages.h"
#include "ipc/kyrMessage.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// A client that stops reading, or sends half a frame and stalls, must not hold the loop (and
// with it the control lock) for longer than this.
constexpr int kClientSocketTimeoutSecs = 5;

void setTimeouts(int fd) {
  timeval tv{kClientSocketTimeoutSecs, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

std::vector<int> clientSockets(KyrServerProcess* sp) {
  std::vector<int> fds;
  KyrLockGuard guard(sp->clientSocketListLock, "clientSockets");
  for (KyrListEle* e = kyrListGetHead(sp->clientSocketList); e != nullptr; e = kyrListGetNext(e)) {
    fds.push_back(kyrObjectAsInt(kyrListEleGetObject(e)));
  }
  return fds;
}

void dropClient(KyrServerProcess* sp, int fd) {
  {
    KyrLockGuard guard(sp->clientSocketListLock, "dropClient");
    kyrListFindAndRemove(sp->clientSocketList, kyrIntAsObject(fd));
  }
  // Before the close: the library asks the socket which process was on the other end.
  kyrServerProcessClientGone(sp->process.kyr, fd);
  {
    // Not while a broadcast writes to it: the number could be reused at once.
    KyrLockGuard guard(sp->process.lock, "dropClient");
    close(fd);
  }
}

bool acceptClient(KyrServerProcess* sp) {
  Kyr* kyr = sp->process.kyr;
  int fd = accept4(sp->listenerSocket, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EINTR || errno == EAGAIN || errno == ECONNABORTED) return true;
    trDebug(kyr->trCtx, sp->process.debugIPC, "kyrlib daemon accept failed(%d):%s\n", errno,
            strerror(errno));
    return false;
  }
  setTimeouts(fd);
  {
    KyrLockGuard guard(sp->clientSocketListLock, "acceptClient");
    kyrListAddTail(sp->clientSocketList, kyrIntAsObject(fd));
  }
  KyrMessage connected{};
  kyrServerProcessHandleMessage(kyr, &connected, fd);
  return true;
}

void serveClient(KyrServerProcess* sp, int fd) {
  KyrMessage msg{};
  if (readMessage(fd, &msg) != 0) {
    dropClient(sp, fd);
    return;
  }
  kyrServerProcessHandleMessage(sp->process.kyr, &msg, fd);
  kyrMessageFreeBody(&msg);
}

void closeSockets(KyrServerProcess* sp) {
  for (int fd : clientSockets(sp)) dropClient(sp, fd);
  if (sp->listenerSocket >= 0) close(sp->listenerSocket);
  sp->listenerSocket = -1;
}

void kyrServerProcessRun(void* arg) {
  auto* sp = static_cast<KyrServerProcess*>(arg);
  KyrProcess* process = &sp->process;
  Kyr* kyr = process->kyr;
  kyrControlLock("kyrServerProcessRun");
  bool running = kyrProcessEnterRunning(process);
  std::vector<pollfd> watched;
  while (running && process->state != PROCESS_STOPPING) {
    std::vector<int> clients = clientSockets(sp);
    watched.assign({{process->wakePipe[0], POLLIN, 0}, {sp->listenerSocket, POLLIN, 0}});
    for (int fd : clients) watched.push_back({fd, POLLIN, 0});
    kyrControlUnlock();
    int nready = poll(watched.data(), watched.size(), -1);
    int error = errno;
    kyrControlLock("kyrServerProcessRun");
    if (nready < 0 && error == EINTR) continue;
    if (nready < 1) {
      trTrace(kyr->trCtx, process->debugIPC, TR_LEVEL_NOTICE,
              "kyrlib daemon select failed; nready=%d, errno=%d, errmsg=%s\n", nready, error,
              strerror(error));
      break;
    }
    kyrProcessDrainWake(process);
    if (process->state == PROCESS_STOPPING) break;
    if ((watched[1].revents & POLLIN) != 0 && !acceptClient(sp)) break;
    for (size_t i = 2; i < watched.size(); ++i) {
      if (watched[i].revents != 0) serveClient(sp, watched[i].fd);
    }
  }
  closeSockets(sp);
  trDebug(kyr->trCtx, process->debugIPC, "kyrServerProcessRun stopped or failed\n");
  process->state = PROCESS_NOT_RUNNING;
  kyrControlUnlock();
}

}  // namespace

KyrServerProcess* kyrServerProcessCreate(Kyr* kyr) {
  auto* sp = kyrNew<KyrServerProcess>();
  if (!kyrProcessInit(&sp->process, kyr, "KyrServerProcess.lock")) {
    kyrDelete(sp);
    return nullptr;
  }
  sp->listenerSocket = -1;
  sp->clientSocketList = kyrListCreate(nullptr);
  sp->clientSocketListLock = kyrLockCreate("KyrServerProcess.clientSocketListLock");
  return sp;
}

int serverProcessCreateListenerSocket(KyrServerProcess* sp) {
  Kyr* kyr = sp->process.kyr;
  TrRecord* rec = trRecordGet(kyr->trMgr, "control.badportpath");
  const char* path = kyrGetUnixDomainSocketPath(kyr);
  if (path == nullptr) {
    trTrace(kyr->trCtx, rec, TR_LEVEL_ERROR, "failed to bind to unix domain socket at %s: %s\n",
            "null", "no socket path");
    return -1;
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
  unlink(addr.sun_path);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    trTrace(kyr->trCtx, rec, TR_LEVEL_ERROR, "failed to bind to unix domain socket at %s: %s\n",
            path, strerror(errno));
    if (fd >= 0) close(fd);
    return -1;
  }
  if (chmod(addr.sun_path, S_IRWXU) != 0) {
    trTrace(kyr->trCtx, rec, TR_LEVEL_ERROR, "failed to set permissions on %s: %s\n", path,
            strerror(errno));
    close(fd);
    return -1;
  }
  if (geteuid() == 0 && chown(addr.sun_path, kyrGetUnixDomainSocketUid(kyr), -1) != 0) {
    trDebug(kyr->trCtx, sp->process.debugIPC, "WARNING: chown(%s,%d,-1) failed: %s\n", path,
            static_cast<int>(kyrGetUnixDomainSocketUid(kyr)), strerror(errno));
  }
  if (listen(fd, 128) != 0) {
    trTrace(kyr->trCtx, rec, TR_LEVEL_ERROR, "failed to listen on the unix domain socket: %s\n",
            strerror(errno));
    close(fd);
    return -1;
  }
  sp->listenerSocket = fd;
  return 0;
}

int kyrServerProcessStart(KyrServerProcess* sp) {
  kyrControlLockAssertHeld();
  if (sp->process.state != PROCESS_NOT_RUNNING) return -1;
  if (serverProcessCreateListenerSocket(sp) != 0) return -1;
  if (kyrProcessStart(&sp->process, kyrServerProcessRun, sp) != 0) {
    closeSockets(sp);
    return -1;
  }
  return 0;
}

int kyrServerProcessStop(KyrServerProcess* sp) {
  kyrControlLockAssertHeld();
  int state = sp->process.state;
  if (state != PROCESS_RUNNING && state != PROCESS_STARTING) return -1;
  sp->process.state = PROCESS_STOPPING;
  kyrProcessAwaitStop(&sp->process);
  return 0;
}

void kyrServerProcessDelete(KyrServerProcess* sp) {
  if (sp == nullptr) return;
  closeSockets(sp);
  kyrListDestroy(sp->clientSocketList);
  kyrLockDestroy(sp->clientSocketListLock);
  kyrProcessDestroy(&sp->process);
  kyrDelete(sp);
}

}  // namespace kyr

using namespace kyr;

extern "C" {

int kyrServerProcessSendMessage(KyrServerProcess* sp, KyrMessage* msg, int fd) {
  if (sp == nullptr || msg == nullptr) return -1;
  KyrLockGuard guard(sp->process.lock, "kyrServerProcessSendMessage");
  return writeMessage(fd, msg);
}

int kyrServerProcessBroadcastMessage(KyrServerProcess* sp, KyrMessage* msg) {
  if (sp == nullptr || msg == nullptr) return -1;
  KyrLockGuard guard(sp->clientSocketListLock, "kyrServerProcessBroadcastMessage");
  for (KyrListEle* e = kyrListGetHead(sp->clientSocketList); e != nullptr; e = kyrListGetNext(e)) {
    int fd = kyrObjectAsInt(kyrListEleGetObject(e));
    if (kyrServerProcessSendMessage(sp, msg, fd) != 0) {
      trDebug(sp->process.trCtx, sp->process.debugIPC,
              "kyrServerProcessBroadcastMessage failed for fd:%d", fd);
    }
  }
  return 0;
}

int kyrServerProcessGetClientCount(KyrServerProcess* sp) {
  if (sp == nullptr) return 0;
  KyrLockGuard guard(sp->clientSocketListLock, "kyrServerProcessGetClientCount");
  return kyrListGetCount(sp->clientSocketList);
}

}  // extern "C"
