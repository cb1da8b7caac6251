// Parsing the requests kyrroute routes: URLs into protocol, host, port, path and query, header
// lines into name and value, the Cookie header into cookies, and the simulated service times.
#include "request.h"

#include <cctype>
#include <sstream>
#include <utility>

namespace kyrroute {
namespace {

std::string trim(const std::string& s) {
  size_t begin = s.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  size_t end = s.find_last_not_of(" \t\r");
  return s.substr(begin, end - begin + 1);
}

bool parseUrl(const std::string& url, Request& r, std::string& error) {
  size_t scheme = url.find("://");
  if (scheme == std::string::npos) {
    error = "URL '" + url + "' has no scheme (expected http:// or https://)";
    return false;
  }
  r.protocol = url.substr(0, scheme);
  for (char& c : r.protocol) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (r.protocol != "http" && r.protocol != "https") {
    error = "URL '" + url + "' is neither http nor https";
    return false;
  }
  std::string rest = url.substr(scheme + 3);
  size_t slash = rest.find('/');
  std::string authority = slash == std::string::npos ? rest : rest.substr(0, slash);
  std::string target = slash == std::string::npos ? "/" : rest.substr(slash);
  size_t colon = authority.rfind(':');
  r.port = r.protocol == "https" ? 443 : 80;
  if (colon != std::string::npos) {
    std::string port = authority.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535) {
      error = "URL '" + url + "' has a bad port '" + port + "'";
      return false;
    }
    r.port = std::stoi(port);
    authority = authority.substr(0, colon);
  }
  if (authority.empty()) {
    error = "URL '" + url + "' has no host";
    return false;
  }
  r.host = authority;
  size_t question = target.find('?');
  r.path = target.substr(0, question);
  if (question != std::string::npos) r.query = target.substr(question + 1);
  return true;
}

void addCookies(Request& r, const std::string& value) {
  std::stringstream pieces(value);
  std::string piece;
  while (std::getline(pieces, piece, ';')) {
    size_t equals = piece.find('=');
    if (equals == std::string::npos) continue;
    r.cookies[trim(piece.substr(0, equals))] = trim(piece.substr(equals + 1));
  }
}

bool addHeader(Request& r, const std::string& header, std::string& error) {
  size_t colon = header.find(':');
  std::string name = colon == std::string::npos ? "" : trim(header.substr(0, colon));
  if (name.empty()) {
    error = "header '" + header + "' is not 'Name: value'";
    return false;
  }
  std::string value = trim(header.substr(colon + 1));
  r.headers.emplace_back(name, value);
  if (name == "Cookie" || name == "cookie") addCookies(r, value);
  return true;
}

}  // namespace

int ServiceTimes::forServer(const std::string& name) const {
  auto found = serverMs.find(name);
  if (found == serverMs.end()) found = serverMs.find(name.substr(name.rfind('/') + 1));
  return found != serverMs.end() ? found->second : everyMs;
}

bool setServiceTime(ServiceTimes& times, const std::string& text, std::string& error) {
  size_t equals = text.rfind('=');
  std::string server = equals == std::string::npos ? "" : trim(text.substr(0, equals));
  std::string ms = trim(equals == std::string::npos ? text : text.substr(equals + 1));
  // An hour is far beyond any time-out a server is given; longer is a typing error.
  if (ms.empty() || ms.size() > 7 || ms.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(ms) > 3600000 || (equals != std::string::npos && server.empty())) {
    error = "service time '" + text + "' is not '[SERVER=]MS' (milliseconds, at most 3600000)";
    return false;
  }
  (server.empty() ? times.everyMs : times.serverMs[server]) = std::stoi(ms);
  return true;
}

std::optional<Request> makeRequest(const std::string& method, const std::string& url,
                                   const std::vector<std::string>& headers, std::string& error) {
  Request r;
  r.method = method;
  if (method.empty() ||
      method.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") != std::string::npos) {
    error = "method '" + method + "' is not an HTTP method in capitals";
    return std::nullopt;
  }
  if (!parseUrl(url, r, error)) return std::nullopt;
  for (const std::string& h : headers) {
    if (!addHeader(r, h, error)) return std::nullopt;
  }
  r.text = method + " " + url;
  return r;
}

std::optional<Request> parseRequestLine(const std::string& line, std::string& error) {
  std::vector<std::string> parts;
  std::stringstream fields(line);
  std::string field;
  while (std::getline(fields, field, '|')) parts.push_back(trim(field));
  std::stringstream head(parts.empty() ? "" : parts[0]);
  std::string method, url, extra;
  head >> method >> url >> extra;
  if (url.empty() || !extra.empty()) {
    error = "request line '" + line + "' is not 'METHOD URL [| Name: value]...'";
    return std::nullopt;
  }
  return makeRequest(method, url, std::vector<std::string>(parts.begin() + 1, parts.end()), error);
}

bool readRequestLine(const std::string& line, ServiceTimes& times, std::vector<Request>& requests,
                     std::string& error) {
  std::string text = trim(line);
  if (text.empty() || text[0] == '#') return true;
  static const std::string kServiceTime = "service-time";
  // Methods are written in capitals, so this word never begins a request.
  if (text.rfind(kServiceTime, 0) == 0 &&
      (text.size() == kServiceTime.size() || text[kServiceTime.size()] == ' ' ||
       text[kServiceTime.size()] == '\t')) {
    return setServiceTime(times, trim(text.substr(kServiceTime.size())), error);
  }
  auto r = parseRequestLine(text, error);
  if (!r) return false;
  r->serviceTimes = times;
  requests.push_back(std::move(*r));
  return true;
}

}  // namespace kyrroute
