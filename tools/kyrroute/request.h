// A request as kyrroute's user writes it: "METHOD URL", optionally followed by headers, on the
// command line or one per line in a file ("GET https://shop.example.com/cart | Cookie: a=b"),
// and how long the server it goes to takes to answer.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kyrroute {

// How long the simulated servers take to answer, in milliseconds: one time for every server,
// and times for single servers, named in full or by the last part of the name ("s1").
struct ServiceTimes {
  int everyMs = 0;
  std::map<std::string, int> serverMs;
  int forServer(const std::string& name) const;
};

// Applies "[SERVER=]MS" to `times`; false with `error` set when the text is not that.
bool setServiceTime(ServiceTimes& times, const std::string& text, std::string& error);

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
  ServiceTimes serviceTimes;                   // in effect where the request was given
};

// A request from its parts; the error names what is wrong.
std::optional<Request> makeRequest(const std::string& method, const std::string& url,
                                   const std::vector<std::string>& headers, std::string& error);
// A request from one line of a request file: "METHOD URL [| Name: value]...".
std::optional<Request> parseRequestLine(const std::string& line, std::string& error);
// One line of a request file: blank lines and "#" comments are passed over, a request is added
// to `requests` with the current `times`, and "service-time [SERVER=]MS" changes `times` for the
// requests that follow. false with `error` set for a line that is none of these.
bool readRequestLine(const std::string& line, ServiceTimes& times, std::vector<Request>& requests,
                     std::string& error);

}  // namespace kyrroute
