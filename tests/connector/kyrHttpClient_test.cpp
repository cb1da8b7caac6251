// The built-in HTTP client against a scripted publisher on a loopback port: the request heads
// it writes, the responses it reads (by length, in chunks, split over many receives), the
// headers it reads by their fixed layout, and the failures after which it reconnects.
#include "connector/kyrHttpClient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "connector/stubPublisher.h"

namespace {

using kyrtest::StubPublisher;

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
  int port = kyrtest::closedPort();
  kyr::KyrHttpClient* client = kyr::kyrHttpClientCreate(kyrtest::stub::urlFor(port).c_str());
  ASSERT_NE(client, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(kyr::kyrHttpClientGetResponse(client, "GET", "/", nullptr, 1), nullptr);
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed.rfind("connect failed to 127.0.0.1:" + std::to_string(port), 0), 0u) << printed;
  EXPECT_EQ(client->fd, -1);
  kyr::kyrHttpClientDelete(client);
}

}  // namespace
