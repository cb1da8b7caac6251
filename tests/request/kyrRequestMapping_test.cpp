// Requests mapped to web modules through the public request context, over a cell document with
// two applications (one in two editions), two virtual host groups and URI patterns of every
// kind; plus the context's own life: pooling, mapping once, the decisions it records.
#include <gtest/gtest.h>

#include <string>

#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "request/kyrHttpContext.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::printed;

constexpr const char* kShopModule = "/cell/shop/application/shop/webModule/shop.war";
constexpr const char* kCartModule = "/cell/shop/application/cart/webModule/cart.war";
constexpr const char* kAdminModule = "/cell/shop/application/cart/webModule/admin.war";

class RequestMapping : public ::testing::Test {
 protected:
  void SetUp() override {
    printed().clear();
    host_.env.trace.printf = kyrtest::capturePrintf;
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(kyr_, "cg1"), "http://p:9080");
    c->cg->curConnector = c;  // as a started group has it: rebuilds read its document
    kyr::ControlLockGuard guard("test");
    ASSERT_EQ(kyrHandleJsonFromRestService(kyrtest::readTestData("cell-web.json").c_str(), c), 20);
  }
  void TearDown() override { kyrDestroy(kyr_); }

  // Maps one request and keeps its context for the checks.
  int map(const char* host, int port, const char* path) {
    request_.virtualHost = host != nullptr ? host : "";
    request_.virtualPort = port;
    request_.path = path != nullptr ? path : "";
    nullHost_ = host == nullptr;
    nullPath_ = path == nullptr;
    if (ctx_ != nullptr) kyrHttpContextRelease(ctx_);
    ctx_ = kyrHttpContextObtain(kyr_, &request_);
    return kyrHttpContextShouldHandle(ctx_);
  }
  const char* module() { return kyrHttpContextGetModuleName(ctx_); }

  static char* nullableHost(EnvHttpContext* r) {
    return current->nullHost_ ? nullptr : kyrtest::host::getVirtualHost(r);
  }
  static char* nullablePath(EnvHttpContext* r) {
    return current->nullPath_ ? nullptr : kyrtest::host::getPath(r);
  }
  static RequestMapping* current;

  kyrtest::TestHost host_ = [] {
    kyrtest::TestHost h;
    h.env.http.request.getVirtualHost = nullableHost;
    h.env.http.request.getPath = nullablePath;
    return h;
  }();
  Kyr* kyr_ = nullptr;
  EnvHttpContext request_;
  KyrHttpContext* ctx_ = nullptr;
  bool nullHost_ = false;
  bool nullPath_ = false;

 public:
  RequestMapping() { current = this; }
  ~RequestMapping() override {
    if (ctx_ != nullptr) kyrHttpContextRelease(ctx_);
  }
};
RequestMapping* RequestMapping::current = nullptr;

TEST_F(RequestMapping, PathsReachTheirModulesWithTheEditionAndContextRoot) {
  EXPECT_EQ(map("shop.example.com", 80, "/shop/items/42"), 1);
  EXPECT_STREQ(module(), kShopModule);
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx_), "shop");
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx_), "1.0");
  EXPECT_EQ(kyrHttpContextGetAction(ctx_), PERMIT);
  EXPECT_STREQ(ctx_->contextRoot.text, "/shop");
  EXPECT_STREQ(kyrHttpContextGetMatchedVHostName(ctx_), "/cell/shop/vHostGroup/default_host");

  // Parameters and query do not take part in matching.
  EXPECT_EQ(map("shop.example.com", 443, "/cart/checkout;jsessionid=1?a=b"), 1);
  EXPECT_STREQ(module(), kCartModule);
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx_), "");

  // A suffix pattern under the context root.
  EXPECT_EQ(map("shop.example.com", 80, "/shop/cart/view.jsp"), 1);
  EXPECT_STREQ(module(), kShopModule);
}

