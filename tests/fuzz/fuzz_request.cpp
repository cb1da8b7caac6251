// libFuzzer target for what a request and its response bring from outside: session cookies, a
// path with a ";jsessionid=" parameter, the query string the rules read, the partition table
// and its version in response headers, and Set-Cookie values. An input is lines, one field each
// (an empty or missing line leaves the field unset):
//
//   0 path                        5 Set-Cookie
//   1 query string                6 a second Set-Cookie (seen only by a multi-valued getter)
//   2 cookies, "a=1; b=2"         7 virtual host[:port] (www.example.com:80 when unset)
//   3 "$ZQPT" partition table     8 flags: s https, m multi-valued response header getter,
//   4 "_ZQ_HAPRT_WLMVERSION"        c no cookie setter (cookies go out as Set-Cookie headers),
//                                   f connect failure first, t response time-out first
//
// Each input routes two requests end to end over the cell of tests/data/cell-routing.json with
// a work class of rules on /shop: the second carries the cookies the first response set, so
// that learnt clone IDs and partition tables are used as well as parsed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzzHost.h"
#include "support/testData.h"

namespace {

enum Field {
  kPath,
  kQuery,
  kCookies,
  kPartitionTable,
  kPartitionVersion,
  kSetCookie,
  kSecondSetCookie,
  kVirtualHost,
  kFlags,
  kFieldCount
};

struct Input {
  std::string fields[kFieldCount];
  bool has(Field f) const { return !fields[f].empty(); }
  bool flag(char c) const { return fields[kFlags].find(c) != std::string::npos; }
};

Input parse(std::string_view text) {
  Input in;
  for (int i = 0; i < kFieldCount && !text.empty(); ++i) {
    size_t end = text.find('\n');
    in.fields[i] = std::string(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
  return in;
}

// "a=1; b=2" as a host's cookie parser would hand them over: a piece without "=" is skipped.
void addCookies(std::map<std::string, std::string>& cookies, std::string_view text) {
  while (!text.empty()) {
    size_t end = text.find(';');
    std::string_view piece = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    while (!piece.empty() && piece.front() == ' ') piece.remove_prefix(1);
    size_t eq = piece.find('=');
    if (eq != std::string_view::npos && eq > 0) {
      cookies[std::string(piece.substr(0, eq))] = std::string(piece.substr(eq + 1));
    }
  }
}

// The Set-Cookie values of the response being processed, for the multi-valued getter: the
// getter has no user data and one request is processed at a time.
struct SetCookies {
  std::vector<std::string> values;
  std::vector<char*> array;  // null-terminated, into values
};
SetCookies& setCookies() {
  static SetCookies s;
  return s;
}

char** getResponseHeaderValues(EnvHttpContext*, char* name) {
  if (strcmp(name, "Set-Cookie") != 0) return nullptr;  // the library asks for no other
  SetCookies& s = setCookies();
  s.array.clear();
  for (std::string& v : s.values) s.array.push_back(v.data());
  s.array.push_back(nullptr);
  return s.array.size() > 1 ? s.array.data() : nullptr;
}

void setRequest(EnvHttpContext& r, const Input& in) {
  r.path = in.has(kPath) ? in.fields[kPath] : "/";
  r.queryString = in.fields[kQuery];
  addCookies(r.cookies, in.fields[kCookies]);
  if (in.has(kVirtualHost)) {
    const std::string& hostPort = in.fields[kVirtualHost];
    size_t colon = hostPort.rfind(':');
    r.virtualHost = hostPort.substr(0, colon);
    if (colon != std::string::npos) r.virtualPort = atoi(hostPort.c_str() + colon + 1);
  } else {
    r.virtualHost = "www.example.com";
  }
  r.listeningPort = r.virtualPort;
  r.protocol = in.flag('s') ? "https" : "http";
  if (in.has(kPartitionTable)) r.responseHeaders["$ZQPT"] = in.fields[kPartitionTable];
  if (in.has(kPartitionVersion)) {
    r.responseHeaders["_ZQ_HAPRT_WLMVERSION"] = in.fields[kPartitionVersion];
  }
  if (in.has(kSetCookie)) r.responseHeaders["Set-Cookie"] = in.fields[kSetCookie];
  SetCookies& s = setCookies();
  s.values.clear();
  for (Field f : {kSetCookie, kSecondSetCookie}) {
    if (in.has(f)) s.values.push_back(in.fields[f]);
  }
}

struct Fixture {
  Fixture()
      : cell(kyrtest::readTestData("cell-routing.json")),
        rules(kyrtest::readTestData("request-rules.json", KYR_FUZZ_DATA_DIR)) {
    // Every request's debug lines are formatted, most of them with the fields of the input.
    kyrSetServerCustomProperty(handle.kyr(), "DefaultRequestTraceSpec", ":NOTICE,http:DEBUG");
  }
  kyrfuzz::FuzzHandle handle;
  std::string cell;
  std::string rules;
};

Fixture& fixture() {
  static Fixture f;  // one handle for the whole run; each input resets what requests change
  return f;
}

// Clone IDs learnt from responses live in the model, so it is built anew for each input.
void resetModel(Fixture& f) {
  f.handle.beginInput();
  f.handle.applyKnown(f.cell, 1, "cell-routing.json");
  f.handle.applyKnown(f.rules, 2, "request-rules.json");
}

// "name=value" up to the first ";" of a Set-Cookie value, into cookies.
void keepCookie(std::map<std::string, std::string>& cookies, const std::string& setCookie) {
  addCookies(cookies, std::string_view(setCookie).substr(0, setCookie.find(';')));
}

// One request end to end; a failure flag first reports that failure on the chosen endpoint and
// asks for another, as a host retries. Returns the cookies a browser would keep from the
// response: those the library set and those of the Set-Cookie headers.
std::map<std::string, std::string> forward(Kyr* kyr, EnvHttpContext& r, const Input& in) {
  kyrfuzz::InFlight f = kyrfuzz::routeRequest(kyr, &r);
  for (char failure : {'f', 't'}) {
    if (f.endpoint == nullptr || !in.flag(failure)) continue;
    kyrHttpContextSetState(f.ctx, failure == 'f' ? CONNECT_FAILURE : RESPONSE_TIMEOUT, 0, "fuzz");
    f.endpoint = kyrHttpContextGetTargetEndpoint(f.ctx);
    if (f.endpoint != nullptr) kyrfuzz::readEndpoint(f.endpoint);
  }
  kyrfuzz::completeRequest(f);
  std::map<std::string, std::string> cookies;
  for (const auto& [name, value] : r.responseCookies) keepCookie(cookies, name + "=" + value);
  for (const std::string& value : setCookies().values) keepCookie(cookies, value);
  auto header = r.responseHeaders.find("Set-Cookie");
  if (header != r.responseHeaders.end()) keepCookie(cookies, header->second);
  return cookies;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = fixture();
  Kyr* kyr = f.handle.kyr();
  resetModel(f);
  Input in = parse(std::string_view(reinterpret_cast<const char*>(data), size));
  // The handle's own copy of the callback table: which optional callbacks this host offers.
  EnvCallBacks& env = kyr->env;
  env.http.response.getHeaderValues = in.flag('m') ? getResponseHeaderValues : nullptr;
  env.http.response.setCookieValue = in.flag('c') ? nullptr : kyrtest::host::setResponseCookie;

  EnvHttpContext first;
  setRequest(first, in);
  std::map<std::string, std::string> learnt = forward(kyr, first, in);

  EnvHttpContext second;
  setRequest(second, in);
  for (const auto& [name, value] : learnt) second.cookies[name] = value;
  forward(kyr, second, in);
  f.handle.endInput();
  return 0;
}
