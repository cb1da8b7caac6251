// The URI pattern matcher: precedence between exact, prefix and suffix patterns along a URI,
// companion registrations and their origins, the generic tree and the catch-all, node splitting,
// bad patterns and paths, joining context roots, and the built-in self-test.
#include "mapping/URIMatcher.h"

#include <gtest/gtest.h>

#include <deque>
#include <sstream>
#include <string>

#include "mappingTestUtil.h"
#include "runtime/kyrStringBuffer.h"

namespace {

using kyrtest::target;
using kyrtest::text;

class URIMatcherTest : public kyrtest::MappingTest {
 protected:
  void SetUp() override {
    MappingTest::SetUp();
    matcher_ = kyr::URIMatcherCreate(&ri_, "test");
  }
  void TearDown() override {
    kyr::URIMatcherDelete(matcher_);
    MappingTest::TearDown();
  }

  // Registers "pattern=target ..." in order; an empty target registers null.
  void put(const std::string& patterns) {
    std::istringstream in(patterns);
    for (std::string item; in >> item;) {
      size_t eq = item.rfind('=');
      names_.push_back(item.substr(eq + 1));
      const char* name = names_.back().c_str();
      kyr::URIMatcherPut(matcher_, item.substr(0, eq).c_str(), *name ? target(name) : nullptr,
                         false);
    }
    kyr::URIMatcherPublish(matcher_);
  }
  std::string match(const char* uri) { return text(kyr::URIMatcherMatch(matcher_, uri, nullptr)); }
  std::string dump() {
    kyr::KyrStringBuffer* sb = kyr::sbCreate(16);
    kyr::URIMatcherAddInfo(matcher_, sb);
    std::string out = kyr::sbStr(sb);
    kyr::sbDelete(sb);
    return out;
  }

