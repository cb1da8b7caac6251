// One request routed end to end, the library's reason to exist: obtain, should-handle (request
// mapping), get-target-endpoint (affinity or load balancing, private headers), the connect,
// sent and response-arrived reports (response processing of a Set-Cookie, outstanding counts,
// statistics) and release, against a generated cell of 20 clusters of 10 servers running 50
// applications, each in two editions chosen by edition routing rules, with 200 web modules per
// edition. "affinity" requests carry a session cookie naming a member; "balance" requests carry
// none.
#include <benchmark/benchmark.h>
#include <jansson.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchHost.h"
#include "cellgen/cellDocument.h"
#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "kyrlib.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"

// The benchmark host's request: what the callbacks below answer. Shared read-only by threads.
struct EnvHttpContext {
  std::string path;
  int port;
  std::string sessionCookie;  // JSESSIONID of the request, or empty
  std::string setCookie;      // the response's Set-Cookie
};

namespace {

kyrtools::CellShape routeShape() {
  kyrtools::CellShape shape;
  shape.clusters = 20;
  shape.serversPerCluster = 10;
  shape.applications = 50;
  shape.modulesPerApp = 4;
  shape.secondEditions = true;
  return shape;
}
const kyrtools::CellShape kShape = routeShape();

char kHost[] = "www.example.com";
char kProtocol[] = "http";
char kClientIp[] = "10.0.0.1";
char kProtocolVersion[] = "HTTP/1.1";

char* getPath(EnvHttpContext* r) { return r->path.data(); }
int getPort(EnvHttpContext* r) { return r->port; }
char* getHost(EnvHttpContext*) { return kHost; }
char* getProtocol(EnvHttpContext*) { return kProtocol; }
char* getClientIp(EnvHttpContext*) { return kClientIp; }
char* getProtocolVersion(EnvHttpContext*) { return kProtocolVersion; }
char* getCookie(EnvHttpContext* r, char* name) {
  return !r->sessionCookie.empty() && strcmp(name, "JSESSIONID") == 0 ? r->sessionCookie.data()
                                                                      : nullptr;
}
char* getResponseHeader(EnvHttpContext* r, char* name) {
  return strcmp(name, "Set-Cookie") == 0 ? r->setCookie.data() : nullptr;
}

// The generated cell with a response-time and a time-out policy linked to every server, at
// thresholds a healthy cell stays below.
std::string cellWithHealthPolicies() {
  json_t* doc = json_loads(kyrtools::completeDocument(kShape).c_str(), 0, nullptr);
  json_t* add = json_object_get(doc, "add");
  json_t* objects = json_object_get(add, "objects");
  if (!json_is_array(objects)) {  // a single object stands for an array of one
    objects = json_pack("[O]", objects);
    json_object_set_new(add, "objects", objects);
  }
  json_t* links = json_array();
  const char* policies[][3] = {{"/healthPolicy/slow", "ExcessiveResponseTime", "1000"},
                               {"/healthPolicy/flaky", "ExcessiveRequestTimeout", "50"}};
  for (const auto& p : policies) {
    json_array_append_new(
        objects, json_pack("{s:s,s:s,s:{s:s,s:i}}", "type", "healthPolicy", "name", p[0], "props",
                           "type", p[1], "threshold", atoi(p[2])));
    for (int i = 0; i < kShape.clusters * kShape.serversPerCluster; ++i) {
      json_array_append_new(
          links, json_pack("{s:s,s:s}", "server", kyrtools::serverName(kShape, i).c_str(),
                           "healthPolicy", p[0]));
    }
  }
  json_object_set_new(json_object_get(add, "relationships"), "server:healthPolicy", links);
  char* text = json_dumps(doc, JSON_COMPACT);
  std::string out = text;
  free(text);
  json_decref(doc);
  return out;
}

// A started handle holding the generated cell. Its state is set directly: released contexts go
// back to the pool as in a running host, and no publisher is contacted.
Kyr* routingKyr(bool healthPolicies) {
  static Kyr* plain = nullptr;
  static Kyr* withPolicies = nullptr;
  Kyr*& kyr = healthPolicies ? withPolicies : plain;
  if (kyr != nullptr) return kyr;
  kyr = [healthPolicies] {
    EnvCallBacks env = kyrbench::quietCallbacks();
    auto& rq = env.http.request;
    rq.getPath = getPath;
    rq.getVirtualPort = getPort;
    rq.getVirtualHost = getHost;
    rq.getProtocol = getProtocol;
    rq.getClientIpAddr = getClientIp;
    rq.getProtocolVersion = getProtocolVersion;
    rq.getCookieValue = getCookie;
    auto& rs = env.http.response;
    rs.getHeaderValue = getResponseHeader;
    rs.setHeaderValue = kyrbench::noSet;
    rs.setCookieValue = kyrbench::noSet;
    Kyr* k = kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
    KyrConnector* c = kyrConnectorCreate(kyrConnectorGroupCreate(k, "cg"), "http://p:1");
    c->cg->curConnector = c;
    kyr::ControlLockGuard guard("bench");
    std::string cell =
        healthPolicies ? cellWithHealthPolicies() : kyrtools::completeDocument(kShape);
    kyrHandleJsonFromRestService(cell.c_str(), c);
    k->state = STARTED;
    return k;
  }();
  return kyr;
}

// Requests spread over every module of the cell; with affinity each names one member of the
// cluster that runs its application.
std::vector<EnvHttpContext> requests(bool affinity) {
  std::vector<EnvHttpContext> out;
  for (int i = 0; i < 256; ++i) {
    int app = (i * 7) % kyrtools::applicationCount(kShape);
    int module = i % kShape.modulesPerApp;
    int member = kyrtools::clusterOfApplication(kShape, app) * kShape.serversPerCluster +
                 i % kShape.serversPerCluster;
    std::string session = "0000abcdefghijklmnopqrstuv:" + kyrtools::cloneId(member);
    out.push_back({kyrtools::mappedPath(app, module), kyrtools::modulePort(kShape, app, module),
                   affinity ? session : "", "JSESSIONID=" + session + "; Path=/"});
  }
  return out;
}

// The host's side of one request; false when the library did not route it.
bool routeOne(Kyr* kyr, EnvHttpContext* request) {
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, request);
  bool routed =
      kyrHttpContextShouldHandle(ctx) == 1 && kyrHttpContextGetTargetEndpoint(ctx) != nullptr;
  if (routed) {
    kyrHttpContextSetState(ctx, CONNECT_SUCCESS, 0, nullptr);
    kyrHttpContextSetState(ctx, REQUEST_SENT, 0, nullptr);
    kyrHttpContextSetState(ctx, RESPONSE_ARRIVED, 0, nullptr);
  }
  kyrHttpContextRelease(ctx);
  return routed;
}

