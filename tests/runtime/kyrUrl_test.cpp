// URL splitting: one row for each rule of the splitter; every parse, refused ones included, also
// checks that deleting the URL balances the memory counter.
#include "runtime/kyrUrl.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// "protocol|host|port|path", or "(null)" when the text is refused.
std::string parse(const char* text) {
  int before = kyrGetMemCount();
  KyrUrl* url = kyrUrlCreate(text);
  std::string parts = "(null)";
  if (url != nullptr)
    parts = std::string(kyrUrlGetProtocol(url)) + "|" + kyrUrlGetHost(url) + "|" +
            std::to_string(kyrUrlGetPort(url)) + "|" + kyrUrlGetPath(url);
  kyrUrlDelete(url);
  EXPECT_EQ(kyrGetMemCount(), before) << parts;
  return parts;
}

TEST(Url, SplitsIntoTheseParts) {
  const std::pair<const char*, const char*> rows[] = {
      {"https://h/x", "https|h|443|/x"},
      {"http://pub.example.com", "http|pub.example.com|80|/"},
      {"http://h:8x/p", "http|h|-1|/p"},  // port text with a non-digit
      {"http://h:/p", "http|h|0|/p"},
      {"ftp://h:1:2", "ftp|h|2|/"},          // each ":" restarts the port text
      {"http://h/p:80", "http|h|80|/p:80"},  // the path starts at the first "/"
      {"ftp://h/x", "(null)"},               // no default port for an unknown protocol
      {"h:80/x", "(null)"},                  // no protocol
      {nullptr, "(null)"},
  };
  for (const auto& [text, parts] : rows) EXPECT_EQ(parse(text), parts) << (text ? text : "null");
}

}  // namespace
}  // namespace kyr