  kyr::URIMatcher* matcher_ = nullptr;
  std::deque<std::string> names_;  // the targets, kept as long as the matcher
};

// Each row registers "pattern=target ..." in order in a fresh matcher, then expects each
// "uri=target" ("null": no match).
struct MatchCase {
  const char* patterns;
  const char* uris;
} const kMatchCases[] = {
    // Exact beats all; a fitting suffix at a node beats that node's prefix.
    {"/a/x.jsp=E /a/*=P /a/*.jsp=S", "/a/x.jsp=E /a/y.jsp=S /a/y.css=P"},
    // Along the path the last candidate found wins: deeper beats shallower, whatever its kind.
    {"*.jsp=S /a/*=P", "/a/x.jsp=P /b/x.jsp=S"},
    {"/a/*=P /a/b/*.jsp=S", "/a/b/x.jsp=S /a/b/x.css=P"},
    {"*.jsp=S1 /a/*.jsp=S2", "/a/x.jsp=S2"},
    {"/a/*=P1 /a/b/*=P2", "/a/b/c=P2 /a/bc=P1 /ab=null"},
    {"*.jsp=S1 /a/*=P /a/b/*.jsp=S2", "/a/b/x.jsp=S2 /a/c.jsp=P"},
    // The longest fitting suffix at a node.
    {"/a/*.jsp=S1 /a/*x.jsp=S2", "/a/fx.jsp=S2 /a/f.jsp=S1"},
    // No backtracking: a sibling's partial match ends the walk, keeping what was found above.
    {"/a/*=P /abc/x=E", "/abd=null"},
    {"/*=Root /abc/*=P", "/abd=Root"},
    // Exact needs the whole URI; URIs compare case-sensitively.
    {"/a/b=E /A/*=P", "/a/b/c=null /a/x=null"},
    // A missing leading "/" is added, to patterns and URIs alike; "" and "//" reach no node.
    {"/a/*=P *.jsp=S", "a/x=P a=P x.jsp=S //a/x=null /=null"},
    {"/*=P", "=null"},
    {"*=All", "/x/y.z=All"},
    {"A=E A*=P", "AB=P"},
    // Companions: a prefix answers its bare path and trailing slash (the root's "/" too, before
    // a suffix there); an exact pattern without a dot answers its trailing slash, and one with a
    // trailing slash its bare path.
    {"/a/*=T", "/a=T /a/=T /a/x/y=T"},
    {"/*=P */=S", "/=P /a/=S"},
    {"/a=T /b.html=H /c/=C", "/a/=T /b.html=H /b.html/=null /c=C /c/=C"},
    // A user pattern takes over a companion, in either order; the first of two user patterns stays.
    {"/A=bare /A/=slash", "/A/=slash /A=bare"},
    {"/A/=slash /A=bare", "/A/=slash /A=bare"},
    {"/x=1 /x=2 /p/*=1 /p/*=2 *.jsp=1 *.jsp=2", "/x=1 /p/q=1 /q.jsp=1"},
    // An exact pattern's companion outranks a prefix's, in either order.
    {"/a/*=prefix /a/=exact", "/a=exact /a/=exact /a/x=prefix"},
    {"/a/=exact /a/*=prefix", "/a=exact /a/=exact"},
    // A null suffix target is filled by a later registration; null exact and prefix targets and
    // invalid patterns match nothing.
    {"*.jsp= *.jsp=S /a/*= /b= /c/*/d/*=T **=T =T",
     "/x.jsp=S /a/x=null /b=null /c/x/d/y=null /q=null"},
    // The generic tree is asked first; only the default module on "/*" becomes the catch-all.
    {"/a/*=real /a/*=genAppOne /b/*=realB", "/a/x=genAppOne /b/x=realB"},
    {"/x/*=genApp_Default_default_host_HTTP_WC /*=genAppOther",
     "/x/y=genApp_Default_default_host_HTTP_WC /z=genAppOther =null"},
    // The catch-all is kept outside the trees, so even "" reaches it.
    {"/a/*=P /*=genApp_Default_default_host_HTTP_WC", "=genApp_Default_default_host_HTTP_WC"},
    // Splitting nodes keeps every pattern reachable and invents none.
    {"/abcdef=1 /abcxyz=2 /abc=3 /ab=4 /abcdeg=5 /abq/r=6",
     "/abcdef=1 /abcxyz=2 /abc=3 /ab=4 /abcdeg=5 /abq/r=6 /abcde=null /a=null"},
    // Bytes outside ASCII are ordinary characters.
    {"/caf\xc3\xa9/*=utf8 /\xff\xfe/x=raw *.\xe2\x82\xac=euro",
     "/caf\xc3\xa9/menu=utf8 /caf\xc3\xa8/menu=null /\xff\xfe/x=raw /\xff\xfe/y=null "
     "/price.\xe2\x82\xac=euro /\x80=null"},
};

TEST_F(URIMatcherTest, MatchesTheTargetThePrecedenceRulesChoose) {
  for (const MatchCase& c : kMatchCases) {
    SCOPED_TRACE(c.patterns);
    kyr::URIMatcherDelete(matcher_);
    matcher_ = kyr::URIMatcherCreate(&ri_, "table");
    put(c.patterns);
    std::istringstream uris(c.uris);
    for (std::string item; uris >> item;) {
      size_t eq = item.rfind('=');
      EXPECT_EQ(match(item.substr(0, eq).c_str()), item.substr(eq + 1)) << item << "\n" << dump();
    }
  }
  EXPECT_EQ(text(kyr::URIMatcherMatch(matcher_, nullptr, nullptr)), "null");
}

// The operator learns of ignored patterns and targets from the mapping trace.
TEST_F(URIMatcherTest, IgnoredPatternsAndNullTargetsAreTraced) {
  traceMapping();
  put("/a/*/b/*=T /n/*=");
  kyr::URIMatcherPut(matcher_, nullptr, target("T"), false);
  EXPECT_TRUE(printedContains("put: Invalid pattern String:/a/*/b/* has been ignored."));
  EXPECT_TRUE(printedContains("putPatternInternal: Illegal State : NOT_EXACT_PREFIX_SUFFIX."));
}

// Deep trees and long keys: nothing on the walk may depend on a fixed-size buffer or recursion.
TEST_F(URIMatcherTest, VeryLongPathsAndPatterns) {
  std::string deep = "/a";
  for (int i = 0; i < 5000; ++i) deep += "/segment" + std::to_string(i);
  std::string prefix = deep + "/*";
  put("/a/*=short " + prefix + "=long *.jsp=S");
  EXPECT_EQ(match((deep + "/x.jsp").c_str()), "long");
  EXPECT_EQ(match((deep.substr(0, deep.size() - 1) + "/x").c_str()), "short");
  std::string huge(200000, 'x');
  EXPECT_EQ(match(("/a/" + huge).c_str()), "short");
  EXPECT_EQ(match(("/" + huge + ".jsp").c_str()), "S");
}

TEST(URIMatcherMakePattern, JoinsWithExactlyOneSlash) {
  struct {
    const char* root;
    const char* uri;
    const char* expected;
  } cases[] = {{"/app", "*.jsp", "/app/*.jsp"},
               {"/app/", "/x", "/app/x"},
               {"/app/", "x", "/app/x"},
               {"/", "*", "/*"},
               {nullptr, "*.jsp", "/*.jsp"},
               {"null", "/x", "/x"},
               {"NuLl", "x", "/x"},
               {"", "", "/"},
               {"/app", nullptr, "/app/"},
               {nullptr, nullptr, "/"},
               {"nullx", "y", "nullx/y"}};
  int before = kyr::kyrGetMemCount();
  for (const auto& c : cases) {
    char* joined = kyr::URIMatcherMakePattern(c.root, c.uri);
    EXPECT_STREQ(joined, c.expected)
        << (c.root ? c.root : "(null)") << " + " << (c.uri ? c.uri : "(null)");
    kyr::kyrFree(joined);
  }
  EXPECT_EQ(kyr::kyrGetMemCount(), before);
}

TEST_F(URIMatcherTest, SelfTestPassesEveryRow) {
  testing::internal::CaptureStdout();
  int failures = kyr::URIMatcherTest(kyr_, 1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(failures, 0) << out;
  EXPECT_NE(out.find("PASS: /a/b/foo.css  matches  ab, expectedoutcome=ab\n"), std::string::npos);
}

}  // namespace
