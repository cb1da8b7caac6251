// Requests mapped to web modules through the public request context, over a cell document with
// two applications (one in two editions), two virtual host groups and URI patterns of every
// kind; plus the context's own life: pooling, its URL, cancelling.
#include <gtest/gtest.h>

#include <string>

#include "support/routingFixture.h"

namespace {

// An empty host or path stands for a request whose host cannot give one.
char* hostOrNull(EnvHttpContext* r) {
  return r->virtualHost.empty() ? nullptr : kyrtest::host::getVirtualHost(r);
}
char* pathOrNull(EnvHttpContext* r) {
  return r->path.empty() ? nullptr : kyrtest::host::getPath(r);
}

int resumed = 0;  // how often the library resumed a request

class RequestMapping : public kyrtest::RoutingFixture {
 protected:
  RequestMapping() {
    document_ = "cell-web.json";
    host_.env.http.request.getVirtualHost = hostOrNull;
    host_.env.http.request.getPath = pathOrNull;
    host_.env.http.request.resume = [](EnvHttpContext*) { return ++resumed, 0; };
  }
  // Obtains a context for the request and asks whether it is ours; the context stays open.
  KyrHttpContext* map(const char* host, int port, const char* path) {
    KyrHttpContext* ctx = obtain(request(path, host, port));
    handled_ = kyrHttpContextShouldHandle(ctx);
    return ctx;
  }
  // The edition, and the module with its context root and virtual host group, or the reject.
  static std::string mapping(KyrHttpContext* ctx) {
    const char* edition = kyrHttpContextGetApplicationEditionName(ctx);
    std::string result = std::string(edition != nullptr ? edition : "(none)") + ": ";
    if (kyrHttpContextGetAction(ctx) == REJECT) {
      return result + std::to_string(kyrHttpContextGetErrorCode(ctx)) + " " +
             kyrHttpContextGetErrorMsg(ctx);
    }
    std::string module = kyrHttpContextGetModuleName(ctx);
    std::string vhost = kyrHttpContextGetMatchedVHostName(ctx);
    return result + module.substr(module.rfind('/') + 1) + " at " + ctx->contextRoot.text + " on " +
           vhost.substr(vhost.rfind('/') + 1);
  }

  int handled_ = 0;  // what should-handle answered last
};

TEST_F(RequestMapping, RequestsReachTheModulesTheirHostSeesOrAreRejected) {
  struct {
    const char* host;
    int port;
    const char* path;
    int handled;
    const char* mapping;
  } rows[] = {
      {"shop.example.com", 80, "/shop/items/42", 1, "1.0: shop.war at /shop on default_host"},
      // Parameters and query take no part in matching.
      {"shop.example.com", 443, "/cart/checkout;jsessionid=1?a=b", 1,
       ": cart.war at /cart on default_host"},
      // A suffix pattern under the context root.
      {"shop.example.com", 80, "/shop/cart/view.jsp", 1, "1.0: shop.war at /shop on default_host"},
      // The admin module is only bound to admin.example.com:9060, whatever the case of the host;
      // on the default group the longest root is /cart.
      {"ADMIN.example.com", 9060, "/cart/admin/users", 1,
       ": admin.war at /cart/admin on admin_host"},
      {"shop.example.com", 80, "/cart/admin/users", 1, ": cart.war at /cart on default_host"},
      {"shop.example.com", 8080, "/shop/items", 0, "(none): 404 no mapping found"},  // no group
      {"shop.example.com", 80, "/nowhere", 0, "(none): 404 no mapping found"},
      {"", 80, "/shop/x", -1, "(none): 500 null host"},
      {"shop.example.com", 80, "", -1, "(none): 500 null path"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.host) + ":" + std::to_string(row.port) + row.path);
    KyrHttpContext* ctx = map(row.host, row.port, row.path);
    EXPECT_EQ(handled_, row.handled);
    EXPECT_EQ(mapping(ctx), row.mapping);
  }
}

// "uri" is the type of URI objects, and also a name an application may have: its module's
// URIs are still read as its own.
TEST_F(RequestMapping, AnApplicationNamedUriServesItsURIs) {
  const char* doc = R"({"version": 21, "restVersion": 2, "add": {
      "objects": {"type": "application", "name": "/cell/shop/application/uri",
        "props": {"state": "STARTED"}, "objects": {"type": "webModule", "name": "/webModule/u.war",
        "props": {"contextRoot": "/u"}, "objects": {"type": "uri", "name": "/uri/\\/*"}}},
      "relationships": {"vHostGroup:webModule": [{
        "vHostGroup": "/cell/shop/vHostGroup/default_host",
        "webModule": "/cell/shop/application/uri/webModule/u.war"}]}}})";
  ASSERT_EQ(apply(doc), 21);
  KyrHttpContext* ctx = map("shop.example.com", 80, "/u/x");
  EXPECT_EQ(handled_, 1);
  EXPECT_EQ(mapping(ctx), ": u.war at /u on default_host");
}

