// Request mapping on the hot path: one URI against a large pattern tree, and the choice of a web
// module over the virtual host groups of a cell. Patterns look like a real cell's: a few hundred
// applications, each with servlet paths, REST prefixes and static-content suffixes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "benchHost.h"
#include "core/kyrRoutingInfo.h"
#include "kyrlib.h"
#include "mapping/URIMatcher.h"
#include "mapping/kyrRequestMapper.h"
#include "mapping/kyrURLMatcher.h"
#include "runtime/kyrLibUtil.h"

namespace {

std::string format(const char* fmt, int a, int b = 0) {
  char buf[128];
  snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

// 25 patterns per application: 14 exact, 6 prefix, 5 suffix.
std::vector<std::string> applicationPatterns(int app) {
  std::vector<std::string> out;
  for (int k = 0; k < 10; ++k) out.push_back(format("/app%03d/servlets/ActionPg%02d.do", app, k));
  for (int k = 0; k < 4; ++k) out.push_back(format("/app%03d/admin/console/page%d", app, k));
  for (int v = 1; v <= 5; ++v) out.push_back(format("/app%03d/rest/v%d/*", app, v));
  out.push_back(format("/app%03d/*", app));
  for (const char* s : {"/app%03d/*.jsp", "/app%03d/static/*.css", "/app%03d/static/*.js",
                        "/app%03d/pages/*.jsf", "/app%03d/pages/*.xhtml"}) {
    out.push_back(format(s, app));
  }
  return out;
}

// 30-byte request paths spread over the applications: exact hits, REST prefixes, static
// suffixes, JSPs under the application prefix, and misses.
std::vector<std::string> requestPaths(int apps, int count) {
  std::vector<std::string> out;
  for (int i = 0; i < count; ++i) {
    int app = (i * 7919) % apps;
    switch (i % 5) {
      case 0:
        out.push_back(format("/app%03d/servlets/ActionPg%02d.do", app, i % 10));
        break;
      case 1:
        out.push_back(format("/app%03d/rest/v%d/orders/1234567", app, 1 + i % 5));
        break;
      case 2:
        out.push_back(format("/app%03d/static/css/theme%02d.css", app, i % 100));
        break;
      case 3:
        out.push_back(format("/app%03d/catalog/items/li%02d.jsp", app, i % 100));
        break;
      default:
        out.push_back(format("/other%03d/nothing/here/at/all%d", app, i % 10));
        break;
    }
  }
  return out;
}

void BM_URIMatch(benchmark::State& state) {
  constexpr int kApps = 400;  // x 25 = 10,000 patterns
  kyr::KyrRoutingInfo ri{};
  ri.kyr = kyrbench::sharedKyr();
  kyr::URIMatcher* matcher = kyr::URIMatcherCreate(&ri, "bench");
  std::vector<std::string> targets;
  targets.reserve(kApps);
  int registered = 0;
  for (int app = 0; app < kApps; ++app) {
    targets.push_back(format("app%03d", app));
    for (const std::string& p : applicationPatterns(app)) {
      kyr::URIMatcherPut(matcher, p.c_str(), targets.back().data(), false);
      ++registered;
    }
  }
  kyr::URIMatcherPublish(matcher);
  const std::vector<std::string> paths = requestPaths(kApps, 4096);
  for (const std::string& p : paths) {
    if (p.size() != 30) state.SkipWithError(("path not 30 bytes: " + p).c_str());
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kyr::URIMatcherMatch(matcher, paths[i].c_str(), nullptr));
    i = (i + 1) & 4095;
  }
  state.counters["patterns"] = registered;
  kyr::URIMatcherDelete(matcher);
}
BENCHMARK(BM_URIMatch);

// 20 groups as a cell has them: default_host on any host of port 80, the others on their own
// host names on 80 and 443, 20 modules each; requests for one of the named hosts.
void BM_MatchLongestURI(benchmark::State& state) {
  constexpr int kGroups = 20;
  constexpr int kModulesPerGroup = 20;
  kyr::KyrRoutingInfo ri{};
  ri.kyr = kyrbench::sharedKyr();
  kyr::RequestMapper* rm = kyr::rmCreate(&ri);
  kyr::Application* app = kyr::rmApplicationCreate(rm, "/cell/c/application/bench");
  kyr::URLMatcher* m = kyr::kyrURLMatcherCreate(&ri);
  for (int g = 0; g < kGroups; ++g) {
    kyr::VHostMatcher* group = kyr::createVHostMatcher(&ri, format("vhost%02d", g).c_str());
    if (g == 0) {
      kyr::putVHost(group, "*", 80);
    } else {
      std::string host = format("host%02d.example.com", g);
      kyr::putVHost(group, host.c_str(), 80);
      kyr::putVHost(group, host.c_str(), 443);
    }
    kyr::addVHostMatcher(m, group);
    for (int k = 0; k < kModulesPerGroup; ++k) {
      std::string name = format("/cell/c/application/bench/webModule/g%02dm%02d", g, k);
      kyr::WebModule* wm = kyr::rmWebModuleCreate(app, name.c_str(), 1);
      kyr::rmWebModuleSetPropStr(wm, "contextRoot", format("/g%02dapp%02d", g, k).c_str());
      for (const char* uri : {"/*", "*.jsp", "/servlet/*"}) {
        char* pattern = kyr::URIMatcherMakePattern(kyr::wmGetContextRoot(wm), uri);
        kyr::URIMatcherPut(kyr::getURIMatcher(group), pattern, wm, true);
        kyr::kyrFree(pattern);
      }
    }
    kyr::URIMatcherPublish(kyr::getURIMatcher(group));
  }
  std::vector<std::string> hosts;
  std::vector<std::string> paths;
  for (int i = 0; i < 256; ++i) {
    int g = 1 + i % (kGroups - 1);
    hosts.push_back(format("host%02d.example.com", g));
    paths.push_back(format("/g%02dapp%02d/servlet/catalog/list.do", g, i % kModulesPerGroup));
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        kyr::matchLongestURI(m, nullptr, hosts[i].c_str(), 80, paths[i].c_str()));
    i = (i + 1) & 255;
  }
  kyr::kyrURLMatcherDestroy(m);
  kyr::rmDelete(rm);
}
BENCHMARK(BM_MatchLongestURI);

}  // namespace
