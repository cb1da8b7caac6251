// Shared by the matcher tests: a library handle (for its trace manager) behind a hand-made
// routing version, trace capture, and a check that every counted block a test made is freed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "core/kyrRoutingInfo.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"
#include "trace/traceTestUtil.h"

namespace kyrtest {

// The memory counter once other threads have stopped moving it: the worker thread of a handle
// destroyed by an earlier test may still be releasing its blocks when the next test starts.
inline int quietMemCount() {
  int last = kyr::kyrGetMemCount();
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    int now = kyr::kyrGetMemCount();
    if (now == last) return now;
    last = now;
  }
  return last;
}

// One handle for every mapping test: handles come and go with threads of their own, and a
// handle destroyed by one test would move the memory counter under the next.
inline Kyr* sharedKyr() {
  static Kyr* kyr = [] {
    TestHost host;
    host.env.trace.printf = capturePrintf;
    return host.create();
  }();
  return kyr;
}

class MappingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = sharedKyr();
    ASSERT_NE(kyr_, nullptr);
    ri_.kyr = kyr_;
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE"), 0);
    memAtStart_ = quietMemCount();
    printed().clear();
  }

  void TearDown() override {
    EXPECT_EQ(quietMemCount(), memAtStart_) << "counted blocks left behind";
  }

  // Mapping trace is DEBUG. The new trace specification (and the old one waiting for release)
  // stay with the handle until it goes, so they are not counted as left behind.
  void traceMapping() {
    int before = quietMemCount();
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.mapper:DEBUG,http.request.map:DEBUG"),
              0);
    memAtStart_ += quietMemCount() - before;
    printed().clear();
  }

  static bool printedContains(const std::string& needle) {
    return kyrtest::printedContains(needle);
  }

  Kyr* kyr_ = nullptr;
  kyr::KyrRoutingInfo ri_{};
  int memAtStart_ = 0;
};

// String targets: the self-test's kind, and readable in failure messages.
inline void* target(const char* name) { return const_cast<char*>(name); }

inline std::string text(const void* target) {
  return target != nullptr ? static_cast<const char*>(target) : "null";
}

}  // namespace kyrtest
