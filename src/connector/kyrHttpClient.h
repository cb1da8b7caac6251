// The built-in HTTP client connectors use when the host brings no connector callbacks of its
// own: one persistent plain HTTP/1.1 connection to one publisher, blocking, used by one thread
// at a time. It prints its failures on standard output and answers null; the client stays
// usable and reconnects on the next request.
#pragma once

#include <netinet/in.h>

#include <mutex>

#include "kyrlib.h"

namespace kyr {

struct KyrHttpClient {
  char* host;         // the URL's host, sent in the Host header
  sockaddr_in dst;    // the first address the host name resolved to, and the port
  int fd;             // -1 while not connected
  int timeoutInSecs;  // the receive time-out last applied to the socket; -1 at first
  // Guards fd against kyrHttpClientAbort from another thread: a descriptor is shut down only
  // while it is still this client's, never after close has handed its number back.
  std::mutex fdLock;
  bool aborted;  // set once by kyrHttpClientAbort; every later request fails at once
};

// Null for a null or invalid URL, or a host name that does not resolve. "https" only changes
// the default port: the client speaks plain HTTP.
KyrHttpClient* kyrHttpClientCreate(const char* urlArg);
// A second client for the same address, for a request sent while the first one is busy.
KyrHttpClient* kyrHttpClientCreateLike(const KyrHttpClient* other);
// One request (with a JSON body when requestBody is not null) and its response, or null.
KyrHttpResponse* kyrHttpClientGetResponse(KyrHttpClient* client, const char* method,
                                          const char* uri, const char* requestBody,
                                          int timeoutInSecs);
// The response and its body are one block.
void kyrHttpClientFreeResponse(KyrHttpResponse* response);
void kyrHttpClientClose(KyrHttpClient* client);
// From any thread: ends the request in progress at once (a blocked connect or receive returns)
// and makes every later request fail. For shutting down while a long poll waits.
void kyrHttpClientAbort(KyrHttpClient* client);
void kyrHttpClientDelete(KyrHttpClient* client);

// The value of a hexadecimal text, as "%x" reads it.
int hex2int(const char* str);

}  // namespace kyr
