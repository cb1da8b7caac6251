// A request as kyrroute's user writes it: "METHOD URL", optionally followed by headers, on the
// command line or one per line in a file ("GET https://shop.example.com/cart | Cookie: a=b").
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kyrroute {

struct Request {
  std::string method;
  std::string protocol;  // "http" or "https"
  std::string host;
  int port = 0;
  std::string path;   // with any ";param" part, without the query
  std::string query;  // without "?"
  std::vector<std::pair<std::string, std::string>> headers;
  std::map<std::string, std::string> cookies;  // from the Cookie headers
  std::string text;                            // as written, for reports
};

// A request from its parts; the error names what is wrong.
std::optional<Request> makeRequest(const std::string& method, const std::string& url,
                                   const std::vector<std::string>& headers, std::string& error);
// A request from one line of a request file: "METHOD URL [| Name: value]...".
std::optional<Request> parseRequestLine(const std::string& line, std::string& error);

}  // namespace kyrroute
