// Runtime hot paths: map lookups by routing-model name (the object map is keyed so) and
// splitting an object name into its segments.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/kyrHash.h"
#include "runtime/kyrUtil.h"

namespace {

// 10,000 server names over 100 nodes; lookups cycle through all of them so the measurement is
// not of one cached chain.
void BM_HashGet(benchmark::State& state) {
  std::vector<std::string> keys;
  for (int n = 0; n < 100; ++n) {
    for (int s = 0; s < 100; ++s) {
      char name[64];
      snprintf(name, sizeof name, "/cell/c1/node/n%d/server/s%d", n, s);
      keys.emplace_back(name);
    }
  }
  kyr::KyrHashMap* hm = kyr::kyrHashMapCreate();
  for (auto& key : keys) kyr::kyrHashPut(hm, key.c_str(), &key);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kyr::kyrHashGet(hm, keys[i].c_str()));
    if (++i == keys.size()) i = 0;
  }
  kyr::kyrHashMapDestroy(hm);
}
BENCHMARK(BM_HashGet);

void BM_StrSplit(benchmark::State& state) {
  for (auto _ : state) {
    char** pieces = kyr::kyrStrSplit("/cell/c1/node/n1", "/");
    benchmark::DoNotOptimize(pieces);
    kyr::kyrFreeStrSplitArray(pieces);
  }
}
BENCHMARK(BM_StrSplit);

}  // namespace
