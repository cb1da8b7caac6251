// How soon a change at the publisher reaches requests: a loopback publisher answers the waiting
// long poll with a one-property delta, and the time runs until a request routed through a
// context sees the change. The publisher is the test suites' stub; the library runs its
// built-in transport, as a host without its own would.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "benchHost.h"
#include "kyrlib.h"
#include "support/publisherStub.h"

struct EnvHttpContext {
  std::string path;
};

namespace {

char kHost[] = "shop.example.com";
char kProtocol[] = "http";
char kClientIp[] = "10.0.0.1";
char kProtocolVersion[] = "HTTP/1.1";

char* getPath(EnvHttpContext* r) { return r->path.data(); }
int getPort(EnvHttpContext*) { return 80; }
char* getHost(EnvHttpContext*) { return kHost; }
char* getProtocol(EnvHttpContext*) { return kProtocol; }
char* getClientIp(EnvHttpContext*) { return kClientIp; }
char* getProtocolVersion(EnvHttpContext*) { return kProtocolVersion; }

std::string exampleCell() {
  std::ifstream in(KYR_EXAMPLE_CELL);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The example cell's redirect rule, pointed at another path prefix or back: one property.
std::string ruleDelta(bool redirectOld) {
  return std::string(
             R"({"set":{"objects":[{"type":"rule","name":)"
             R"("/cell/shop/application/shop/webRouteWorkClass/shop_Default_HTTP_WC/rule/20",)"
             R"("props":{"expression":"uri like ')") +
         (redirectOld ? "/shop/old/*" : "/shop/elsewhere/*") + R"('"}}]}})";
}

bool redirects(Kyr* kyr, EnvHttpContext* request) {
  KyrHttpContext* ctx = kyrHttpContextObtain(kyr, request);
  bool redirected =
      kyrHttpContextShouldHandle(ctx) == 1 && kyrHttpContextGetAction(ctx) == REDIRECT;
  kyrHttpContextRelease(ctx);
  return redirected;
}

template <class Pred>
bool within(std::chrono::milliseconds limit, Pred pred) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::yield();
  }
  return false;
}

void BM_LongPollDelta(benchmark::State& state) {
  kyrtest::Publisher publisher(exampleCell());
  EnvCallBacks env = kyrbench::quietCallbacks();
  auto& rq = env.http.request;
  rq.getPath = getPath;
  rq.getVirtualPort = rq.getListeningPort = getPort;
  rq.getVirtualHost = getHost;
  rq.getProtocol = getProtocol;
  rq.getClientIpAddr = getClientIp;
  rq.getProtocolVersion = getProtocolVersion;
  Kyr* kyr = kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
  kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "default"), publisher.url().c_str());
  kyrStart(kyr, -1);
  EnvHttpContext request{"/shop/old/page"};
  if (!within(std::chrono::seconds(10), [&] { return kyrGetState(kyr) == STARTED; }) ||
      !redirects(kyr, &request)) {
    state.SkipWithError("the publisher's cell did not arrive");
  }
  std::vector<double> samples;
  bool redirectOld = true;
  for (auto _ : state) {
    // The previous answer's poll is waiting at the publisher before the clock starts.
    if (!within(std::chrono::seconds(2), [&] { return publisher.heldPolls() == 1; })) {
      state.SkipWithError("no long poll waiting");
      break;
    }
    redirectOld = !redirectOld;
    auto begun = std::chrono::steady_clock::now();
    publisher.pushDelta(ruleDelta(redirectOld));
    if (!within(std::chrono::seconds(2), [&] { return redirects(kyr, &request) == redirectOld; })) {
      state.SkipWithError("the delta did not reach requests");
      break;
    }
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    state.SetIterationTime(took.count());
    samples.push_back(took.count() * 1e3);
  }
  if (!samples.empty()) {
    std::sort(samples.begin(), samples.end());
    state.counters["median_ms"] = samples[samples.size() / 2];
    state.counters["p99_ms"] = samples[samples.size() * 99 / 100];
  }
  kyrStop(kyr);
  kyrDestroy(kyr);
}
BENCHMARK(BM_LongPollDelta)->UseManualTime()->Iterations(300)->Unit(benchmark::kMillisecond);

}  // namespace
