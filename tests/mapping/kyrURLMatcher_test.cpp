// The URL matcher over several virtual host groups: which groups a request reaches, the
// longest context root across them, the first group between equals unless its module is a
// generic application's, group lookup and removal, and the JSON dump. The targets are the
// request mapper's web modules, registered directly in each group's URI matcher.
#include "mapping/kyrURLMatcher.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>
#include <vector>

#include "mapping/URIMatcher.h"
#include "mapping/kyrRequestMapper.h"
#include "mappingTestUtil.h"
#include "runtime/kyrStringBuffer.h"

namespace {

using kyrtest::printed;

std::string compact(json_t* json) {
  char* out = json_dumps(json, JSON_COMPACT);
  std::string s = out;
  free(out);
  json_decref(json);
  return s;
}

class URLMatcherTest : public kyrtest::MappingTest {
 protected:
  void SetUp() override {
    MappingTest::SetUp();
    rm_ = kyr::rmCreate(&ri_);
    app_ = kyr::rmApplicationCreate(rm_, "/cell/c1/application/shop");
    genApp_ = kyr::rmApplicationCreate(rm_, "/cell/c1/application/GenericApplication");
    m_ = kyr::kyrURLMatcherCreate(&ri_);
  }
  void TearDown() override {
    kyr::kyrURLMatcherDestroy(m_);
    kyr::rmDelete(rm_);
    MappingTest::TearDown();
  }

  // A module of the shop application (or of the generic one) with that context root.
  kyr::WebModule* module(const char* name, const char* contextRoot, bool generic = false) {
    kyr::WebModule* wm =
        kyr::rmWebModuleCreate(generic ? genApp_ : app_, moduleName(name, generic).c_str(), 1);
    if (contextRoot != nullptr) {
      EXPECT_TRUE(kyr::rmWebModuleSetPropStr(wm, "contextRoot", contextRoot));
    }
    return wm;
  }

  // A group accepting the aliases "host:port" ("*" and -1 for any), appended to the matcher.
  kyr::VHostMatcher* group(const char* name, std::vector<std::pair<const char*, int>> aliases) {
    kyr::VHostMatcher* g = kyr::createVHostMatcher(&ri_, name);
    for (const auto& [host, port] : aliases) kyr::putVHost(g, host, port);
    kyr::addVHostMatcher(m_, g);
    return g;
  }

  // Registers uri under the module's context root, as the mapper links a module to a group.
  static void bind(kyr::VHostMatcher* g, kyr::WebModule* wm, const char* uri) {
    char* pattern = kyr::URIMatcherMakePattern(kyr::wmGetContextRoot(wm), uri);
    kyr::URIMatcherPut(kyr::getURIMatcher(g), pattern, wm, true);
    kyr::kyrFree(pattern);
  }

  std::string best(const char* host, int port, const char* uri) {
    kyr::WebModule* wm = kyr::matchLongestURI(m_, nullptr, host, port, uri);
    return wm != nullptr ? kyr::wmGetName(wm) : "null";
  }

  std::string bestGroup(const char* host, int port, const char* uri) {
    kyr::URLMatch match = kyr::findLongestURI(m_, nullptr, host, port, uri);
    return match.vhostMatcher != nullptr ? match.vhostMatcher->name : "null";
  }

  static std::string moduleName(const char* name, bool generic = false) {
    return std::string(generic ? "/cell/c1/application/GenericApplication"
                               : "/cell/c1/application/shop") +
           "/webModule/" + name;
  }

