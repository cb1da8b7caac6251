// The built-in HTTP client: request heads, the status line and headers read line by line from
// one 2048-byte buffer on the caller's stack, and bodies by length or in chunks, received
// straight into the response when the length is known.
#include "connector/kyrHttpClient.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"
#include "runtime/kyrUrl.h"

namespace kyr {
namespace {

constexpr size_t kBufferSize = 2048;
// No routing document comes near this; a publisher that claims more is broken or lying.
constexpr size_t kMaxBodySize = size_t{256} * 1024 * 1024;
// A chunk is received in pieces of at most this much, so memory grows with what arrives and
// not with what a chunk's size line claims.
constexpr size_t kChunkPieceSize = size_t{1024} * 1024;

// What has been received of one response; the buffer is the request's stack buffer.
struct InputStream {
  int fd;
  size_t startIdx;  // next unread byte
  size_t endIdx;    // bytes held
  char* bufPtr;
  size_t bufSize;
  bool eof;  // a receive returned 0 or less (the end, an error or the receive time-out)
  KyrHttpClient* client;
};

// One piece of a chunked body; its bytes follow the record.
struct Chunk {
  char* ptr;
  size_t size;
};

// The client's diagnostics. A request that kyrHttpClientAbort ended is the library's own doing,
// not the publisher's, so its failure goes unreported.
void say(KyrHttpClient* client, const char* format, ...) __attribute__((format(printf, 2, 3)));
void say(KyrHttpClient* client, const char* format, ...) {
  {
    std::lock_guard<std::mutex> guard(client->fdLock);
    if (client->aborted) return;
  }
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
}

// Sends until everything is out or a send fails; a short write shows as a missing status line.
void writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
    if (sent < 1) return;
    data += sent;
    length -= static_cast<size_t>(sent);
  }
}

void receiveMore(InputStream* in) {
  if (in->startIdx > 0) {
    memmove(in->bufPtr, in->bufPtr + in->startIdx, in->endIdx - in->startIdx);
    in->endIdx -= in->startIdx;
    in->startIdx = 0;
  }
  size_t room = in->bufSize - 1 - in->endIdx;  // the held text stays terminated
  ssize_t got = room > 0 ? recv(in->fd, in->bufPtr + in->endIdx, room, 0) : 0;
  if (got <= 0) {
    in->eof = true;
    return;
  }
  in->endIdx += static_cast<size_t>(got);
  in->bufPtr[in->endIdx] = '\0';
}

// The next line without its CR LF, or at the end of the stream the unfinished remainder; null
// when nothing is left.
char* getNextLine(InputStream* in) {
  for (;;) {
    for (size_t i = in->startIdx; i + 1 < in->endIdx; ++i) {
      if (in->bufPtr[i] == '\r' && in->bufPtr[i + 1] == '\n') {
        in->bufPtr[i] = '\0';
        char* line = in->bufPtr + in->startIdx;
        in->startIdx = i + 2;
        return line;
      }
    }
    if (in->eof) break;
    receiveMore(in);
  }
  if (in->endIdx == in->startIdx) return nullptr;
  in->bufPtr[in->endIdx] = '\0';
  char* line = in->bufPtr + in->startIdx;
  in->startIdx = in->endIdx;
  return line;
}

// Exactly `size` bytes into `out`: what the buffer holds first, then straight from the socket.
// False at the end of the stream.
bool readExactly(InputStream* in, char* out, size_t size, size_t* got) {
  size_t buffered = in->endIdx - in->startIdx;
  size_t take = buffered < size ? buffered : size;
  memcpy(out, in->bufPtr + in->startIdx, take);
  in->startIdx += take;
  *got = take;
  while (*got < size) {
    ssize_t n = recv(in->fd, out + *got, size - *got, 0);
    if (n <= 0) {
      in->eof = true;
      return false;
    }
    *got += static_cast<size_t>(n);
  }
  return true;
}

KyrHttpResponse* responseCreate(int code, size_t bodySize) {
  auto* response = static_cast<KyrHttpResponse*>(kyrMalloc(sizeof(KyrHttpResponse) + bodySize + 1));
  if (response == nullptr) return nullptr;
  response->responseCode = code;
  response->body = reinterpret_cast<char*>(response + 1);
  return response;
}

// One chunk's data, appended to the list in pieces; false at the end of the stream.
bool readChunk(InputStream* in, KyrList* chunks, size_t size) {
  while (size > 0) {
    size_t piece = size < kChunkPieceSize ? size : kChunkPieceSize;
    auto* chunk = static_cast<Chunk*>(kyrMalloc(sizeof(Chunk) + piece));
    if (chunk == nullptr) return false;
    chunk->ptr = reinterpret_cast<char*>(chunk + 1);
    chunk->size = piece;
    kyrListAddTail(chunks, chunk);
    size_t got;
    if (!readExactly(in, chunk->ptr, piece, &got)) return false;
    size -= piece;
  }
  return true;
}

