// Helpers of the library-handle tests: a fixture holding a handle whose debug output is
// captured, checks of that output, and a connector group's report. The settled memory level,
// the counted host endpoint objects and the trace capture they use come from tests/support.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "support/hostEndpoints.h"
#include "support/kyrTestHost.h"
#include "support/memCount.h"
#include "support/publisherStub.h"
#include "support/traceCapture.h"

namespace kyrtest {

// For tests that watch memory or threads rather than output.
inline Kyr* quietHandle(TestHost& host) {
  host.env.trace.printf = nullptr;
  return host.create();
}

// How many captured lines read exactly `text` once formatted.
inline int countPrinted(const std::string& text) {
  int n = 0;
  for (const auto& line : printedLines()) n += line.text == text;
  return n;
}

// For EXPECT_TRUE: exactly one captured line reads `text`; a failure says how many did.
inline ::testing::AssertionResult printedOnce(const std::string& text) {
  int n = countPrinted(text);
  if (n == 1) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << n << " captured lines read \"" << text << "\"";
}

// A group whose initial request stays in flight at a publisher that never answers, so that only
// the test's reports move its state.
inline KyrConnectorGroup* heldGroup(Kyr* kyr, const char* name, const SilentPublisher& publisher) {
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr, name);
  kyrConnectorCreate(cg, publisher.url().c_str());
  return cg;
}

// What a connector group's thread does when it has news: report under the control lock.
inline void reportGroupState(KyrConnectorGroup* cg, KyrComponentState state) {
  kyr::ControlLockGuard guard("test group report");
  kyr::kyrConnectorGroupSetState(cg, state, "test report");
}

// A created handle that writes its debug output ("control.process") to printed(). Tests that
// destroy the handle themselves set kyr_ to null.
class HandleFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    printed().clear();
    stateChanges().clear();
    host_.env.trace.printf = capturePrintf;
    kyr_ = host_.create();
    ASSERT_NE(kyr_, nullptr);
    ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control.process:DEBUG"), 0);
    printed().clear();
  }
  void TearDown() override {
    if (kyr_ != nullptr) kyrDestroy(kyr_);
  }

  TestHost host_;
  Kyr* kyr_ = nullptr;
};

}  // namespace kyrtest
