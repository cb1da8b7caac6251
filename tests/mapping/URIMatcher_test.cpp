// The URI pattern matcher: precedence between exact, prefix and suffix patterns along a URI,
// companion registrations and their origins, the generic tree and the catch-all, node
// splitting (seen through the dump), bad input, joining context roots, and the self-test.
#include "mapping/URIMatcher.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "mappingTestUtil.h"
#include "runtime/kyrStringBuffer.h"

namespace {

using kyrtest::printed;
using kyrtest::target;
using kyrtest::text;
using Patterns = std::vector<std::pair<const char*, const char*>>;

class URIMatcherTest : public kyrtest::MappingTest {
 protected:
  void TearDown() override {
    kyr::URIMatcherDelete(matcher_);
    MappingTest::TearDown();
  }

  void put(const Patterns& patterns) {
    for (const auto& [pattern, name] : patterns) {
      kyr::URIMatcherPut(matcher_, pattern, name != nullptr ? target(name) : nullptr, false);
    }
  }

  std::string match(const char* uri) { return text(kyr::URIMatcherMatch(matcher_, uri, nullptr)); }

  std::string dump() {
    kyr::KyrStringBuffer* sb = kyr::sbCreate(16);
    kyr::URIMatcherAddInfo(matcher_, sb);
    std::string out = kyr::sbStr(sb);
    kyr::sbDelete(sb);
    return out;
  }

  void SetUp() override {
    MappingTest::SetUp();
    matcher_ = kyr::URIMatcherCreate(&ri_, "test");
  }