KyrHttpResponse* readChunkedBody(InputStream* in, int code) {
  KyrList* chunks = kyrListCreate([](void* chunk) { kyrFree(chunk); });
  size_t total = 0;
  KyrHttpResponse* response = nullptr;
  for (;;) {
    char* line = getNextLine(in);
    if (line == nullptr) {
      say(in->client, "no chunk found; unexpected EOF");
      break;
    }
    if (*line == '\0') continue;  // the CR LF that ends the previous chunk's data
    int size = hex2int(line);
    if (size < 0 || static_cast<size_t>(size) > kMaxBodySize - total) {
      say(in->client, "bad response: invalid chunk size: %s\n", line);
      break;
    }
    if (size == 0) {  // trailer lines are not read
      response = responseCreate(code, total);
      if (response == nullptr) break;
      char* out = response->body;
      for (KyrListEle* e = kyrListGetHead(chunks); e != nullptr; e = kyrListGetNext(e)) {
        auto* chunk = static_cast<Chunk*>(kyrListEleGetObject(e));
        memcpy(out, chunk->ptr, chunk->size);
        out += chunk->size;
      }
      break;
    }
    if (!readChunk(in, chunks, static_cast<size_t>(size))) break;
    total += static_cast<size_t>(size);
  }
  kyrListDestroy(chunks);
  return response;
}

KyrHttpResponse* readSizedBody(InputStream* in, int code, size_t length) {
  KyrHttpResponse* response = responseCreate(code, length);
  if (response == nullptr) {
    say(in->client, "Didn't read entire body: no room for %zu bytes\n", length);
    return nullptr;
  }
  size_t got;
  if (readExactly(in, response->body, length, &got)) return response;
  response->body[got] = '\0';
  say(in->client, "Didn't read entire body: %d bytes of %d read: '%s'\n", static_cast<int>(got),
      static_cast<int>(length), response->body);
  kyrHttpClientFreeResponse(response);
  return nullptr;
}

bool connectClient(KyrHttpClient* client) {
  {
    std::lock_guard<std::mutex> guard(client->fdLock);
    if (client->aborted) return false;
    client->fd = socket(AF_INET, SOCK_STREAM, 0);
  }
  if (client->fd < 0) {
    printf("socket create failed: %d\n", errno);
    return false;
  }
  client->timeoutInSecs = -1;  // a new socket has none
  if (connect(client->fd, reinterpret_cast<const sockaddr*>(&client->dst), sizeof client->dst) !=
      0) {
    say(client, "connect failed to %s:%d: %d\n", client->host, ntohs(client->dst.sin_port), errno);
    kyrHttpClientClose(client);
    return false;
  }
  // An abort that came before the connection existed could not shut it down: look again.
  bool aborted;
  {
    std::lock_guard<std::mutex> guard(client->fdLock);
    aborted = client->aborted;
  }
  if (aborted) kyrHttpClientClose(client);
  return !aborted;
}

void applyTimeout(KyrHttpClient* client, int timeoutInSecs) {
  if (timeoutInSecs == client->timeoutInSecs) return;
  timeval tv{timeoutInSecs, 0};
  if (setsockopt(client->fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) {
    printf("setsockopt SO_RCVTIMEO failed; errno=%d\n", errno);
    return;
  }
  client->timeoutInSecs = timeoutInSecs;
}

void sendRequest(KyrHttpClient* client, char* buffer, const char* method, const char* uri,
                 const char* body) {
  int length;
  if (body != nullptr) {
    length = snprintf(buffer, kBufferSize,
                      "%s %s HTTP/1.1\r\nHost: %s\r\nContent-Type: application/json\r\n"
                      "Accept: application/json\r\nContent-Length: %d\r\n\r\n",
                      method, uri, client->host, static_cast<int>(strlen(body)));
  } else {
    length = snprintf(buffer, kBufferSize,
                      "%s %s HTTP/1.1\r\nHost: %s\r\nAccept: application/json\r\n\r\n", method, uri,
                      client->host);
  }
  // A head too long for the buffer goes out cut, and the publisher's answer says so.
  size_t headLength = length < 0 ? 0 : static_cast<size_t>(length);
  writeAll(client->fd, buffer, headLength < kBufferSize ? headLength : kBufferSize - 1);
  if (body != nullptr) writeAll(client->fd, body, strlen(body));
}

struct Headers {
  bool hasLength = false;
  size_t length = 0;
  bool chunked = false;
  bool close = false;
};

// Reads the header lines; false for a Content-Length that is not a number.
bool readHeaders(InputStream* in, Headers* headers) {
  for (char* line = getNextLine(in); line != nullptr && *line != '\0'; line = getNextLine(in)) {
    char* colon = strchr(line, ':');
    if (colon == nullptr) continue;
    *colon = '\0';
    // Deliberately a fixed step of two: publishers write exactly one blank after the colon.
    const char* value = colon[1] != '\0' ? colon + 2 : colon + 1;
    if (strcmp(line, "Content-Length") == 0) {
      // Digits only, and no more than a document can be: a length that wraps would size the
      // response too small for what follows.
      size_t digits = strspn(value, "0123456789");
      unsigned long long length = digits > 0 && digits < 20 ? strtoull(value, nullptr, 10) : 0;
      if (value[digits] != '\0' || digits >= 20 || length > kMaxBodySize) {
        say(in->client, "bad response: Content-Length response header value: %s\n", value);
        return false;
      }
      headers->hasLength = true;
      headers->length = static_cast<size_t>(length);
    } else if (strcmp(line, "Transfer-Encoding") == 0 && strcmp(value, "chunked") == 0) {
      headers->chunked = true;
    } else if (strcmp(line, "Connection") == 0 && strcmp(value, "Close") == 0) {
      headers->close = true;  // "close" in lower case is deliberately not recognised
    }
  }
  return true;
}

KyrHttpResponse* exchange(KyrHttpClient* client, const char* method, const char* uri,
                          const char* body, bool* close) {
  char buffer[kBufferSize];
  sendRequest(client, buffer, method, uri, body);
  InputStream in{client->fd, 0, 0, buffer, kBufferSize, false, client};
  buffer[0] = '\0';
  char* status = getNextLine(&in);
  if (status == nullptr) return nullptr;
  int code = 0;
  if (sscanf(status, "%*s %d %*s", &code) < 1) code = 0;
  Headers headers;
  if (!readHeaders(&in, &headers)) return nullptr;
  *close = headers.close;
  if (headers.chunked) return readChunkedBody(&in, code);
  if (headers.hasLength) return readSizedBody(&in, code, headers.length);
  say(client, "No Content-Length header or chunked encoding found\n");
  return nullptr;
}

}  // namespace

