// libFuzzer target for what a publisher sends back to the built-in HTTP client: the input is
// the whole reply (status line, headers, a body by length or in chunks, or anything else),
// read by the client from a connected socket exactly as from a publisher, followed by the end
// of the stream. The client gets one end of a unix socket pair in place of its TCP connection;
// a writer thread feeds the other end when the reply is more than the socket holds at once.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "connector/kyrHttpClient.h"

namespace {

// Larger replies only repeat what smaller ones already reach (the body past the client's line
// buffer is received straight into the response) and would slow every run down.
constexpr size_t kMaxReplySize = 256 * 1024;

// The client waits this long for bytes that never come; the writer always ends the stream, so
// the time-out is never what ends a run.
constexpr int kReceiveTimeoutSecs = 1;

// Sends until all is out, the peer is gone (the client closes its end as soon as it fails) or,
// with MSG_DONTWAIT, the socket would block; how much went out.
size_t sendUpTo(int fd, const uint8_t* data, size_t size, int flags) {
  size_t done = 0;
  while (done < size) {
    ssize_t sent = send(fd, data + done, size - done, flags | MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) break;
    done += static_cast<size_t>(sent);
  }
  return done;
}

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "fuzz_http_response: %s\n", what);
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The client prints every failure (with the body read so far) on standard output; libFuzzer
  // reports on standard error, which stays.
  if (freopen("/dev/null", "w", stdout) == nullptr) fail("cannot silence standard output");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxReplySize) return -1;
  // Port 1 on the loopback: never connected to, the socket pair stands in for the connection.
  kyr::KyrHttpClient* client = kyr::kyrHttpClientCreate("http://127.0.0.1:1");
  if (client == nullptr) fail("kyrHttpClientCreate failed");
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fail("socketpair failed");
  client->fd = fds[0];  // the client owns this end from now on and closes it
  int publisher = fds[1];

  // What the socket takes without blocking; the rest is left to a writer thread.
  size_t sent = sendUpTo(publisher, data, size, MSG_DONTWAIT);
  std::thread writer;
  if (sent < size) {
    writer = std::thread([publisher, data, sent, size] {
      sendUpTo(publisher, data + sent, size - sent, 0);
      shutdown(publisher, SHUT_WR);
    });
  } else {
    shutdown(publisher, SHUT_WR);
  }

  KyrHttpResponse* response =
      kyr::kyrHttpClientGetResponse(client, "GET", "/", nullptr, kReceiveTimeoutSecs);
  if (response != nullptr) {
    // Every byte of the body must lie in its allocation and it can hold no more than was sent.
    if (strlen(response->body) > size) fail("body longer than the reply");
  } else if (client->fd != -1) {
    fail("a failed request left the connection open");
  }
  kyr::kyrHttpClientFreeResponse(response);
  // Closing the client's end (if still open) ends a writer blocked on bytes nobody reads.
  kyr::kyrHttpClientDelete(client);
  if (writer.joinable()) writer.join();
  close(publisher);
  return 0;
}
