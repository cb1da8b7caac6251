// URL splitting: default ports, port text rules, paths and refusals; every parse also checks
// that deleting the URL balances the memory counter.
#include "runtime/kyrUrl.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct Parts {
  std::string protocol, host;
  int port;
  std::string path;
  bool operator==(const Parts&) const = default;
};

void PrintTo(const Parts& p, std::ostream* os) {
  *os << p.protocol << "|" << p.host << "|" << p.port << "|" << p.path;
}

// Parses, copies the parts out and deletes; the memory counter must balance.
Parts parse(const char* text) {
  int before = kyrGetMemCount();
  KyrUrl* url = kyrUrlCreate(text);
  if (url == nullptr) return {"(null)", "", 0, ""};
  Parts parts{kyrUrlGetProtocol(url), kyrUrlGetHost(url), kyrUrlGetPort(url), kyrUrlGetPath(url)};
  kyrUrlDelete(url);
  EXPECT_EQ(kyrGetMemCount(), before) << text;
  return parts;
}

const Parts kFailed{"(null)", "", 0, ""};

TEST(Url, DefaultPortsAndPath) {
  EXPECT_EQ(parse("https://h/x"), (Parts{"https", "h", 443, "/x"}));
  EXPECT_EQ(parse("http://pub.example.com"), (Parts{"http", "pub.example.com", 80, "/"}));
  EXPECT_EQ(parse("http://h:9080/a/b?q=1"), (Parts{"http", "h", 9080, "/a/b?q=1"}));
}

TEST(Url, PortTextRules) {
  EXPECT_EQ(parse("http://h:8x/p").port, -1);
  EXPECT_EQ(parse("http://h:/p"), (Parts{"http", "h", 0, "/p"}));
  EXPECT_EQ(parse("ftp://h:21"), (Parts{"ftp", "h", 21, "/"}));
  EXPECT_EQ(parse("http://h:1:2/p"), (Parts{"http", "h", 2, "/p"}));  // last ":" wins
  EXPECT_EQ(parse("http://h/p:80"), (Parts{"http", "h", 80, "/p:80"}));
}

TEST(Url, RefusesMissingSeparatorAndUnknownProtocolWithoutPort) {
  EXPECT_EQ(parse("ftp://h/x"), kFailed);
  EXPECT_EQ(parse("h:80/x"), kFailed);
  EXPECT_EQ(parse(nullptr), kFailed);
}

}  // namespace
}  // namespace kyr
