// Helpers shared by the library-handle tests: the counted-memory level with no handle alive, a
// fixture holding a handle whose debug output is captured, a connector group's report, and host
// endpoint objects counted per name.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"
#include "support/kyrTestHost.h"
#include "trace/traceTestUtil.h"

namespace kyrtest {

// For tests that watch memory or threads rather than output.
inline Kyr* quietHandle(TestHost& host) {
  host.env.trace.printf = nullptr;
  return host.create();
}

// The control lock and the trace death row outlive every handle, so one handle is made and
// destroyed first to bring them into being; the row is then emptied.
inline int settledMemCount() {
  TestHost warmUp;
  kyrDestroy(quietHandle(warmUp));
  kyr::trPurgeDeathRow();
  return kyr::kyrGetMemCount();
}

// How many captured lines read exactly `text` once formatted.
inline int countPrinted(const std::string& text) {
  int n = 0;
  for (const auto& line : printed()) n += line.text == text;
  return n;
}

// For EXPECT_TRUE: exactly one captured line reads `text`; a failure says how many did.
inline ::testing::AssertionResult printedOnce(const std::string& text) {
  int n = countPrinted(text);
  if (n == 1) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << n << " captured lines read \"" << text << "\"";
}

// What a connector group's thread does when it has news: report under the control lock.
inline void reportGroupState(KyrConnectorGroup* cg, KyrComponentState state) {
  kyr::ControlLockGuard guard("test group report");
  kyr::kyrConnectorGroupSetState(cg, state, "test report");
}

// The host's endpoint objects, counted: a second live object for one name means two routing
// versions did not share, and fewer deletes than creates an object never given back.
struct HostEndpoint {
  std::string name;
};
struct HostEndpoints {
  std::mutex lock;  // routing versions on several threads create and delete concurrently
  std::map<std::string, int> live;
  int creates = 0;
  int deletes = 0;
  bool duplicate = false;
};
inline HostEndpoints& hostEndpoints() {
  static HostEndpoints endpoints;
  return endpoints;
}
inline EnvTargetEndpoint* createHostEndpoint(KyrTargetEndpoint* tep) {
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  ++e.creates;
  e.duplicate |= ++e.live[tep->name] > 1;
  return reinterpret_cast<EnvTargetEndpoint*>(new HostEndpoint{tep->name});
}
inline int deleteHostEndpoint(EnvTargetEndpoint* object) {
  std::unique_ptr<HostEndpoint> endpoint(reinterpret_cast<HostEndpoint*>(object));
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  ++e.deletes;
  --e.live[endpoint->name];
  return 0;
}
inline void useHostEndpoints(EnvCallBacks& env) {
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  e.live.clear();
  e.creates = e.deletes = 0;
  e.duplicate = false;
  env.targetEndpoint.create = createHostEndpoint;
  env.targetEndpoint.KYR_DELETE_MEMBER = deleteHostEndpoint;
}
inline KyrTargetEndpoint endpointNamed(const char* name) {
  KyrTargetEndpoint tep{};
  tep.name = const_cast<char*>(name);
  return tep;
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