TEST_F(RequestMapping, VirtualHostGroupsDecideWhichModulesAHostSees) {
  // The admin module is only bound to admin.example.com:9060, whatever the case of the host.
  EXPECT_EQ(map("ADMIN.example.com", 9060, "/cart/admin/users"), 1);
  EXPECT_STREQ(module(), kAdminModule);
  EXPECT_STREQ(kyrHttpContextGetMatchedVHostName(ctx_), "/cell/shop/vHostGroup/admin_host");
  // On the default host group the longest root it knows is /cart.
  EXPECT_EQ(map("shop.example.com", 80, "/cart/admin/users"), 1);
  EXPECT_STREQ(module(), kCartModule);
  // No group takes port 8080.
  EXPECT_EQ(map("shop.example.com", 8080, "/shop/items"), 0);
}

TEST_F(RequestMapping, UnmappedRequestsAreRejectedWithTheirStatus) {
  EXPECT_EQ(map("shop.example.com", 80, "/nowhere"), 0);
  EXPECT_EQ(kyrHttpContextGetAction(ctx_), REJECT);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 404);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_), "no mapping found");
  EXPECT_EQ(kyrHttpContextGetApplicationEditionName(ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 404);

  EXPECT_EQ(map(nullptr, 80, "/shop/x"), -1);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_), "null host");
  EXPECT_EQ(kyrHttpContextGetApplicationEditionName(ctx_), nullptr);
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx_), 500);

  EXPECT_EQ(map("shop.example.com", 80, nullptr), -1);
  EXPECT_STREQ(kyrHttpContextGetErrorMsg(ctx_), "null path");
}

TEST_F(RequestMapping, ARequestIsMappedOnceWhateverItAsks) {
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,http:DEBUG"), 0);
  EXPECT_EQ(map("shop.example.com", 80, "/shop/items"), 1);
  request_.path = "/nowhere";  // a second question does not map again
  EXPECT_EQ(kyrHttpContextShouldHandle(ctx_), 1);
  EXPECT_STREQ(kyrHttpContextGetApplicationEditionName(ctx_), "1.0");
  bool remembered = false;
  for (const auto& line : printed()) {
    remembered |= line.text.find("performRequestMapping: return previous result: 1") == 0;
  }
  EXPECT_TRUE(remembered);
}

TEST_F(RequestMapping, EditionsShareTheirApplicationRoot) {
  auto* shop = static_cast<kyr::Application*>(
      kyr::kyrRoutingInfoObjectGet(kyr_->routingInfo, "/cell/shop/application/shop"));
  ASSERT_NE(shop, nullptr);
  kyr::Application* second = kyr::getApplicationByEdition(shop, "2.0");
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second->name, "/cell/shop/application/shop-edition2.0");
  EXPECT_EQ(second->root, shop->root);
  EXPECT_EQ(kyr::getApplicationByEdition(shop, "3.0"), nullptr);
}

TEST_F(RequestMapping, ARequestKeepsItsModelWhenTheRoutingDataIsRebuilt) {
  EXPECT_EQ(map("shop.example.com", 80, "/shop/items"), 1);
  kyr::KyrRoutingInfo* held = ctx_->routingInfo;
  kyr::kyrResetRoutingInfo(kyr_);
  EXPECT_NE(kyr_->routingInfo, held);
  EXPECT_NE(kyr::kyrRoutingInfoObjectGet(held, kShopModule), nullptr);
  kyrHttpContextRelease(ctx_);  // the old version goes with the request
  ctx_ = nullptr;
  EXPECT_EQ(map("shop.example.com", 80, "/shop/items"), 1);
  EXPECT_EQ(ctx_->routingInfo, kyr_->routingInfo);
}

TEST(HttpContextPool, ReleasedContextsAreReusedOnlyWhileTheHandleIsUsableAndThePoolHasRoom) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  EnvHttpContext request;
  // A stopped handle pools nothing.
  KyrHttpContext* first = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextRelease(first);
  EXPECT_EQ(kyr::kyrListGetCount(kyr->contextPool), 0);

  kyr->state = STARTED;
  first = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextSetReject(first, 503, "busy");
  kyrHttpContextRelease(first);
  EXPECT_EQ(kyrHttpContextGetState(first), CACHED);
  KyrHttpContext* again = kyrHttpContextObtain(kyr, &request);
  EXPECT_EQ(again, first);
  EXPECT_EQ(kyrHttpContextGetAction(again), NONE);  // reinitialised
  EXPECT_EQ(kyrHttpContextGetErrorCode(again), 0);
  EXPECT_EQ(kyrHttpContextGetState(again), INITIAL);
  EXPECT_EQ(kyrHttpContextGetErrorMsg(again), nullptr);  // the buffer is kept, the text is not
  kyrHttpContextRelease(again);

  ASSERT_NE(kyrSetProperty(kyr, "MaxHttpContextPoolSize", "1"), nullptr);
  KyrHttpContext* a = kyrHttpContextObtain(kyr, &request);
  KyrHttpContext* b = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextRelease(a);
  kyrHttpContextRelease(b);  // the pool is full: deleted
  EXPECT_EQ(kyr::kyrListGetCount(kyr->contextPool), 1);
  kyr->state = STOPPED;
  kyrDestroy(kyr);  // the pooled context goes with the handle (ASan)
}