// Names go into space that comes with the context, or onto the heap once that is full. Whatever
// was stored before (shorter, longer, the context's own text, null) they read back exactly, and a
// released context keeps none of them.
TEST(HttpContextPool, ContextsAreReusedEmptiedWhileTheHandleIsUsableAndThePoolHasRoom) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  EnvHttpContext request;
  // A stopped handle pools nothing.
  KyrHttpContext* first = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextRelease(first);
  EXPECT_EQ(kyr::kyrContextPoolSize(kyr), 0);

  kyr->state = STARTED;
  first = kyrHttpContextObtain(kyr, &request);
  int idle = kyr::kyrGetMemCount();
  const std::string huge(3000, 'x');  // larger than the context's text space
  kyrHttpContextSetReject(first, 503, "busy");
  kyrHttpContextSetApplicationName(first, huge.c_str());
  EXPECT_EQ(kyrHttpContextGetApplicationName(first), huge);
  kyrHttpContextRelease(first);
  EXPECT_EQ(kyrHttpContextGetState(first), CACHED);
  EXPECT_EQ(kyr::kyrGetMemCount(), idle);  // the heap copy went with the release

  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &request);
  EXPECT_EQ(ctx, first);
  EXPECT_EQ(kyrHttpContextGetAction(ctx), NONE);  // reinitialised
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 0);
  EXPECT_EQ(kyrHttpContextGetState(ctx), INITIAL);
  EXPECT_EQ(kyrHttpContextGetErrorMsg(ctx), nullptr);
  EXPECT_EQ(kyrHttpContextGetApplicationName(ctx), nullptr);
  kyrHttpContextSetApplicationName(ctx, "shop");
  kyrHttpContextSetApplicationName(ctx, kyrHttpContextGetApplicationName(ctx) + 1);
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx), "hop");
  // Filling the space moves later names to the heap, the context's own text included.
  for (int i = 0; i < 30; ++i) {
    std::string name = std::to_string(i) + std::string(100, 'm');
    kyrHttpContextSetModuleName(ctx, name.c_str());
    kyrHttpContextSetModuleName(ctx, kyrHttpContextGetModuleName(ctx));
    ASSERT_EQ(kyrHttpContextGetModuleName(ctx), name);
  }
  EXPECT_STREQ(kyrHttpContextGetApplicationName(ctx), "hop");
  kyrHttpContextSetModuleName(ctx, nullptr);
  EXPECT_EQ(kyrHttpContextGetModuleName(ctx), nullptr);
  kyrHttpContextSetModuleName(ctx, huge.c_str());
  kyrHttpContextRelease(ctx);
  EXPECT_EQ(kyr::kyrGetMemCount(), idle);

  ASSERT_NE(kyrSetProperty(kyr, "MaxHttpContextPoolSize", "1"), nullptr);
  KyrHttpContext* a = kyrHttpContextObtain(kyr, &request);
  KyrHttpContext* b = kyrHttpContextObtain(kyr, &request);
  kyrHttpContextRelease(a);
  kyrHttpContextRelease(b);  // the pool is full: deleted
  EXPECT_EQ(kyr::kyrContextPoolSize(kyr), 1);
  kyr->state = STOPPED;
  kyrDestroy(kyr);  // the pooled context goes with the handle (ASan, LSan)
}

TEST_F(RequestMapping, TheUrlIsBuiltOnceAndOnlyASuspendedRequestIsCancelled) {
  EnvHttpContext& r = request("/shop/a", "shop.example.com", 8443);
  r.protocol = "https";
  KyrHttpContext* ctx = obtain(r);
  EXPECT_STREQ(kyrHttpContextGetURL(ctx), "https://shop.example.com:8443//shop/a");
  r.path = "/changed";
  EXPECT_STREQ(kyrHttpContextGetURL(ctx), "https://shop.example.com:8443//shop/a");

  EXPECT_EQ(kyrHttpContextCancelRequest(ctx), 1);  // not suspended: nothing happens
  EXPECT_EQ(kyrHttpContextGetState(ctx), INITIAL);
  ctx->state = REQUEST_SUSPENDED;
  EXPECT_EQ(kyrHttpContextCancelRequest(ctx), 0);
  EXPECT_EQ(kyrHttpContextGetState(ctx), REQUEST_CANCELED);
  EXPECT_EQ(resumed, 1);
}

}  // namespace
