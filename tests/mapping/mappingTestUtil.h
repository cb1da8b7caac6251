// Shared by the matcher tests: a library handle (for its trace manager) behind a hand-made
// routing version, trace capture, and a check that every counted block a test made is freed.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "core/kyrRoutingInfo.h"
#include "support/kyrTestHost.h"
#include "support/memCount.h"
#include "support/traceCapture.h"

namespace kyrtest {

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
    memAtStart_ = settledMemCount();
    printed().clear();
  }

  void TearDown() override {
    EXPECT_EQ(settledMemCount(), memAtStart_) << "counted blocks left behind";
  }

  // Mapping trace is DEBUG. The new trace specification (and the old one waiting for release)
  // stay with the handle until it goes, so they are not counted as left behind.
  void traceMapping() {
    int before = settledMemCount();
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.mapper:DEBUG,http.request.map:DEBUG"),
              0);
    memAtStart_ += settledMemCount() - before;
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
