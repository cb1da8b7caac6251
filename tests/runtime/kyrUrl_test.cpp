// URL splitting: default ports, port text rules, paths and refusals; every parse also checks
// that deleting the URL balances the memory counter.
#include "runtime/kyrUrl.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

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

TEST(Url, SplitsIntoTheseParts) {
  const Parts failed{"(null)", "", 0, ""};
  const std::pair<const char*, Parts> rows[] = {
      {"https://h/x", {"https", "h", 443, "/x"}},
      {"http://pub.example.com", {"http", "pub.example.com", 80, "/"}},
      {"http://h:9080/a/b?q=1", {"http", "h", 9080, "/a/b?q=1"}},
      {"http://h:8x/p", {"http", "h", -1, "/p"}},
      {"http://h:/p", {"http", "h", 0, "/p"}},
      {"ftp://h:21", {"ftp", "h", 21, "/"}},
      {"http://h:1:2/p", {"http", "h", 2, "/p"}},  // the last ":" wins
      {"http://h/p:80", {"http", "h", 80, "/p:80"}},
      {"ftp://h/x", failed},  // no default port for an unknown protocol
      {"h:80/x", failed},
      {nullptr, failed},
  };
  for (const auto& [text, parts] : rows) EXPECT_EQ(parse(text), parts) << (text ? text : "null");
}

}  // namespace
}  // namespace kyr
