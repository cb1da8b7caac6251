// Documents that a running library must survive: objects under parents of the wrong type,
// relationships naming objects of the wrong type, deletions applied in place to the version
// requests are routing with, and versions that retire much memory. Each case applies a document
// to the cell of cell-routing.json (in place: its connector group is not initialised) and then
// routes requests, which must go where the remaining model says.
#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"
#include "support/routingFixture.h"

namespace {

using namespace kyrtest;

const std::string kShop = modulePath("shop");
const std::string kShopApp = std::string(kCell) + "/application/shop";

std::string addObjects(const std::string& objects) {
  return R"({"version": 100, "restVersion": 1, "delta": true, "add": {"objects": )" + objects +
         "}}";
}

std::string relationship(const char* op, const std::string& key, const std::string& ends) {
  return std::string(R"({"version": 100, "delta": true, ")") + op + R"(": {"relationships": {")" +
         key + R"(": [)" + ends + "]}}}";
}

class DocumentSafety : public RoutingFixture {
 protected:
  void prepare() override { kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.process:DEBUG"); }

  // The shop still routes to one of its three servers, and an unknown path still gets 404.
  void expectRoutingIntact() {
    std::string server = serve(request("/shop/cart"));
    EXPECT_TRUE(server == "s1" || server == "s2" || server == "s3") << server;
    KyrHttpContext* unknown = route("/nowhere");
    EXPECT_EQ(kyrHttpContextGetErrorCode(unknown), 404);
    release(unknown);
  }
};

// Every row would make its create or link function cast an object to a type it is not.
TEST_F(DocumentSafety, ObjectsUnderAParentOfTheWrongTypeAreSkipped) {
  const std::string node = std::string(kCell) + "/node/n1";
  const struct {
    std::string document;
    std::string diagnostic;
  } cases[] = {
      {addObjects(R"({"type": "serverApplication", "name": "/cell/route/serverApplication/x"})"),
       "skip serverApplication object /cell/route/serverApplication/x; its parent /cell/route is "
       "of type cell"},
      {addObjects(R"({"type": "webModule", "name": "/cell/route/webModule/x"})"),
       "skip webModule object /cell/route/webModule/x; its parent /cell/route is of type cell"},
      {addObjects(R"({"type": "server", "name": "/cell/route/server/x"})"),
       "skip server object /cell/route/server/x; its parent /cell/route is of type cell"},
      {addObjects(R"({"type": "transport", "name": ")" + node + R"(/transport/x"})"),
       "skip transport object " + node + "/transport/x; its parent " + node + " is of type node"},
      {addObjects(R"({"type": "vHost", "name": ")" + node + R"(/vHost/x"})"),
       "skip vHost object " + node + "/vHost/x; its parent " + node + " is of type node"},
      {addObjects(R"({"type": "rule", "name": ")" + kShopApp +
                  R"(/rule/x", "props": {"action": "permit:1"}})"),
       "skip rule object " + kShopApp + "/rule/x; its parent " + kShopApp +
           " is of type application"},
      {addObjects(R"({"type": "uri", "name": ")" + kShopApp + R"(/uri/\\/x"})"),
       "skip uri object " + kShopApp + "/uri/\\/x; its parent " + kShopApp +
           " is of type application"},
      // A node named like a server: names do not decide types, the objects do.
      {addObjects(R"({"type": "node", "name": "/cell/route/server/fake", "objects":
           {"type": "serverApplication", "name": "/serverApplication/shop"}})"),
       "skip serverApplication object /cell/route/server/fake/serverApplication/shop; its parent "
       "/cell/route/server/fake is of type node"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document);
    printed().clear();
    apply(c.document);
    EXPECT_TRUE(printedContains(c.diagnostic));
    expectRoutingIntact();
  }
}

// Both ends are checked by one loop over the key's types: a wrong first end and a wrong second end.
TEST_F(DocumentSafety, RelationshipsNamingObjectsOfTheWrongTypeAreSkipped) {
  const std::string s1 = serverPath("n1", "s1");
  const std::string web = std::string(kCell) + "/cluster/web";
  const struct {
    const char* key;
    std::string ends;
    std::string wrong;  // the end whose type is wrong
  } cases[] = {
      {"cluster:server", R"({"cluster": ")" + s1 + R"(", "server": ")" + web + R"("})", s1},
      {"cluster:webModule", R"({"cluster": ")" + web + R"(", "webModule": ")" + kShopApp + R"("})",
       kShopApp},
  };
  for (const auto& c : cases) {
    for (const char* op : {"add", "del"}) {
      SCOPED_TRACE(std::string(op) + " " + c.key);
      printed().clear();
      apply(relationship(op, c.key, c.ends));
      EXPECT_TRUE(printedContains("skip relationship " + std::string(c.key) + "; object " +
                                  c.wrong + " is of type"));
      expectRoutingIntact();
    }
  }
}

