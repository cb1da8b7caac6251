// The connector transport kyrCreate installs for a host without one: a request sent through
// the table's callbacks runs on a library thread (which first runs the host's threadInit) and
// comes back through the callback with the publisher's response.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

#include "connector/kyrConnector.h"
#include "connector/stubPublisher.h"
#include "core/kyr.h"
#include "support/kyrTestHost.h"

namespace {

std::atomic<int> threadInits{0};

struct Received {
  std::promise<std::string> body;
  KyrHttpResponse* response = nullptr;
};

void onResponse(KyrHttpResponse* response, KyrHttpResponseContext* passback) {
  auto* received = reinterpret_cast<Received*>(passback);
  received->response = response;
  received->body.set_value(response != nullptr ? response->body : "(null)");
}

TEST(BuiltinTransport, RequestsRunOnALibraryThreadAndAnswerThroughTheCallback) {
  kyrtest::StubPublisher publisher({{"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{\"v\": 7}\n"}});
  kyrtest::TestHost host;
  host.env.threadInit = [] { ++threadInits; };
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  auto& transport = kyr->env.http.connector;
  KyrConnector* connector =
      kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg"), publisher.url().c_str());
  EnvConnectorClient* client = transport.open(connector);
  ASSERT_NE(client, nullptr);
  int before = threadInits;

  Received received;
  std::future<std::string> body = received.body.get_future();
  ASSERT_EQ(transport.sendRequest(client, "GET", "/brisvane?name=cg&vid=1&wait=1", nullptr, 5,
                                  onResponse, reinterpret_cast<KyrHttpResponseContext*>(&received)),
            0);
  ASSERT_EQ(body.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(body.get(), "{\"v\": 7}\n");
  EXPECT_EQ(threadInits, before + 1);
  transport.freeResponse(received.response);

  EXPECT_EQ(transport.sendRequest(nullptr, "GET", "/", nullptr, 5, onResponse, nullptr), -1);
  transport.close(client);
  kyrDestroy(kyr);
}

}  // namespace
