// The built-in HTTP client reading a publisher's complete document (the 4.8 MB of the
// 1,000-server cell) over one persistent loopback connection, with a Content-Length and in
// 16 KiB chunks, against the floor: the same bytes read by a plain receive loop into a buffer
// allocated once. The publisher is a thread of this program on 127.0.0.1.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "cellgen/cellDocument.h"
#include "connector/kyrHttpClient.h"

namespace {

enum Encoding { kContentLength = 0, kChunked = 1 };

constexpr size_t kChunkSize = 16 * 1024;
// The publisher gives up on a client that has gone quiet for this long, and on one that never
// connects, so that it ends by itself whatever the benchmark does.
constexpr int kIdleTimeoutMs = 5000;

const std::string& document() {
  static const std::string text = kyrtools::completeDocument(kyrtools::CellShape{});
  return text;
}

std::string reply(Encoding encoding) {
  const std::string& body = document();
  std::string out = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
  if (encoding == kContentLength) {
    out += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    return out;
  }
  out += "Transfer-Encoding: chunked\r\n\r\n";
  for (size_t at = 0; at < body.size(); at += kChunkSize) {
    size_t size = std::min(kChunkSize, body.size() - at);
    char line[32];
    snprintf(line, sizeof line, "%zx\r\n", size);
    out += line;
    out.append(body, at, size);
    out += "\r\n";
  }
  out += "0\r\n\r\n";
  return out;
}

bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

// A publisher that answers every request on one connection with the same prepared reply. It
// serves one client and ends when that client closes the connection (or is quiet for
// kIdleTimeoutMs); the destructor waits for that.
class Publisher {
 public:
  explicit Publisher(Encoding encoding) : reply_(reply(encoding)) {
    listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t length = sizeof addr;
    if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listenFd_, 1) != 0 ||
        getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
      return;
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~Publisher() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (listenFd_ >= 0) close(listenFd_);
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  int port() const { return port_; }  // 0 when the socket could not be set up
  const std::string& replyBytes() const { return reply_; }

 private:
  void serve() {
    int fd = acceptOne();
    if (fd < 0) return;
    timeval idle{kIdleTimeoutMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
    std::string head;
    char buffer[4096];
    for (;;) {
      ssize_t got = recv(fd, buffer, sizeof buffer, 0);
      if (got <= 0) break;  // the client closed, or went quiet
      head.append(buffer, static_cast<size_t>(got));
      // Requests carry no body: each head ends at its blank line.
      size_t end;
      while ((end = head.find("\r\n\r\n")) != std::string::npos) {
        head.erase(0, end + 4);
        if (!sendAll(fd, reply_.data(), reply_.size())) {
          close(fd);
          return;
        }
      }
    }
    close(fd);
  }

  // Waits in short slices so that a benchmark that never connects still lets it end.
  int acceptOne() {
    for (int waited = 0; waited < kIdleTimeoutMs && !stop_; waited += 100) {
      pollfd p{listenFd_, POLLIN, 0};
      if (poll(&p, 1, 100) > 0) return accept(listenFd_, nullptr, nullptr);
    }
    return -1;
  }

  const std::string reply_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

const char kRequestHead[] =
    "GET /bench HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: application/json\r\n\r\n";

void BM_HttpClientGetResponse(benchmark::State& state) {
  Publisher publisher(static_cast<Encoding>(state.range(0)));
  if (publisher.port() == 0) {
    state.SkipWithError("no loopback listener");
    return;
  }
  std::string url = "http://127.0.0.1:" + std::to_string(publisher.port());
  kyr::KyrHttpClient* client = kyr::kyrHttpClientCreate(url.c_str());
  if (client == nullptr) {
    state.SkipWithError("no client");
    return;
  }
  // Once before timing: the connection is made and the body checked.
  KyrHttpResponse* first = kyr::kyrHttpClientGetResponse(client, "GET", "/bench", nullptr, 5);
  bool ok = first != nullptr && document() == first->body;
  kyr::kyrHttpClientFreeResponse(first);
  if (!ok) {
    kyr::kyrHttpClientDelete(client);
    state.SkipWithError("the client did not read the document");
    return;
  }
  for (auto _ : state) {
    KyrHttpResponse* response = kyr::kyrHttpClientGetResponse(client, "GET", "/bench", nullptr, 5);
    if (response == nullptr) {
      state.SkipWithError("request failed");
      break;
    }
    benchmark::DoNotOptimize(response->body);
    kyr::kyrHttpClientFreeResponse(response);
  }
  kyr::kyrHttpClientDelete(client);  // ends the publisher's loop
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document().size()));
}
BENCHMARK(BM_HttpClientGetResponse)
    ->ArgName("chunked")
    ->Arg(kContentLength)
    ->Arg(kChunked)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The floor: the same request, and the reply's bytes received into one buffer allocated once,
// with no parsing at all.
void BM_PlainRecvLoop(benchmark::State& state) {
  Publisher publisher(static_cast<Encoding>(state.range(0)));
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(publisher.port()));
  if (publisher.port() == 0 || fd < 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    if (fd >= 0) close(fd);
    state.SkipWithError("no loopback connection");
    return;
  }
  timeval idle{kIdleTimeoutMs / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
  const size_t total = publisher.replyBytes().size();
  std::unique_ptr<char[]> buffer(new char[total]);
  memset(buffer.get(), 0, total);  // touched once, as a buffer that is reused would be
  for (auto _ : state) {
    if (!sendAll(fd, kRequestHead, sizeof kRequestHead - 1)) {
      state.SkipWithError("send failed");
      break;
    }
    size_t held = 0;
    while (held < total) {
      ssize_t got = recv(fd, buffer.get() + held, total - held, 0);
      if (got <= 0) break;
      held += static_cast<size_t>(got);
    }
    if (held < total) {
      state.SkipWithError("short reply");
      break;
    }
    benchmark::DoNotOptimize(buffer.get());
  }
  close(fd);  // ends the publisher's loop
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * document().size()));
}
BENCHMARK(BM_PlainRecvLoop)
    ->ArgName("chunked")
    ->Arg(kContentLength)
    ->Arg(kChunked)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
