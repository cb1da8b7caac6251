// The URI matcher's built-in self-test: fixed rows of patterns with string targets, each
// checked against URIs whose outcome follows from the matching precedence. Operators run it to
// check a build on the spot; the unit tests run it too.
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/kyrRoutingInfo.h"
#include "mapping/URIMatcher.h"

namespace kyr {

namespace {

struct Registration {
  const char* pattern;
  const char* target;
};

struct Expectation {
  const char* uri;
  const char* target;  // null: no match
};

struct Row {
  std::vector<Registration> registrations;
  std::vector<Expectation> expectations;
};

// Each target is named after what it stands for, so a FAIL line reads on its own.
const std::vector<Row>& rows() {
  static const std::vector<Row> table = {
      // A pattern without "/" gains one; a prefix also answers the bare path.
      {{{"A", "exactA"}, {"A*", "prefixA"}},
       {{"A", "exactA"}, {"AB", "prefixA"}, {"/A/", "exactA"}}},
      // Two user patterns for one URI: the first stays; a user pattern beats a companion.
      {{{"A/", "exactASlash"}, {"/A", "exactA"}, {"/A/", "secondASlash"}},
       {{"/A", "exactA"}, {"/A/", "exactASlash"}}},
      {{{"/A", "exactA"}, {"/A/", "exactASlash"}}, {{"/A/", "exactASlash"}, {"/A", "exactA"}}},
      {{{"/A/", "exactASlash"}, {"/A", "exactA"}}, {{"/A/", "exactASlash"}, {"/A", "exactA"}}},
      // An exact pattern beats the prefix of its own parent path.
      {{{"AB", "exactAB"}, {"A*", "prefixA"}},
       {{"AB", "exactAB"}, {"ABC", "prefixA"}, {"/A", "prefixA"}}},
      // A deeper prefix beats a shallower suffix.
      {{{"/trade/servlet/*", "trade"}, {"*.jsp", "jsp"}},
       {{"/trade/servlet/FooServlet", "trade"},
        {"/trade/servlet/x.jsp", "trade"},
        {"/index.jsp", "jsp"}}},
      {{{"/foo/bar/*", "fooBar"}, {"*.jsp", "jsp"}},
       {{"/foo/bar/index.jsp", "fooBar"}, {"/foo/index.jsp", "jsp"}}},
      // The deepest prefix wins; a sibling that only starts like a pattern matches nothing.
      {{{"/a/b/*", "ab"}, {"/a/*", "a"}},
       {{"/a/b/foo.css", "ab"},
        {"/a/foo.css", "a"},
        {"/a", "a"},
        {"/a/b", "ab"},
        {"/ab", nullptr}}},
      {{{"/veApp1/*", "veApp1"}},
       {{"/veApp1", "veApp1"}, {"/veApp1/x", "veApp1"}, {"/veApp10", nullptr}}},
      // A generic application's default module on "/*" takes what nothing else takes.
      {{{"/*", "genApp_Default_default_host_HTTP_WC"}, {"/real/*", "real"}},
       {{"/real/x", "real"}, {"/other", "genApp_Default_default_host_HTTP_WC"}}},
  };
  return table;
}

const char* text(const void* target) {
  return target != nullptr ? static_cast<const char*>(target) : "null";
}

}  // namespace

int URIMatcherTest(Kyr* kyr, int traceLevel) {
  KyrRoutingInfo ri{};
  ri.kyr = kyr;
  int passed = 0;
  int failed = 0;
  for (const Row& row : rows()) {
    URIMatcher* matcher = URIMatcherCreate(&ri, "URIMatcherTest");
    for (const Registration& reg : row.registrations) {
      URIMatcherPut(matcher, reg.pattern, const_cast<char*>(reg.target), false);
    }
    URIMatcherPublish(matcher);
    for (const Expectation& expect : row.expectations) {
      const void* got = URIMatcherMatch(matcher, expect.uri, nullptr);
      if (strcmp(text(got), text(expect.target)) == 0) {
        ++passed;
        if (traceLevel > 0) {
          printf("PASS: %s  matches  %s, expectedoutcome=%s\n", expect.uri, text(got),
                 text(expect.target));
        }
      } else {
        ++failed;
        printf("FAIL: %s  matches  %s, should have matched %s\n", expect.uri, text(got),
               text(expect.target));
      }
    }
    URIMatcherDelete(matcher);
  }
  printf("URIMatcherTest: %d passed, %d failed\n", passed, failed);
  return failed;
}

}  // namespace kyr
