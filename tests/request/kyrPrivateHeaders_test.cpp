// The private request headers: their exact order and values, once per request, and the switch
// that disables all but the partition version. The partition version a response taught is shown
// with the partition tables, the header that tells a server affinity was broken with affinity.
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "support/routingFixture.h"

namespace {

using Header = std::pair<std::string, std::string>;
using Headers = std::vector<Header>;

// Every request of these tests is one of these, so the recording callback may cast to it.
struct RecordingRequest : EnvHttpContext {
  Headers set;  // every setHeaderValue call in order; "(null)" for a null value
};

int recordHeader(EnvHttpContext* r, char* name, char* value) {
  static_cast<RecordingRequest*>(r)->set.emplace_back(name, value != nullptr ? value : "(null)");
  return kyrtest::host::setHeaderValue(r, name, value);
}

class PrivateHeaders : public kyrtest::RoutingFixture {
 protected:
  PrivateHeaders() { host_.env.http.request.setHeaderValue = recordHeader; }

  RecordingRequest& recording(const char* path, const char* protocol = "http", int port = 80) {
    RecordingRequest& r = recorded_.emplace_back();
    r.path = path;
    r.protocol = protocol;
    r.virtualHost = "www.example.com";
    r.virtualPort = port;
    r.clientIp = "10.1.2.3";
    return r;
  }

  std::deque<RecordingRequest> recorded_;
};

TEST_F(PrivateHeaders, AreSetInTheirOrderOncePerRequest) {
  RecordingRequest& r = recording("/shop/a");
  KyrHttpContext* ctx = route(r);
  ASSERT_NE(kyrHttpContextGetMyTargetEndPoint(ctx), nullptr);
  const Headers expected = {{"_ZQ_HAPRT_WLMVERSION", "-1"},
                            {"$ZQRA", "10.1.2.3"},
                            {"$ZQRH", "10.1.2.3"},
                            {"$ZQSN", "www.example.com"},
                            {"$ZQSP", "80"},
                            {"$ZQPR", "HTTP/1.1"},
                            {"$ZQSC", "http"},
                            {"$ZQIS", "FALSE"},
                            {"$ZQCC", "(null)"},
                            {"$ZQCS", "(null)"},
                            {"$ZQSI", "(null)"},
                            {"$ZQAT", "(null)"},
                            {"$ZQRU", "(null)"}};
  EXPECT_EQ(r.set, expected);
  EXPECT_EQ(kyrHttpContextAddPrivateHeaders(ctx), 0);
  // A failover to another server adds nothing either.
  kyrHttpContextSetState(ctx, CONNECT_FAILURE, 0, nullptr);
  ASSERT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
  EXPECT_EQ(r.set, expected);
}

TEST_F(PrivateHeaders, HttpsIsOnlyRecognisedInLowerCase) {
  RecordingRequest& secure = recording("/shop/a", "https", 443);
  route(secure);
  EXPECT_EQ(secure.headers["$ZQIS"], "TRUE");
  RecordingRequest& shouted = recording("/shop/a", "HTTPS", 443);
  KyrHttpContext* ctx = obtain(shouted);  // no target for an unknown protocol: asked directly
  EXPECT_EQ(kyrHttpContextAddPrivateHeaders(ctx), 0);
  EXPECT_EQ(shouted.headers["$ZQIS"], "FALSE");
  EXPECT_EQ(shouted.headers["$ZQSC"], "HTTPS");
}

TEST_F(PrivateHeaders, DisablingThemLeavesOnlyThePartitionVersion) {
  ASSERT_NE(kyrSetProperty(kyr_, "disablePrivateHeaders", "true"), nullptr);
  RecordingRequest& r = recording("/shop/a");
  route(r);
  EXPECT_EQ(r.set, (Headers{{"_ZQ_HAPRT_WLMVERSION", "-1"}}));
}

}  // namespace
