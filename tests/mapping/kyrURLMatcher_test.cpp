// The URL matcher over several virtual host groups: the longest context root across them, the
// first group between equals unless its module is a generic application's, and group removal.
// The targets are the request mapper's web modules, registered directly in each group's URI
// matcher.
#include "mapping/kyrURLMatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mapping/URIMatcher.h"
#include "mapping/kyrRequestMapper.h"
#include "mappingTestUtil.h"

namespace {

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
  kyr::WebModule* module(const std::string& name, const char* contextRoot, bool generic = false) {
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
    kyr::URIMatcherPublish(kyr::getURIMatcher(g));
    kyr::kyrFree(pattern);
  }

  std::string best(const char* host, int port, const char* uri) {
    kyr::WebModule* wm = kyr::matchLongestURI(m_, nullptr, host, port, uri);
    return wm != nullptr ? kyr::wmGetName(wm) : "null";
  }

  static std::string moduleName(const std::string& name, bool generic = false) {
    return std::string(generic ? "/cell/c1/application/GenericApplication"
                               : "/cell/c1/application/shop") +
           "/webModule/" + name;
  }

  kyr::RequestMapper* rm_ = nullptr;
  kyr::Application* app_ = nullptr;
  kyr::Application* genApp_ = nullptr;
  kyr::URLMatcher* m_ = nullptr;
};

// Two groups on one port with a module each, written "contextRoot" bound to "/*", or
// "contextRoot|pattern"; "-" for no context root, a leading "G" for a generic application's.
TEST_F(URLMatcherTest, LongestContextRootWinsAndTheFirstGroupUnlessItIsGeneric) {
  struct {
    const char* first;
    const char* second;
    const char* uri;
    int winner;
  } rows[] = {
      {"/app", "/app/sub", "/app/sub/x", 2},
      {"/app/sub", "/app", "/app/sub/x", 1},
      {"/app", "/app/sub", "/app/x", 1},
      {"/|/app/sub/deep/*", "/app", "/app/sub/deep/x", 2},  // root length, not pattern length
      {"-", "/", "/x", 2},
      {"/app", "/app", "/app/x", 1},    // equals: the first group
      {"G/app", "/app", "/app/x", 2},   // unless a real module meets a generic one
      {"/app", "G/app", "/app/x", 1},   // a generic one never displaces a real one
      {"G/app", "G/app", "/app/x", 2},  // but does displace another generic one
  };
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " then " + row.second);
    kyr::kyrURLMatcherDestroy(m_);
    m_ = kyr::kyrURLMatcherCreate(&ri_);
    std::string names[2];
    bool generic[2];
    for (int i = 0; i < 2; ++i) {
      std::string side = i == 0 ? row.first : row.second;
      generic[i] = side[0] == 'G';
      if (generic[i]) side.erase(0, 1);
      size_t bar = side.find('|');
      std::string root = side.substr(0, bar);
      std::string uri = bar == std::string::npos ? "/*" : side.substr(bar + 1);
      names[i] = "m" + std::to_string(n++);
      kyr::WebModule* wm = module(names[i], root == "-" ? nullptr : root.c_str(), generic[i]);
      bind(group(i == 0 ? "g1" : "g2", {{"*", 80}}), wm, uri.c_str());
    }
    int w = row.winner - 1;
    EXPECT_EQ(best("h", 80, row.uri), moduleName(names[w], generic[w]));
  }
}

TEST_F(URLMatcherTest, RemovedGroupIsGoneFromLookupAndMatching) {
  kyr::VHostMatcher* g1 = group("g1", {{"*", 80}});
  kyr::VHostMatcher* g2 = group("g2", {{"*", 80}});
  bind(g1, module("a", "/app"), "/*");
  bind(g2, module("b", "/app"), "/*");
  EXPECT_EQ(kyr::getVHostMatcher(m_, "g1"), g1);
  kyr::URLMatcherDeleteVHostMatcher(m_, "g1");
  EXPECT_EQ(m_->vhtMatchersArray[0], g2);
  EXPECT_EQ(m_->vhtMatchersArray[1], nullptr);
  EXPECT_EQ(best("h", 80, "/app/x"), moduleName("b"));
  EXPECT_EQ(kyr::getVHostMatcher(m_, "g1"), nullptr);
  kyr::URLMatcherDeleteVHostMatcher(m_, "g1");  // unknown now: nothing happens
  kyr::URLMatcherDeleteVHostMatcher(m_, nullptr);
}

}  // namespace