  kyr::RequestMapper* rm_ = nullptr;
  kyr::Application* app_ = nullptr;
  kyr::Application* genApp_ = nullptr;
  kyr::URLMatcher* m_ = nullptr;
};

TEST_F(URLMatcherTest, OnlyGroupsAcceptingHostAndPortAreAsked) {
  kyr::VHostMatcher* g1 = group("g1", {{"host1", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 443}});
  bind(g1, module("a", "/a"), "/*");
  bind(g2, module("b", "/b"), "/*");
  EXPECT_EQ(best("HOST1", 80, "/a/x"), moduleName("a"));
  EXPECT_EQ(best("host1", 80, "/b/x"), "null");
  EXPECT_EQ(best("anyone", 443, "/b/x"), moduleName("b"));
  EXPECT_EQ(best("host1.", 80, "/a/x"), "null");  // trailing dot: another host
  EXPECT_EQ(best("host1", 443, "/a/x"), "null");
  EXPECT_EQ(best(nullptr, 80, "/a/x"), "null");
}

TEST_F(URLMatcherTest, LongestContextRootWinsAcrossGroups) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("short", "/app"), "/*");
  bind(g2, module("long", "/app/sub"), "/*");
  EXPECT_EQ(best("h", 80, "/app/sub/x"), moduleName("long"));
  EXPECT_EQ(bestGroup("h", 80, "/app/sub/x"), "g2");
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("short"));
  EXPECT_EQ(bestGroup("h", 80, "/app/x"), "g1");
}

TEST_F(URLMatcherTest, ContextRootLengthCountsNotPatternLength) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("rootModule", "/"), "/app/sub/deep/*");
  bind(g2, module("appModule", "/app"), "/*");
  EXPECT_EQ(best("h", 80, "/app/sub/deep/x"), moduleName("appModule"));
}

TEST_F(URLMatcherTest, MissingContextRootCountsAsEmpty) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("noRoot", nullptr), "/*");
  bind(g2, module("slash", "/"), "/*");
  EXPECT_EQ(best("h", 80, "/x"), moduleName("slash"));
}

TEST_F(URLMatcherTest, EqualRootsFirstGroupWins) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("first", "/app"), "/*");
  bind(g2, module("second", "/app"), "/*");
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("first"));
  EXPECT_EQ(bestGroup("h", 80, "/app/x"), "g1");
}

TEST_F(URLMatcherTest, EqualRootsRealApplicationDisplacesGenericOne) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("gen", "/app", true), "/*");
  bind(g2, module("real", "/app"), "/*");
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("real"));
}

TEST_F(URLMatcherTest, EqualRootsGenericApplicationNeverDisplacesARealOne) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("real", "/app"), "/*");
  bind(g2, module("gen", "/app", true), "/*");
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("real"));
}

TEST_F(URLMatcherTest, EqualRootsLaterGenericDisplacesEarlierGeneric) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("gen1", "/app", true), "/*");
  bind(g2, module("gen2", "/app", true), "/*");
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("gen2", true));
}

TEST_F(URLMatcherTest, GenericDefaultModuleOnRootIsTheGroupsCatchAll) {
  kyr::VHostMatcher* g = group("default_host", {{"*", -1}});
  kyr::WebModule* def = module("Default_default_host_HTTP_WC", "/", true);
  bind(g, def, "*");  // "/" joined to "*" is "/*"
  bind(g, module("app", "/app"), "/*");
  EXPECT_EQ(g->uriMatcher->catchAllTarget, def);
  EXPECT_EQ(best("h", 1, "/app/x"), moduleName("app"));
  EXPECT_EQ(best("h", 1, "/other"), moduleName("Default_default_host_HTTP_WC", true));

  kyr::KyrStringBuffer* sb = kyr::sbCreate(64);
  kyr::URIMatcherAddInfo(g->uriMatcher, sb);
  EXPECT_EQ(std::string(kyr::sbStr(sb)),
            "\ngenAppTree:\nrealAppTree:\n  chars='/app' exact=" + moduleName("app") +
                "\n    chars='/' exact=" + moduleName("app") + " prefix=" + moduleName("app"));
  kyr::sbDelete(sb);
}

TEST_F(URLMatcherTest, NoGroupsNoMatch) {
  EXPECT_EQ(best("h", 80, "/x"), "null");
  EXPECT_EQ(bestGroup("h", 80, "/x"), "null");
}

