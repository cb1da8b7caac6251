// String helpers: the edge rows of each helper and the object-name helpers on routing-model
// names, including "\/" inside values and URI values that hold raw slashes.
#include "runtime/kyrUtil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// Takes ownership of a counted result; "(null)" for null.
std::string take(char* s) {
  std::string out = s != nullptr ? s : "(null)";
  kyrFree(s);
  return out;
}

std::vector<std::string> split(const char* str, const char* delimiter) {
  char** pieces = kyrStrSplit(str, delimiter);
  std::vector<std::string> out;
  for (char** p = pieces; *p != nullptr; ++p) out.emplace_back(*p);
  kyrFreeStrSplitArray(pieces);
  return out;
}

using Pieces = std::vector<std::string>;

TEST(Util, CompareIgnoresCaseAndSortsTheLongerStringAndNullFirst) {
  EXPECT_EQ(kyrStrCmpIgnoreCase("Cell", "cELL"), 0);
  EXPECT_EQ(kyrStrCmpIgnoreCase("abc", "ABD"), -1);
  EXPECT_EQ(kyrStrCmpIgnoreCase("b", "A"), 1);
  EXPECT_EQ(kyrStrCmpIgnoreCase("abc", "ab"), -1);
  EXPECT_EQ(kyrStrCmpIgnoreCase(nullptr, nullptr), 0);
  EXPECT_EQ(kyrStrCmpIgnoreCase(nullptr, "a"), 1);
  EXPECT_EQ(kyrStrCmpIgnoreCase("a", nullptr), -1);
}

TEST(Util, JoinSearchesAndPathNameAtTheirEdges) {
  EXPECT_EQ(take(kyrStrJoin(nullptr, "cd")), "cd");
  EXPECT_EQ(take(kyrStrJoin("ab", nullptr)), "ab");
  EXPECT_EQ(kyrStrJoin(nullptr, nullptr), nullptr);
  EXPECT_EQ(kyrIndexOfString("a/uri/b/uri/", "/uri/"), 1);
  EXPECT_TRUE(kyrStartsWith("abc", "abc"));
  EXPECT_FALSE(kyrStartsWith("ab", "abc"));
  EXPECT_FALSE(kyrStartsWith("a", nullptr));
  char* name = kyrPathToName("/opt/kyr/kyr-trace.xml");  // a plain copy
  EXPECT_STREQ(name, "kyr-trace.xml");
  free(name);
  EXPECT_EQ(kyrPathToName(nullptr), nullptr);
}

TEST(Util, SplitKeepsInnerEmptyPiecesDropsTrailingOneAndFreesEverything) {
  int before = kyrGetMemCount();
  EXPECT_EQ(split("a,,b,", ","), (Pieces{"a", "", "b"}));
  EXPECT_EQ(split("/cell/c1", "/"), (Pieces{"", "cell", "c1"}));
  EXPECT_EQ(split("", ","), Pieces{});
  EXPECT_EQ(split("a::b:c", "::"), (Pieces{"a", "b:c"}));  // the delimiter is a whole string
  EXPECT_EQ(kyrStrSplit(nullptr, ","), nullptr);
  EXPECT_EQ(kyrGetMemCount(), before);
}

TEST(Util, ReplaceStrReleasesWithThePlainReleaseSoTheCounterStaysRaised) {
  int before = kyrGetMemCount();
  char* value = nullptr;
  kyrReplaceStr(&value, "one");
  kyrReplaceStr(&value, "two");
  EXPECT_STREQ(value, "two");
  EXPECT_EQ(kyrGetMemCount(), before + 2);
  kyrReplaceStr(&value, nullptr);
  EXPECT_EQ(value, nullptr);
}

// "parent|URI-aware parent|type|value as is|value unescaped" of an object name.
std::string nameParts(const char* name) {
  return take(kyrGetParentName(name)) + "|" + take(kyrHackGetParentName(name)) + "|" +
         take(kyrNameGetType(name)) + "|" + take(kyrNameGetValue(name, true)) + "|" +
         take(kyrNameGetValue(name, false));
}

TEST(Util, NameHelpersSplitParentTypeAndValue) {
  const std::pair<const char*, const char*> rows[] = {
      {"/cell/c1/node/n1", "/cell/c1|/cell/c1|node|n1|n1"},
      {"/cell/c1", "||cell|c1|c1"},
      {"/cell", "(null)|(null)|(null)|(null)|(null)"},
      // "\/" inside a value is not a separator; unescaping drops every backslash, escaped or not.
      {"/cell/c1/vhost/a\\/b", "/cell/c1|/cell/c1|vhost|a\\/b|a/b"},
      {"/cell/c1/app/x\\\\y\\", "/cell/c1|/cell/c1|app|x\\\\y\\|xy"},
      // Raw slashes in a URI value: only the URI-aware parent keeps them together; type and
      // value always split at the last unescaped pair.
      {"/cell/c1/vhost/v1/uri/shop/*.jsp",
       "/cell/c1/vhost/v1/uri|/cell/c1/vhost/v1|shop|*.jsp|*.jsp"},
      {"/cell/c1/vhost/v1/uri/\\/shop\\/*.jsp",
       "/cell/c1/vhost/v1|/cell/c1/vhost/v1|uri|\\/shop\\/*.jsp|/shop/*.jsp"},
      // "uri" as the name of an object, or as a type above the last pair, is just a name.
      {"/cell/uri/node/n1", "/cell/uri|/cell|node|n1|n1"},
      {"/cell/c1/application/uri", "/cell/c1|/cell/c1|application|uri|uri"},
      {"/cell/c1/application/uri/webModule/m.war/uri/\\/*",
       "/cell/c1/application/uri/webModule/m.war|/cell/c1/application|uri|\\/*|/*"},
  };
  for (const auto& [name, parts] : rows) EXPECT_EQ(nameParts(name), parts) << name;
}

}  // namespace
}  // namespace kyr