// Pooled contexts copy names into the buffers they already have: shorter and longer values,
// a value that is the context's own text, and null must all read back exactly.
TEST(HttpContextPool, NamesReadBackExactlyWhateverTheBufferHeldBefore) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  kyr->state = STARTED;
  EnvHttpContext request;
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextSetApplicationName(ctx, "a-rather-long-application-name");
  kyrHttpContextRelease(ctx);
  int pooled = kyr::kyrGetMemCount();
  ctx = kyrHttpContextObtain(kyr, &request);
  EXPECT_EQ(kyrHttpContextGetApplicationName(ctx), nullptr);
  kyrHttpContextSetApplicationName(ctx, "shop");
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx), "shop");
  kyrHttpContextSetApplicationName(ctx, kyrHttpContextGetApplicationName(ctx) + 1);
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx), "hop");
  kyrHttpContextSetApplicationName(ctx, "an-application-name-longer-than-any-before");
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx),
               "an-application-name-longer-than-any-before");
  kyrHttpContextSetApplicationName(ctx, nullptr);
  EXPECT_EQ(kyrHttpContextGetApplicationName(ctx), nullptr);
  kyrHttpContextRelease(ctx);
  EXPECT_EQ(kyr::kyrGetMemCount(), pooled);  // the grown buffer replaced the old one
  kyr->state = STOPPED;
  kyrDestroy(kyr);  // and goes with the pooled context (LSan)
}

int resumed = 0;

TEST(HttpContext, DecisionsUrlAndCancel) {
  kyrtest::TestHost host;
  host.env.http.request.resume = [](EnvHttpContext*) { return ++resumed, 0; };
  Kyr* kyr = host.create();
  EnvHttpContext request;
  request.protocol = "https";
  request.virtualHost = "shop.example.com";
  request.virtualPort = 8443;
  request.path = "/shop/a";
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &request);
  EXPECT_STREQ(kyrHttpContextGetURL(ctx), "https://shop.example.com:8443//shop/a");
  request.path = "/changed";  // built once
  EXPECT_STREQ(kyrHttpContextGetURL(ctx), "https://shop.example.com:8443//shop/a");

  kyrHttpContextSetRedirect(ctx, "https://elsewhere/");
  EXPECT_EQ(kyrHttpContextGetAction(ctx), REDIRECT);
  EXPECT_STREQ(kyrHttpContextGetRedirectURL(ctx), "https://elsewhere/");
  kyrHttpContextSetPermit(ctx, "2.0", true);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), PERMIT);
  EXPECT_TRUE(ctx->sticky);

  EXPECT_EQ(kyrHttpContextCancelRequest(ctx), 1);  // not suspended: nothing happens
  EXPECT_EQ(kyrHttpContextGetState(ctx), INITIAL);
  ctx->state = REQUEST_SUSPENDED;
  EXPECT_EQ(kyrHttpContextCancelRequest(ctx), 0);
  EXPECT_EQ(kyrHttpContextGetState(ctx), REQUEST_CANCELED);
  EXPECT_EQ(resumed, 1);

  EXPECT_STREQ(kyrHttpContextStateToString(RESPONSE_SEND_ERROR), "RESPONSE_SEND_ERROR");
  EXPECT_STREQ(kyrHttpContextStateToString(FREE), "FREE");
  EXPECT_STREQ(kyrHttpContextStateToString(static_cast<KyrHttpContextState>(23)), "UNKNOWN");
  kyrHttpContextRelease(ctx);
  kyrDestroy(kyr);
}

}  // namespace
