// The built-in HTTP client against a scripted publisher on a loopback port: the request heads
// it writes, the responses it reads (by length, in chunks, split over many receives), the
// headers it reads by their fixed layout, and the failures after which it reconnects.
#include "connector/kyrHttpClient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Accepts connections on 127.0.0.1 and answers each request with the next scripted reply, sent
// in the given pieces with a pause between them. Records the requests as received and the
// number of connections. Every wait is bounded, so a test that goes wrong ends by itself.
class StubPublisher {
 public:
  using Reply = std::vector<std::string>;

  explicit StubPublisher(std::vector<Reply> replies) : replies_(std::move(replies)) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(listener_, 4);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &length);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~StubPublisher() {
    thread_.join();
    close(listener_);
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  const std::vector<std::string>& requests() const { return requests_; }
  int connections() const { return connections_; }

 private:
  static bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 5000) == 1;
  }

  // One request: the head, and as many body bytes as its Content-Length says.
  static std::string readRequest(int fd) {
    std::string text;
    char buf[1024];
    size_t need = std::string::npos;
    while (text.size() < need && readable(fd)) {
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      text.append(buf, static_cast<size_t>(n));
      size_t end = text.find("\r\n\r\n");
      if (end != std::string::npos && need == std::string::npos) {
        size_t at = text.find("Content-Length: ");
        need = end + 4 + (at != std::string::npos ? std::stoul(text.substr(at + 16)) : 0);
      }
    }
    return text;
  }

  void serve() {
    size_t next = 0;
    int fd = -1;
    while (next < replies_.size()) {
      if (fd < 0) {
        if (!readable(listener_)) return;
        fd = accept(listener_, nullptr, nullptr);
        ++connections_;
      }
      std::string request = readRequest(fd);
      if (request.empty()) {  // the client closed this connection
        close(fd);
        fd = -1;
        continue;
      }
      requests_.push_back(request);
      for (const std::string& piece : replies_[next]) {
        send(fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        std::this_thread::sleep_for(5ms);
      }
      ++next;
    }
    // Keep the connection until the client has read everything and closed it.
    if (fd >= 0) {
      char c;
      if (readable(fd)) recv(fd, &c, 1, 0);
      close(fd);
    }
  }

  std::vector<Reply> replies_;
  int listener_;
  int port_;
  std::thread thread_;
  std::vector<std::string> requests_;
  int connections_ = 0;
};

struct Exchange {
  std::string body;  // "(null)" for a failed request
  int code = 0;
  std::string printed;
};

// Sends `count` GETs (the first a POST with a body when `body` is set) and collects the answers.
std::vector<Exchange> run(StubPublisher& publisher, int count, const char* body = nullptr,
                          int timeoutSecs = 5) {
  kyr::KyrHttpClient* client = kyr::kyrHttpClientCreate(publisher.url().c_str());
  EXPECT_NE(client, nullptr);
  std::vector<Exchange> out;
  for (int i = 0; i < count && client != nullptr; ++i) {
    testing::internal::CaptureStdout();
    const char* method = i == 0 && body != nullptr ? "POST" : "GET";
    KyrHttpResponse* response = kyr::kyrHttpClientGetResponse(client, method, "/brisvane?name=cg",
                                                              i == 0 ? body : nullptr, timeoutSecs);
    Exchange e;
    e.printed = testing::internal::GetCapturedStdout();
    if (response != nullptr) {
      e.body = response->body;
      e.code = response->responseCode;
    } else {
      e.body = "(null)";
    }
    kyr::kyrHttpClientFreeResponse(response);
    out.push_back(e);
  }
  kyr::kyrHttpClientDelete(client);
  return out;
}

std::string ok(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(HttpClient, WritesTheExactRequestHeadsAndKeepsTheConnection) {
  StubPublisher publisher({{ok("{}")}, {ok("{\"v\":1}")}});
  std::vector<Exchange> got = run(publisher, 2, "{\"interest\":1}");
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].body, "{}");
  EXPECT_EQ(got[1].body, "{\"v\":1}");
  EXPECT_EQ(got[1].code, 200);
  ASSERT_EQ(publisher.requests().size(), 2u);
  EXPECT_EQ(publisher.requests()[0],
            "POST /brisvane?name=cg HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
            "application/json\r\nAccept: application/json\r\nContent-Length: 14\r\n\r\n"
            "{\"interest\":1}");
  EXPECT_EQ(
      publisher.requests()[1],
      "GET /brisvane?name=cg HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: application/json\r\n\r\n");
  EXPECT_EQ(publisher.connections(), 1);
}