int policiesOfFirstServer(Kyr* kyr) {
  kyr::KyrRoutingInfo* ri = kyr::kyrRoutingInfoObtain(kyr);
  auto* server = static_cast<kyr::TargetServer*>(
      kyr::kyrRoutingInfoObjectGet(ri, kyrtools::serverName(kShape, 0).c_str()));
  int count = server != nullptr ? kyr::kyrListGetCount(server->healthPolicies) : -1;
  kyr::kyrRoutingInfoRelease(ri);
  return count;
}

// Two request threads write shared lines on every request (the locks, the version's count, the
// chosen server's counts), so together they route only as fast as a cache line moves between
// their processors. On a virtual machine that time changes while it runs, as the hypervisor
// places its processors: here about 25 ns at times and about 165 ns at others, and two threads
// then route about 1.5 times or less than one thread's requests. Each two-thread run therefore
// reports the one-way time of a line passed back and forth between its threads, measured at its
// start and at its end. Both threads must call this the same number of times.
double lineTransferNs(benchmark::State& state) {
  static std::atomic<long> turn{0};  // even: thread 0 passes the line, odd: thread 1
  const long mine = state.thread_index() == 0 ? 0 : 1;
  auto pass = [&] {
    while ((turn.load(std::memory_order_acquire) & 1) != mine) {
    }
    turn.fetch_add(1, std::memory_order_acq_rel);
  };
  pass();  // waits, untimed, until the other thread has arrived
  constexpr int kRoundTrips = 20000;
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kRoundTrips; ++i) pass();
  std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
  return took.count() / (2 * kRoundTrips);
}

void BM_RouteRequest(benchmark::State& state, bool affinity, bool healthPolicies = false) {
  Kyr* kyr = routingKyr(healthPolicies);
  if (healthPolicies && policiesOfFirstServer(kyr) != 2) state.SkipWithError("policies not linked");
  std::vector<EnvHttpContext> reqs = requests(affinity);
  for (auto& r : reqs) {
    if (!routeOne(kyr, &r)) state.SkipWithError(("not routed: " + r.path).c_str());
  }
  // Counted blocks after warming up (the pool now holds this thread's context). With one thread
  // the difference at the end is what the requests left behind; with more, another thread's
  // request in flight would blur it, so only the single-threaded run reports it.
  int before = kyr::kyrGetMemCount();
  const bool paired = state.threads() == 2;
  const double lineNsAtStart = paired ? lineTransferNs(state) : 0;
  size_t i = state.thread_index();
  for (auto _ : state) {
    benchmark::DoNotOptimize(routeOne(kyr, &reqs[i & 255]));
    ++i;
  }
  if (state.threads() == 1) state.counters["memGrowth"] = kyr::kyrGetMemCount() - before;
  if (paired) {
    const double lineNsAtEnd = lineTransferNs(state);
    // Counters are summed over threads: only the first reports these.
    if (state.thread_index() == 0) {
      state.counters["lineNsStart"] = lineNsAtStart;
      state.counters["lineNsEnd"] = lineNsAtEnd;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_RouteRequest, affinity, true)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK_CAPTURE(BM_RouteRequest, balance, false)->Threads(1)->Threads(2)->UseRealTime();
// The same cell with health policies linked to every server: completion checks them.
BENCHMARK_CAPTURE(BM_RouteRequest, affinity_healthPolicies, true, true)->UseRealTime();
BENCHMARK_CAPTURE(BM_RouteRequest, balance_healthPolicies, false, true)->UseRealTime();

}  // namespace
