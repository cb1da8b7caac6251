// Reading and writing frames. Sends never raise SIGPIPE: a client process that went away must
// cost the server process one failed write, not its life.
#include "ipc/kyrMessage.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// A routing document for a large cell is a few megabytes; a length far past that is garbage.
constexpr int32_t kMaxBodyLength = 256 * 1024 * 1024;

}  // namespace

int readBytes(int fd, void* ptr, size_t toRead) {
  auto* at = static_cast<char*>(ptr);
  while (toRead > 0) {
    ssize_t got = read(fd, at, toRead);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    at += got;
    toRead -= static_cast<size_t>(got);
  }
  return 0;
}

int writeBytes(int fd, const void* ptr, size_t toWrite) {
  const auto* at = static_cast<const char*>(ptr);
  while (toWrite > 0) {
    ssize_t sent = send(fd, at, toWrite, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return -1;
    at += sent;
    toWrite -= static_cast<size_t>(sent);
  }
  return 0;
}

int writeMessage(int fd, KyrMessage* msg) {
  msg->hdr.pid = static_cast<int32_t>(getpid());
  if (writeBytes(fd, &msg->hdr, sizeof msg->hdr) != 0) return -1;
  if (msg->hdr.len >= 1 && writeBytes(fd, msg->body, static_cast<size_t>(msg->hdr.len)) != 0) {
    return -1;
  }
  return 0;
}

int readMessage(int fd, KyrMessage* msg) {
  msg->body = nullptr;
  if (readBytes(fd, &msg->hdr, sizeof msg->hdr) != 0) return -1;
  if (msg->hdr.len < 0 || msg->hdr.len > kMaxBodyLength) return -1;
  if (msg->hdr.len == 0) return 0;
  msg->body = static_cast<char*>(kyrMalloc(static_cast<size_t>(msg->hdr.len) + 1));
  if (readBytes(fd, msg->body, static_cast<size_t>(msg->hdr.len)) != 0) {
    kyrMessageFreeBody(msg);
    return -1;
  }
  // A text body arrives with its zero; a garbled one gets one here, so no reader runs off it.
  msg->body[msg->hdr.len] = '\0';
  return 0;
}

void kyrMessageFreeBody(KyrMessage* msg) {
  kyrFree(msg->body);
  msg->body = nullptr;
}

KyrMessage kyrMessageWithText(KyrMessageType type, const char* text) {
  KyrMessage msg{};
  msg.hdr.type = type;
  if (text != nullptr) {
    msg.hdr.len = static_cast<int32_t>(strlen(text) + 1);
    msg.body = const_cast<char*>(text);
  }
  return msg;
}

}  // namespace kyr