TEST_F(URLMatcherTest, GroupsAreFoundByNameAndRemovedEverywhere) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("a", "/app"), "/*");
  bind(g2, module("b", "/app"), "/*");
  EXPECT_EQ(kyr::getVHostMatcher(m_, "g1"), g1);
  EXPECT_EQ(kyr::getVHostMatcher(m_, "g2"), g2);

  kyr::URLMatcherDeleteVHostMatcher(m_, "g1");
  EXPECT_EQ(m_->vhtMatchersCount, 1);
  EXPECT_EQ(m_->vhtMatchersArray[0], g2);
  EXPECT_EQ(m_->vhtMatchersArray[1], nullptr);
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("b"));

  traceMapping();
  EXPECT_EQ(kyr::getVHostMatcher(m_, "g1"), nullptr);
  EXPECT_TRUE(printedContains("WARN: getVHostMatcher g1 - not found"));
  kyr::URLMatcherDeleteVHostMatcher(m_, "g1");  // unknown now: nothing happens
  kyr::URLMatcherDeleteVHostMatcher(m_, nullptr);
  EXPECT_EQ(m_->vhtMatchersCount, 1);
}

TEST_F(URLMatcherTest, IsBetterThanDirectly) {
  kyr::WebModule* shortRoot = module("s", "/a");
  kyr::WebModule* longRoot = module("l", "/ab");
  kyr::WebModule* sameReal = module("r", "/a");
  kyr::WebModule* sameGen = module("g", "/a", true);
  EXPECT_TRUE(kyr::isBetterThan(m_, longRoot, shortRoot));
  EXPECT_FALSE(kyr::isBetterThan(m_, shortRoot, longRoot));
  EXPECT_FALSE(kyr::isBetterThan(m_, sameReal, shortRoot));
  EXPECT_TRUE(kyr::isBetterThan(m_, sameReal, sameGen));
  EXPECT_FALSE(kyr::isBetterThan(m_, sameGen, sameReal));
}

TEST_F(URLMatcherTest, TracesTheChoice) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("gen", "/app", true), "/*");
  bind(g2, module("real", "/app"), "/*");
  bind(g2, module("deep", "/app/deep"), "/*");
  traceMapping();
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("real"));
  EXPECT_TRUE(printedContains("matchLongestURI: h:80///app/x, vhostNum=2"));
  EXPECT_TRUE(printedContains("matchLongestURI: found longer match; switch from " +
                              moduleName("gen", true) + " to " + moduleName("real")));
  EXPECT_TRUE(printedContains("TRUE because of generic app"));
  EXPECT_TRUE(printedContains("matchLongestURI: Exit - g2, " + moduleName("real")));

  printed().clear();
  EXPECT_EQ(best("h", 81, "/app/x"), "null");
  EXPECT_TRUE(printedContains("matchLongestURI: Exit - NULL, NULL"));
}

TEST_F(URLMatcherTest, RecordsTheMatchedGroupInTheRequestContext) {
  group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"h", 80}});
  kyr::WebModule* wm = module("app", "/app");
  bind(g2, wm, "/*");

  // What the context keeps for itself across obtain and release (pool, trace specification) is
  // the request context's business, not this test's.
  int before = kyrtest::quietMemCount();
  EnvHttpContext request;
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr_, &request);
  EXPECT_EQ(kyr::matchLongestURI(m_, ctx, "h", 80, "/app/x"), wm);
  EXPECT_STREQ(kyrHttpContextGetMatchedVHostName(ctx), "g2");
  EXPECT_EQ(kyr::matchLongestURI(m_, ctx, "h", 81, "/app/x"), nullptr);
  EXPECT_EQ(kyrHttpContextGetMatchedVHostName(ctx), nullptr);
  kyrHttpContextRelease(ctx);
  memAtStart_ += kyrtest::quietMemCount() - before;
}

TEST_F(URLMatcherTest, JsonListsGroupsInOrder) {
  group("g1", {{"h1", 80}, {"*", 443}});
  group("g2", {{"*", -1}});
  EXPECT_EQ(compact(kyr::urlMatcherToJSON(m_)),
            R"({"VHostGroups":[{"VHostGroup":"g1","VHosts":[{"host":"h1","port":"80"},)"
            R"({"host":"*","port":"443"}]},{"VHostGroup":"g2","VHosts":[]}]})");
}

}  // namespace
