// Trace enablement on the request hot path: trContextLogEnabled takes the context's lock, reads
// one byte of the trace specification and releases the lock, for enabled and disabled records
// alike.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>

#include "tr.h"

namespace {

// A catalogue of its own, so the figures do not move with the shipped one.
constexpr char kCatalogue[] =
    "<group name=bench><record name=enabled level=NOTICE/>"
    "<record name=disabled level=DEBUG/></group>";

TrContext* benchContext() {
  static TrContext* context = [] {
    static char text[sizeof kCatalogue];
    memcpy(text, kCatalogue, sizeof kCatalogue);
    TrMgr* mgr = trMgrCreate(fmemopen(text, strlen(text), "r"), 1);
    return trMgrGetDefaultContext(mgr);  // ":NOTICE"; lives as long as the process
  }();
  return context;
}

void BM_TraceLogEnabled(benchmark::State& state, const char* recordPath) {
  TrContext* context = benchContext();
  TrRecord* rec = trRecordGet(trContextGetMgr(context), recordPath);
  for (auto _ : state) benchmark::DoNotOptimize(trContextLogEnabled(context, rec));
}

BENCHMARK_CAPTURE(BM_TraceLogEnabled, enabled, "bench.enabled");
BENCHMARK_CAPTURE(BM_TraceLogEnabled, disabled, "bench.disabled");

}  // namespace
