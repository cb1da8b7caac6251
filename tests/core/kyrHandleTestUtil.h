// Helpers shared by the library-handle tests: the counted-memory level with no handle alive, a
// fixture holding a handle whose debug output is captured, and a counter of captured lines.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kyrlib.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"
#include "trace/traceTestUtil.h"

namespace kyrtest {

// The control lock and the trace death row outlive every handle, so one handle is made and
// destroyed first to bring them into being; the row is then emptied.
inline int settledMemCount() {
  TestHost warmUp;
  warmUp.env.trace.printf = nullptr;
  kyrDestroy(warmUp.create());
  kyr::trPurgeDeathRow();
  return kyr::kyrGetMemCount();
}

// How many captured lines read exactly `text` once formatted.
inline int countPrinted(const std::string& text) {
  int n = 0;
  for (const auto& line : printed()) n += line.text == text;
  return n;
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