// The setters of the type a "set" names would run on an object of another type.
TEST_F(DocumentSafety, ASetNamingAnotherTypeThanTheStoredObjectIsSkipped) {
  const std::string s1 = serverPath("n1", "s1");
  const struct {
    const char* type;
    std::string name;
    const char* props;
    const char* storedType;
  } cases[] = {
      {"cell", s1, R"({"cp.x": "1"})", "server"},
      {"server", kShop, R"({"weight": 5})", "webModule"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    printed().clear();
    set(c.type, c.name, c.props);
    EXPECT_TRUE(printedContains("skip set operation on " + c.name + "; it is of type " +
                                c.storedType + ", not " + c.type));
    expectRoutingIntact();
  }
}

// Before its group is initialised every document changes the version requests hold.
TEST_F(DocumentSafety, DeletesInPlaceLeaveNothingBehindThatRequestsCouldReach) {
  EnvHttpContext& held = request("/shop/cart");
  KyrHttpContext* inFlight = obtain(held);
  kyrHttpContextShouldHandle(inFlight);  // mapped to the shop module, which goes next

  change("del", "webModule", kShop);
  KyrHttpContext* ctx = route("/shop/cart");
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 404);
  release(ctx);
  // The request mapped before the delete still finishes on what it mapped.
  kyrHttpContextGetTargetEndpoint(inFlight);
  EXPECT_STREQ(kyrHttpContextGetModuleName(inFlight), kShop.c_str());
  complete(inFlight);
  release(inFlight);

  // An application goes with its modules and work classes; nothing of it stays in the map.
  change("del", "application", std::string(kCell) + "/application/vault");
  EXPECT_EQ(object<void>(modulePath("vault")), nullptr);
  ctx = route(request("/vault/x", "www.example.com", 443));
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 404);
  release(ctx);
  // A later delete of what went with it finds nothing to free twice.
  change("del", "webModule", modulePath("vault"));

  // A second cell in the same version is refused; the first stays and can still be changed.
  printed().clear();
  change("add", "cell", "/cell/other");
  EXPECT_TRUE(printedContains("skip cell /cell/other; this version has the cell /cell/route"));
  set("cell", kCell, R"({"cp.x": "1"})");
  change("del", "cell", "/cell/other");
  change("del", "cell", kCell);
  EXPECT_EQ(kyr_->routingInfo->cell, nullptr);
  EXPECT_EQ(serve(request("/portal/")), "e1");
}

TEST_F(DocumentSafety, AWorkClassTakesItsRulesAlongAndARuleWithoutActionIsDropped) {
  const std::string wc = kShopApp + "/webRouteWorkClass/shop_Default_HTTP_WC";
  apply(addObjects(R"({"type": "webRouteWorkClass", "name": ")" + wc + R"(", "objects": [
      {"type": "rule", "name": "/rule/10", "props": {"expression": "true",
       "action": "reject:503"}},
      {"type": "rule", "name": "/rule/20", "props": {"expression": "true"}}]})"));
  EXPECT_EQ(object<void>(wc + "/rule/20"), nullptr);
  KyrHttpContext* ctx = route("/shop/cart");
  EXPECT_EQ(kyrHttpContextGetErrorCode(ctx), 503);
  release(ctx);

  change("del", "webRouteWorkClass", wc);
  EXPECT_EQ(object<void>(wc + "/rule/10"), nullptr);
  change("del", "rule", wc + "/rule/10");  // already gone with its work class
  expectRoutingIntact();
}

TEST_F(DocumentSafety, ADeletedServerIsNeitherAffinityNorBalancingTarget) {
  // s1's applications still hold it, so only its own delete runs.
  change("del", "server", serverPath("n1", "s1"));
  EnvHttpContext& sticky = request("/shop/cart");
  sticky.cookies["JSESSIONID"] = "0000abc:c1";
  EXPECT_NE(serve(sticky), "s1");
  for (int i = 0; i < 12; ++i) EXPECT_NE(serve(request("/shop/cart")), "s1") << i;
}

// In-place link additions reach requests when the document is done, in one publication.
TEST_F(DocumentSafety, AModuleLinkedInPlaceServesAfterItsDocument) {
  apply(addObjects(R"({"type": "application", "name": "/cell/route/application/late",
      "objects": {"type": "webModule", "name": "/webModule/late.war",
      "props": {"contextRoot": "/late"}, "objects": {"type": "uri", "name": "/uri/\\/*"}}})"));
  const std::string late = std::string(kCell) + "/application/late/webModule/late.war";
  apply(relationship(
      "add", "vHostGroup:webModule",
      R"({"vHostGroup": "/cell/route/vHostGroup/default_host", "webModule": ")" + late + R"("})"));
  KyrHttpContext* ctx = route("/late/page");
  EXPECT_STREQ(kyrHttpContextGetModuleName(ctx), late.c_str());
  release(ctx);
}

TEST_F(DocumentSafety, AVersionThatRetiredTooMuchIsRebuiltAndTheOldOneLivesOnForItsRequests) {
  KyrHttpContext* holder = route("/shop/cart");
  kyr::KyrRoutingInfo* old = kyr_->routingInfo;
  // As if many in-place changes had retired their memory.
  kyr::kyrRoutingInfoRetire(
      old, kyr::kyrMalloc(1), [](void* p) { kyr::kyrFree(p); }, kyr::kMaxRetiredBytes + 1);
  set("server", serverPath("n1", "s2"), R"({"weight": 3})");
  EXPECT_NE(kyr_->routingInfo, old);
  EXPECT_LT(kyr_->routingInfo->retiredBytes, kyr::kMaxRetiredBytes);
  complete(holder);
  release(holder);  // the old version goes with its last request
  expectRoutingIntact();
}

}  // namespace
