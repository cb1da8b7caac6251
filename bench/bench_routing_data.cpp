// Applying routing data: a publisher's complete document for a large cell on a fresh handle,
// and the one-property delta that dominates steady-state traffic. Documents come from the cell
// generator in tools/ so later model parts grow the same cell.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <string>

#include "benchHost.h"
#include "cellgen/cellDocument.h"
#include "connector/kyrConnector.h"
#include "core/kyrRoutingData.h"
#include "kyrlib.h"

namespace {

// 1,000 servers: 10 clusters of 100 over 10 nodes, two applications each.
const kyrtools::CellShape kShape{};

// A handle with one connector group and connector, as a host has after configuration.
struct Publisher {
  EnvCallBacks env = kyrbench::quietCallbacks();
  Kyr* kyr = kyrCreate(&env, nullptr, KYR_TRACE_CATALOGUE);
  KyrConnector* connector = kyrConnectorCreate(kyrConnectorGroupCreate(kyr, "cg"), "http://p:1");
  ~Publisher() { kyrDestroy(kyr); }

  void deliver(const std::string& document) {
    kyr::ControlLockGuard guard("bench");
    kyrHandleJsonFromRestService(document.c_str(), connector);
  }
};

void BM_ApplyCompleteDocument(benchmark::State& state) {
  const std::string document = kyrtools::completeDocument(kShape);
  size_t modelBytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto* publisher = new Publisher;
    size_t before = mallinfo2().uordblks;
    state.ResumeTiming();
    publisher->deliver(document);
    state.PauseTiming();
    modelBytes = mallinfo2().uordblks - before;
    delete publisher;
    state.ResumeTiming();
  }
  state.counters["documentBytes"] = static_cast<double>(document.size());
  state.counters["modelBytes"] = static_cast<double>(modelBytes);
}
BENCHMARK(BM_ApplyCompleteDocument)->Unit(benchmark::kMillisecond);

void BM_ApplyDelta(benchmark::State& state) {
  Publisher publisher;
  publisher.deliver(kyrtools::completeDocument(kShape));
  // Alternate so every delta really changes the server (and recomputes its selectability).
  const std::string deltas[] = {
      kyrtools::serverPropertyDelta(kShape, 500, "server.maintenancemode", "affinity"),
      kyrtools::serverPropertyDelta(kShape, 500, "server.maintenancemode", "false")};
  size_t i = 0;
  for (auto _ : state) publisher.deliver(deltas[i++ & 1]);
}
BENCHMARK(BM_ApplyDelta)->Unit(benchmark::kMicrosecond);

// One module with one URI added and linked to the only virtual host group, whose matcher holds
// about 10,000 patterns (100 applications x 3 modules x 34 URIs), applied in place as documents
// are before their connector group is initialised. The memory such changes retire makes the
// version rebuild now and then, which this figure includes.
void BM_ApplyUriDelta(benchmark::State& state) {
  kyrtools::CellShape shape;
  shape.serversPerCluster = 10;
  shape.urisPerModule = 34;
  shape.vHostGroups = 1;
  Publisher publisher;
  publisher.deliver(kyrtools::completeDocument(shape));
  const std::string app = "/cell/" + shape.cell + "/application/app0";
  const std::string group = "/cell/" + shape.cell + "/vHostGroup/vhg0";
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::string module = "/webModule/extra" + std::to_string(++n) + ".war";
    std::string delta = R"({"version": )" + std::to_string(1000 + n) +
                        R"(, "restVersion": 2, "delta": true, "add": {"objects": {"type":
        "webModule", "name": ")" +
                        app + module + R"(", "props": {"contextRoot": "/extra)" +
                        std::to_string(n) + R"("}, "objects": {"type": "uri", "name":
        "/uri/\\/*"}}, "relationships": {"vHostGroup:webModule": [{"vHostGroup": ")" +
                        group + R"(", "webModule": ")" + app + module + R"("}]}}})";
    state.ResumeTiming();
    publisher.deliver(delta);
  }
}
BENCHMARK(BM_ApplyUriDelta)->Unit(benchmark::kMicrosecond);

}  // namespace