  kyr::URIMatcher* matcher_ = nullptr;
};

struct PrecedenceCase {
  const char* what;
  Patterns patterns;
  const char* uri;
  const char* expected;  // "null": no match
};

// Failure messages name the case instead of dumping its bytes.
void PrintTo(const PrecedenceCase& c, std::ostream* os) { *os << c.what; }

class URIMatcherPrecedence : public URIMatcherTest,
                             public ::testing::WithParamInterface<PrecedenceCase> {};

TEST_P(URIMatcherPrecedence, MatchesTheTargetThePrecedenceRulesChoose) {
  put(GetParam().patterns);
  EXPECT_EQ(match(GetParam().uri), GetParam().expected) << GetParam().what << "\n" << dump();
}

const Patterns kNodeMix = {{"/a/x.jsp", "E"}, {"/a/*", "P"}, {"/a/*.jsp", "S"}};

INSTANTIATE_TEST_SUITE_P(
    Table, URIMatcherPrecedence,
    ::testing::Values(
        PrecedenceCase{"exact beats the suffix and prefix of its parent", kNodeMix, "/a/x.jsp",
                       "E"},
        PrecedenceCase{"a suffix at a node beats that node's prefix", kNodeMix, "/a/y.jsp", "S"},
        PrecedenceCase{"the prefix when no suffix fits", kNodeMix, "/a/y.css", "P"},
        PrecedenceCase{"deeper prefix beats shallower suffix",
                       {{"*.jsp", "S"}, {"/a/*", "P"}},
                       "/a/x.jsp",
                       "P"},
        PrecedenceCase{"the shallower suffix where no prefix lies deeper",
                       {{"*.jsp", "S"}, {"/a/*", "P"}},
                       "/b/x.jsp",
                       "S"},
        PrecedenceCase{"deeper suffix clears shallower prefix",
                       {{"/a/*", "P"}, {"/a/b/*.jsp", "S"}},
                       "/a/b/x.jsp",
                       "S"},
        PrecedenceCase{"a deeper node without a fitting suffix keeps the prefix",
                       {{"/a/*", "P"}, {"/a/b/*.jsp", "S"}},
                       "/a/b/x.css",
                       "P"},
        PrecedenceCase{"deeper suffix beats shallower suffix",
                       {{"*.jsp", "S1"}, {"/a/*.jsp", "S2"}},
                       "/a/x.jsp",
                       "S2"},
        PrecedenceCase{"the longest suffix at a node",
                       {{"/a/*.jsp", "S1"}, {"/a/*x.jsp", "S2"}},
                       "/a/fx.jsp",
                       "S2"},
        PrecedenceCase{"a shorter suffix when the longer does not fit",
                       {{"/a/*.jsp", "S1"}, {"/a/*x.jsp", "S2"}},
                       "/a/f.jsp",
                       "S1"},
        PrecedenceCase{"deeper prefix beats shallower prefix",
                       {{"/a/*", "P1"}, {"/a/b/*", "P2"}},
                       "/a/b/c",
                       "P2"},
        PrecedenceCase{"a path that only starts like the deeper prefix keeps the shallower",
                       {{"/a/*", "P1"}, {"/a/b/*", "P2"}},
                       "/a/bc",
                       "P1"},
        PrecedenceCase{"suffix, deeper prefix, deeper suffix: the last wins",
                       {{"*.jsp", "S1"}, {"/a/*", "P"}, {"/a/b/*.jsp", "S2"}},
                       "/a/b/x.jsp",
                       "S2"},
        PrecedenceCase{"suffix, deeper prefix: the prefix",
                       {{"*.jsp", "S1"}, {"/a/*", "P"}, {"/a/b/*.jsp", "S2"}},
                       "/a/c.jsp",
                       "P"},
        PrecedenceCase{"no backtracking: a sibling's partial match ends the walk",
                       {{"/a/*", "P"}, {"/abc/x", "E"}},
                       "/abd",
                       "null"},
        PrecedenceCase{"candidates found above a partial match stay",
                       {{"/*", "Root"}, {"/abc/*", "P"}},
                       "/abd",
                       "Root"},
        PrecedenceCase{
            "a bare path below a prefix node is not under it", {{"/a/*", "P"}}, "/ab", "null"},
        PrecedenceCase{"an exact pattern needs the whole URI", {{"/a/b", "E"}}, "/a/b/c", "null"},
        PrecedenceCase{"URIs compare case-sensitively", {{"/A/*", "P"}}, "/a/x", "null"},
        PrecedenceCase{"a URI without \"/\" gains one", {{"/a/*", "P"}}, "a/x", "P"},
        PrecedenceCase{"the empty URI reaches no node", {{"/*", "P"}}, "", "null"},
        PrecedenceCase{"\"*\" alone is a prefix on \"/\"", {{"*", "All"}}, "/x/y.z", "All"},
        PrecedenceCase{"\"A\" and \"A*\" are stored as \"/A\" and \"/A*\"",
                       {{"A", "E"}, {"A*", "P"}},
                       "AB",
                       "P"}),
    [](const ::testing::TestParamInfo<PrecedenceCase>& info) {
      return "Case" + std::to_string(info.index);
    });

// ---- Companion registrations ------------------------------------------------------------------

TEST_F(URIMatcherTest, PrefixPatternAlsoAnswersItsBarePathAndTrailingSlash) {
  put({{"/a/*", "T"}});
  EXPECT_EQ(match("/a"), "T");
  EXPECT_EQ(match("/a/"), "T");
  EXPECT_EQ(match("/a/x/y"), "T");
  EXPECT_EQ(match("/ab"), "null");
}

TEST_F(URIMatcherTest, ExactPatternWithoutDotAlsoAnswersTrailingSlash) {
  put({{"/a", "T"}, {"/b.html", "H"}, {"/c/", "C"}});
  EXPECT_EQ(match("/a/"), "T");
  EXPECT_EQ(match("/b.html"), "H");
  EXPECT_EQ(match("/b.html/"), "null");
  EXPECT_EQ(match("/c"), "C");  // a trailing "/" registers the bare path
  EXPECT_EQ(match("/c/"), "C");
}

TEST_F(URIMatcherTest, UserPatternTakesOverACompanionInEitherOrder) {
  put({{"/A", "bare"}, {"/A/", "slash"}});
  EXPECT_EQ(match("/A/"), "slash");
  EXPECT_EQ(match("/A"), "bare");

  kyr::URIMatcherDelete(matcher_);
  matcher_ = kyr::URIMatcherCreate(&ri_, "reverse");
  put({{"/A/", "slash"}, {"/A", "bare"}});
  EXPECT_EQ(match("/A/"), "slash");
  EXPECT_EQ(match("/A"), "bare");
}

TEST_F(URIMatcherTest, FirstOfTwoUserPatternsStays) {
  put({{"/x", "first"},
       {"/x", "second"},
       {"/p/*", "first"},
       {"/p/*", "second"},
       {"*.jsp", "first"},
       {"*.jsp", "second"}});
  EXPECT_EQ(match("/x"), "first");
  EXPECT_EQ(match("/p/q"), "first");
  EXPECT_EQ(match("/q.jsp"), "first");
}

TEST_F(URIMatcherTest, CompanionOfAnExactPatternOutranksCompanionOfAPrefix) {
  // "/a/*" makes "/a" with ORIGIN_AUTO; "/a/" makes "/a" with ORIGIN_AUTO_EXACT.
  put({{"/a/*", "prefix"}, {"/a/", "exact"}});
  EXPECT_EQ(match("/a"), "exact");
  EXPECT_EQ(match("/a/"), "exact");
  EXPECT_EQ(match("/a/x"), "prefix");

  kyr::URIMatcherDelete(matcher_);
  matcher_ = kyr::URIMatcherCreate(&ri_, "reverse");
  put({{"/a/", "exact"}, {"/a/*", "prefix"}});
  EXPECT_EQ(match("/a"), "exact");
  EXPECT_EQ(match("/a/"), "exact");
}

TEST_F(URIMatcherTest, NullSuffixTargetIsFilledByALaterRegistration) {
  put({{"*.jsp", nullptr}, {"*.jsp", "S"}});
  EXPECT_EQ(match("/x.jsp"), "S");
}

TEST_F(URIMatcherTest, NullExactOrPrefixTargetBuildsPathsButAttachesNothing) {
  traceMapping();
  put({{"/a/*", nullptr}, {"/b", nullptr}});
  EXPECT_EQ(match("/a/x"), "null");
  EXPECT_EQ(match("/b"), "null");
  EXPECT_EQ(dump(),
            "\ngenAppTree:\nrealAppTree:\n  chars='/'\n    chars='a'\n      chars='/'"
            "\n    chars='b'\n      chars='/'");
  EXPECT_TRUE(printedContains("putPatternInternal: Illegal State : NOT_EXACT_PREFIX_SUFFIX."));
}

// ---- Trees and the catch-all -------------------------------------------------------------------

TEST_F(URIMatcherTest, GenericTreeIsConsultedBeforeTheRealOne) {
  put({{"/a/*", "real"}, {"/a/*", "genAppOne"}, {"/b/*", "realB"}});
  EXPECT_EQ(match("/a/x"), "genAppOne");
  EXPECT_EQ(match("/b/x"), "realB");
}

TEST_F(URIMatcherTest, GenericDefaultModuleOnRootBecomesTheCatchAll) {
  traceMapping();
  put({{"/*", "genApp_Default_default_host_HTTP_WC"}, {"/a/*", "real"}});
  EXPECT_TRUE(printedContains("put: Destined for catchAllTarget."));
  EXPECT_EQ(match("/a/x"), "real");
  EXPECT_EQ(match("/elsewhere"), "genApp_Default_default_host_HTTP_WC");
  EXPECT_EQ(match(""), "genApp_Default_default_host_HTTP_WC");  // reaches no tree node
  EXPECT_EQ(dump(),
            "\ngenAppTree:\nrealAppTree:\n  chars='/a' exact=real\n    chars='/' "
            "exact=real prefix=real");
}

TEST_F(URIMatcherTest, CatchAllNeedsRootPatternAndDefaultName) {
  put({{"/x/*", "genApp_Default_default_host_HTTP_WC"}, {"/*", "genAppOther"}});
  EXPECT_EQ(match("/x/y"), "genApp_Default_default_host_HTTP_WC");
  EXPECT_EQ(match("/z"), "genAppOther");  // in the generic tree, not the catch-all
  EXPECT_EQ(match(""), "null");
}

// ---- Structure ---------------------------------------------------------------------------------

TEST_F(URIMatcherTest, DumpShowsSplitNodesDepthFirstWithTheirTargets) {
  put({{"/a/*", "P"}, {"*.jsp", "S"}, {"/ab", "E"}});
  EXPECT_EQ(dump(),
            "\ngenAppTree:"
            "\nrealAppTree:"
            "\n  chars='/' suffixes=(.jsp->S)"
            "\n    chars='a' exact=P"
            "\n      chars='/' exact=P prefix=P"
            "\n      chars='b' exact=E"
            "\n        chars='/' exact=E");
}

TEST_F(URIMatcherTest, DumpListsSeveralSuffixesInOrder) {
  put({{"/s/*.jsp", "J"}, {"/s/*.css", "C"}});
  EXPECT_EQ(dump(), "\ngenAppTree:\nrealAppTree:\n  chars='/s/' suffixes=(.jsp->J,.css->C)");
}

TEST_F(URIMatcherTest, SplittingKeepsEveryPatternReachable) {
  const char* paths[] = {"/abcdef", "/abcxyz", "/abc", "/ab", "/abcdeg", "/b", "/abq/r"};
  for (const char* p : paths) kyr::URIMatcherPut(matcher_, p, target(p), false);
  for (const char* p : paths) EXPECT_EQ(match(p), p);
  EXPECT_EQ(match("/abcde"), "null");
  EXPECT_EQ(match("/a"), "null");
}

// ---- Bad input ---------------------------------------------------------------------------------

TEST_F(URIMatcherTest, InvalidPatternsAreIgnoredWithATrace) {
  traceMapping();
  kyr::URIMatcherPut(matcher_, "/a/*/b/*", target("T"), false);
  kyr::URIMatcherPut(matcher_, "**", target("T"), false);
  kyr::URIMatcherPut(matcher_, "", target("T"), false);
  kyr::URIMatcherPut(matcher_, nullptr, target("T"), false);
  EXPECT_EQ(dump(), "\ngenAppTree:\nrealAppTree:");
  EXPECT_TRUE(printedContains("put: Invalid pattern String:/a/*/b/* has been ignored."));
  EXPECT_TRUE(printedContains("put: Invalid pattern String:** has been ignored."));
  EXPECT_TRUE(printedContains("put: Invalid pattern String: has been ignored."));
  EXPECT_EQ(match("/a/x/b/y"), "null");
}

TEST_F(URIMatcherTest, OddUrisMatchAsAnyOtherOrNotAtAll) {
  put({{"/a/*", "P"}, {"*.jsp", "S"}});
  EXPECT_EQ(text(kyr::URIMatcherMatch(matcher_, nullptr, nullptr)), "null");
  EXPECT_EQ(match("a"), "P");
  EXPECT_EQ(match("x.jsp"), "S");
  EXPECT_EQ(match("//a/x"), "null");
  EXPECT_EQ(match("/"), "null");
}

TEST_F(URIMatcherTest, VeryLongPathsAndPatterns) {
  std::string deep = "/a";
  for (int i = 0; i < 5000; ++i) deep += "/segment" + std::to_string(i);
  std::string prefix = deep + "/*";
  put({{"/a/*", "short"}, {prefix.c_str(), "long"}, {"*.jsp", "S"}});
  EXPECT_EQ(match((deep + "/x.jsp").c_str()), "long");
  EXPECT_EQ(match((deep.substr(0, deep.size() - 1) + "/x").c_str()), "short");
  std::string huge(200000, 'x');
  EXPECT_EQ(match(("/a/" + huge).c_str()), "short");
  EXPECT_EQ(match(("/" + huge + ".jsp").c_str()), "S");
}

TEST_F(URIMatcherTest, NonAsciiBytesAreOrdinaryCharacters) {
  put({{"/caf\xc3\xa9/*", "utf8"}, {"/\xff\xfe/x", "raw"}, {"*.\xe2\x82\xac", "euro"}});
  EXPECT_EQ(match("/caf\xc3\xa9/menu"), "utf8");
  EXPECT_EQ(match("/caf\xc3\xa8/menu"), "null");
  EXPECT_EQ(match("/\xff\xfe/x"), "raw");
  EXPECT_EQ(match("/\xff\xfe/y"), "null");
  EXPECT_EQ(match("/price.\xe2\x82\xac"), "euro");
  EXPECT_EQ(match("/\x80"), "null");
}

// ---- Joining context roots and patterns ---------------------------------------------------------

TEST(URIMatcherMakePattern, JoinsWithExactlyOneSlash) {
  struct Case {
    const char* root;
    const char* uri;
    const char* expected;
  };
  const Case cases[] = {
      {"/app", "*.jsp", "/app/*.jsp"},
      {"/app", "/x", "/app/x"},
      {"/app/", "/x", "/app/x"},
      {"/app/", "x", "/app/x"},
      {"/", "/x", "/x"},
      {"/", "*", "/*"},
      {nullptr, "*.jsp", "/*.jsp"},
      {"null", "/x", "/x"},
      {"NuLl", "x", "/x"},
      {"", "", "/"},
      {"/app", nullptr, "/app/"},
      {nullptr, nullptr, "/"},
      {"nullx", "y", "nullx/y"},
  };
  int before = kyr::kyrGetMemCount();
  for (const Case& c : cases) {
    char* joined = kyr::URIMatcherMakePattern(c.root, c.uri);
    EXPECT_STREQ(joined, c.expected)
        << (c.root ? c.root : "(null)") << " + " << (c.uri ? c.uri : "(null)");
    kyr::kyrFree(joined);
  }
  EXPECT_EQ(kyr::kyrGetMemCount(), before);
}

// ---- The built-in self-test
// ----------------------------------------------------------------------

TEST_F(URIMatcherTest, SelfTestPassesEveryRow) {
  testing::internal::CaptureStdout();
  int failures = kyr::URIMatcherTest(kyr_, 1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(failures, 0) << out;
  EXPECT_EQ(out.find("FAIL:"), std::string::npos) << out;
  EXPECT_NE(out.find("PASS: /foo/bar/index.jsp  matches  fooBar, expectedoutcome=fooBar\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("PASS: /a/b/foo.css  matches  ab, expectedoutcome=ab\n"), std::string::npos);
  EXPECT_NE(out.find(" 0 failed"), std::string::npos);
}

TEST_F(URIMatcherTest, SelfTestPrintsOnlyTotalsAtLevelZero) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(kyr::URIMatcherTest(kyr_, 0), 0);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.find("PASS:"), std::string::npos);
  EXPECT_NE(out.find("URIMatcherTest: "), std::string::npos);
}

}  // namespace