// Each row: the reply's pieces (sent with a pause between them) and the body the client gives.
TEST(HttpClient, ReadsBodiesByLengthAndInChunksHoweverTheyArrive) {
  const struct {
    const char* name;
    StubPublisher::Reply reply;
    std::string body;
    int code;
  } cases[] = {
      {"head split over receives",
       {"HTTP/1.1 20", "4 No Content\r\nX-A: 1\r", "\nContent-Len", "gth: 2\r\n\r", "\nab"},
       "ab",
       204},
      {"two chunks, 5 and a",
       {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n",
        "a\r\n0123456789\r\n0\r\n\r\n"},
       "hello0123456789",
       200},
      {"no blank after the colon loses the first digit",
       {"HTTP/1.1 200 OK\r\nContent-Length:12\r\n\r\nab"},
       "ab",
       200},
      {"empty body", {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}, "", 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    StubPublisher publisher({c.reply});
    std::vector<Exchange> got = run(publisher, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].body, c.body);
    EXPECT_EQ(got[0].code, c.code);
  }
}

// After a failure the next request connects again and succeeds.
TEST(HttpClient, FailuresPrintTheirMessageAndTheNextRequestReconnects) {
  const struct {
    const char* name;
    StubPublisher::Reply reply;
    const char* printed;
  } cases[] = {
      {"length not a number",
       {"HTTP/1.1 200 OK\r\nContent-Length: 12a\r\n\r\n"},
       "bad response: Content-Length response header value: 12a\n"},
      {"neither length nor chunks",
       {"HTTP/1.1 200 OK\r\n\r\n"},
       "No Content-Length header or chunked encoding found\n"},
      {"negative chunk size",
       {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nffffffff\r\n"},
       "bad response: invalid chunk size: ffffffff\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    StubPublisher publisher({c.reply, {ok("fine")}});
    std::vector<Exchange> got = run(publisher, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, "(null)");
    EXPECT_EQ(got[0].printed, c.printed);
    EXPECT_EQ(got[1].body, "fine");
    EXPECT_EQ(publisher.connections(), 2);
  }
}

TEST(HttpClient, OnlyConnectionCloseInThatSpellingClosesAfterTheResponse) {
  for (const char* value : {"Close", "close"}) {
    SCOPED_TRACE(value);
    StubPublisher publisher({{"HTTP/1.1 200 OK\r\nConnection: " + std::string(value) +
                              "\r\nContent-Length: 1\r\n\r\nx"},
                             {ok("y")}});
    std::vector<Exchange> got = run(publisher, 2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].body, "y");
    EXPECT_EQ(publisher.connections(), std::string(value) == "Close" ? 2 : 1);
  }
}

// The receive time-out ends the stream: a body cut short fails with what was read.
TEST(HttpClient, ATimeOutDuringTheBodyFailsTheRequest) {
  StubPublisher publisher({{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"}});
  std::vector<Exchange> got = run(publisher, 1, nullptr, 1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].body, "(null)");
  EXPECT_EQ(got[0].printed, "Didn't read entire body: 3 bytes of 10 read: 'abc'\n");
}

TEST(HttpClient, BadURLsAndRefusedConnectionsGiveNull) {
  for (const char* url : {"127.0.0.1:80", "ftp://127.0.0.1", "http://127.0.0.1:8x0"}) {
    EXPECT_EQ(kyr::kyrHttpClientCreate(url), nullptr) << url;
  }
  EXPECT_EQ(kyr::kyrHttpClientCreate(nullptr), nullptr);
  // A port nothing listens on: the one a closed listener just had.
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  bind(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  getsockname(probe, reinterpret_cast<sockaddr*>(&addr), &length);
  close(probe);
  std::string url = "http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
  kyr::KyrHttpClient* client = kyr::kyrHttpClientCreate(url.c_str());
  ASSERT_NE(client, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(kyr::kyrHttpClientGetResponse(client, "GET", "/", nullptr, 1), nullptr);
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed.rfind("connect failed to 127.0.0.1:" + std::to_string(ntohs(addr.sin_port)), 0),
            0u)
      << printed;
  EXPECT_EQ(client->fd, -1);
  kyr::kyrHttpClientDelete(client);
}

}  // namespace