int hex2int(const char* str) {
  unsigned value = 0;
  if (sscanf(str, "%x", &value) < 1) return 0;
  return static_cast<int>(value);
}

KyrHttpClient* kyrHttpClientCreate(const char* urlArg) {
  KyrUrl* url = kyrUrlCreate(urlArg);
  if (url == nullptr || kyrUrlGetPort(url) < 0) {
    kyrUrlDelete(url);
    return nullptr;
  }
  // The system's look-up is not re-entrant; it runs only here, when a connector is made.
  hostent* entry = gethostbyname(kyrUrlGetHost(url));
  if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_addr_list[0] == nullptr) {
    printf("unable to resolve hostname '%s' of '%s'\n", kyrUrlGetHost(url), urlArg);
    kyrUrlDelete(url);
    return nullptr;
  }
  auto* client = kyrNew<KyrHttpClient>();
  client->host = kyrStrdup(kyrUrlGetHost(url));
  client->dst.sin_family = AF_INET;
  client->dst.sin_port = htons(static_cast<uint16_t>(kyrUrlGetPort(url)));
  memcpy(&client->dst.sin_addr, entry->h_addr_list[0], sizeof client->dst.sin_addr);
  client->fd = -1;
  client->timeoutInSecs = -1;
  kyrUrlDelete(url);
  return client;
}

KyrHttpClient* kyrHttpClientCreateLike(const KyrHttpClient* other) {
  auto* client = kyrNew<KyrHttpClient>();
  client->host = kyrStrdup(other->host);
  client->dst = other->dst;
  client->fd = -1;
  client->timeoutInSecs = -1;
  return client;
}

KyrHttpResponse* kyrHttpClientGetResponse(KyrHttpClient* client, const char* method,
                                          const char* uri, const char* requestBody,
                                          int timeoutInSecs) {
  if (client->fd < 0 && !connectClient(client)) return nullptr;
  applyTimeout(client, timeoutInSecs);
  bool close = false;
  KyrHttpResponse* response = exchange(client, method, uri, requestBody, &close);
  // After a failure the stream's position is unknown: the next request starts afresh.
  if (response == nullptr || close) kyrHttpClientClose(client);
  return response;
}

void kyrHttpClientFreeResponse(KyrHttpResponse* response) { kyrFree(response); }

void kyrHttpClientClose(KyrHttpClient* client) {
  std::lock_guard<std::mutex> guard(client->fdLock);
  if (client->fd >= 0) close(client->fd);
  client->fd = -1;
}

void kyrHttpClientAbort(KyrHttpClient* client) {
  std::lock_guard<std::mutex> guard(client->fdLock);
  client->aborted = true;
  // Shutting down (not closing) wakes the thread blocked on the descriptor, which still owns
  // it and closes it itself.
  if (client->fd >= 0) shutdown(client->fd, SHUT_RDWR);
}

void kyrHttpClientDelete(KyrHttpClient* client) {
  if (client == nullptr) return;
  kyrHttpClientClose(client);
  kyrFree(client->host);
  kyrDelete(client);
}

}  // namespace kyr
