// Health policies end to end inside one process: a handle started against a loopback publisher
// with a cell whose servers are linked to policies of both kinds. Checks run as request
// completion runs them (under the server's selector lock); what the publisher receives is the
// verdict. The worker thread and the transport's threads are real, so the suite runs under
// ThreadSanitizer.
#include "health/hmHealthMonitor.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "core/kyr.h"
#include "core/kyrRoutingInfo.h"
#include "health/hmTriggerRecord.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"
#include "support/kyrTestHost.h"
#include "support/publisherStub.h"
#include "support/testData.h"

namespace {

using kyrtest::eventually;

constexpr const char* kServer = "/cell/route/node/n1/server/s1";
constexpr const char* kSlow = "/healthPolicy/slow";
constexpr const char* kFlaky = "/healthPolicy/flaky";

// The test cell with a response-time policy (500 ms) and a time-out policy (20 %) on s1.
std::string cellWithPolicies() {
  json_t* doc = json_loads(kyrtest::readTestData("cell-routing.json").c_str(), 0, nullptr);
  json_t* add = json_object_get(doc, "add");
  json_array_append_new(json_object_get(add, "objects"),
                        json_pack("{s:s,s:s,s:{s:s,s:i}}", "type", "healthPolicy", "name", kSlow,
                                  "props", "type", "ExcessiveResponseTime", "threshold", 500));
  json_array_append_new(json_object_get(add, "objects"),
                        json_pack("{s:s,s:s,s:{s:s,s:i}}", "type", "healthPolicy", "name", kFlaky,
                                  "props", "type", "ExcessiveRequestTimeout", "threshold", 20));
  json_object_set_new(json_object_get(add, "relationships"), "server:healthPolicy",
                      json_pack("[{s:s,s:s},{s:s,s:s}]", "server", kServer, "healthPolicy", kSlow,
                                "server", kServer, "healthPolicy", kFlaky));
  char* text = json_dumps(doc, 0);
  std::string out = text;
  free(text);
  json_decref(doc);
  return out;
}

struct TriggerSeen {
  std::string policy;
  bool triggered;
  auto operator<=>(const TriggerSeen&) const = default;
};

void PrintTo(const TriggerSeen& t, std::ostream* os) {
  *os << t.policy << (t.triggered ? " triggered" : " untriggered");
}

// Each trigger goes out on a connection of its own, so they may arrive in any order.
std::multiset<TriggerSeen> bag(std::vector<TriggerSeen> seen) { return {seen.begin(), seen.end()}; }

class HealthConcurrency : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.env.trace.printf = nullptr;
    kyr_ = host_.create();
    cg_ = kyrConnectorGroupCreate(kyr_, "cg");
    kyrConnectorCreate(cg_, publisher_.url().c_str());
    kyrStart(kyr_, -1);
    ASSERT_TRUE(eventually([&] { return kyrGetState(kyr_) == STARTED; }));
  }
  void TearDown() override { kyrDestroy(kyr_); }

  // What request completion does after a response: one check under the selector lock.
  void check(kyr::KyrTime avgRT, long timeoutPct) {
    kyr::KyrRoutingInfo* ri = kyr::kyrRoutingInfoObtain(kyr_);
    auto* server = static_cast<kyr::TargetServer*>(kyr::kyrRoutingInfoObjectGet(ri, kServer));
    ASSERT_NE(server, nullptr);
    {
      kyr::KyrLockGuard guard(server->selector->lock, "test");
      kyr::hmCheckHealthPolicies(kyr_, nullptr, server, server->healthPolicies, avgRT, timeoutPct);
    }
    kyr::kyrRoutingInfoRelease(ri);
  }
  // A trigger record as a worker process on the socket fd sends it.
  int fromWorker(int fd, const char* policy, bool triggered) {
    std::string url = publisher_.url();
    char* record = kyr::hmTriggerRecordCreate({triggered, policy, kServer, "cg", url.c_str()});
    kyr::ControlLockGuard guard("test");
    int rc = kyr::hmServerProcessHandleMessage(
        kyr_, record, static_cast<size_t>(kyr::hmTriggerRecordSize(record)), fd);
    kyr::kyrFree(record);
    return rc;
  }
  // The triggers the publisher received, in order.
  std::vector<TriggerSeen> triggers() const {
    std::vector<TriggerSeen> seen;
    for (const auto& request : publisher_.requests()) {
      json_t* body = json_loads(request.body.c_str(), 0, nullptr);
      json_t* name = json_object_get(body, "healthPolicyName");
      if (json_is_string(name)) {
        EXPECT_STREQ(json_string_value(json_object_get(body, "serverName")), kServer);
        seen.push_back({json_string_value(name),
                        json_is_true(json_object_get(body, "healthPolicyTriggered"))});
      }
      json_decref(body);
    }
    return seen;
  }
  bool triggersReach(size_t n) {
    return eventually([&] { return triggers().size() >= n; });
  }
  // Nothing more arrives: the worker has run everything queued and the transport has sent it.
  void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(200)); }

  kyrtest::Publisher publisher_{cellWithPolicies()};
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnectorGroup* cg_ = nullptr;
};

TEST_F(HealthConcurrency, TheThresholdItselfTriggersAndBelowItUntriggersForEachKindOfPolicy) {
  const auto none = static_cast<kyr::KyrTime>(-1);
  check(499, -1);  // below the response-time threshold; no time-out interval closed
  check(500, -1);
  ASSERT_TRUE(triggersReach(1));
  check(900, 19);  // still over: nothing new; the time-out share below its threshold
  check(none, 20);
  ASSERT_TRUE(triggersReach(2));
  check(499, 0);
  ASSERT_TRUE(triggersReach(4));
  settle();
  EXPECT_EQ(bag(triggers()), bag({{kSlow, true}, {kFlaky, true}, {kSlow, false}, {kFlaky, false}}));
}

TEST_F(HealthConcurrency, ServerStoppingUntriggersWhatItHeld) {
  check(800, 50);
  ASSERT_TRUE(triggersReach(2));
  kyr::KyrRoutingInfo* ri = kyr::kyrRoutingInfoObtain(kyr_);
  kyr::tsServerSetState(static_cast<kyr::TargetServer*>(kyr::kyrRoutingInfoObjectGet(ri, kServer)),
                        "STOPPED");
  kyr::kyrRoutingInfoRelease(ri);
  ASSERT_TRUE(triggersReach(4));
  settle();
  EXPECT_EQ(triggers().size(), 4u);
}

TEST_F(HealthConcurrency, WorkersCombineIntoOneTriggerAndTheLastUntriggerOrDeparture) {
  EXPECT_EQ(fromWorker(5, kSlow, true), 0);
  EXPECT_EQ(fromWorker(6, kSlow, true), 0);   // not the first: nothing sent
  EXPECT_EQ(fromWorker(5, kSlow, false), 0);  // not the last: nothing sent
  ASSERT_TRUE(triggersReach(1));
  settle();
  EXPECT_EQ(triggers().size(), 1u);
  EXPECT_EQ(fromWorker(6, kSlow, false), 0);
  ASSERT_TRUE(triggersReach(2));

  // A worker that dies holding the only trigger untriggers it.
  EXPECT_EQ(fromWorker(7, kFlaky, true), 0);
  fromWorker(8, kSlow, true);
  fromWorker(9, kSlow, true);
  {
    kyr::ControlLockGuard guard("test");
    kyr::hmClientProcessCleanup(kyr_, 7);
    kyr::hmClientProcessCleanup(kyr_, 8);  // 9 still holds it
  }
  ASSERT_TRUE(triggersReach(5));
  settle();
  EXPECT_EQ(bag(triggers()),
            bag({{kSlow, true}, {kSlow, false}, {kFlaky, true}, {kSlow, true}, {kFlaky, false}}));
}

TEST_F(HealthConcurrency, AResetForgetsTheCombinedTriggersAndMalformedRecordsAreDropped) {
  fromWorker(5, kSlow, true);
  fromWorker(6, kSlow, true);
  ASSERT_TRUE(triggersReach(1));
  {
    kyr::ControlLockGuard guard("test");
    kyr::hmResetInfo(kyr_);
  }
  fromWorker(5, kSlow, true);  // a first trigger again after the reset
  ASSERT_TRUE(triggersReach(2));

  char garbage[40] = {40, 0, 0, 0, 1};  // offsets all zero: inside the header
  kyr::ControlLockGuard guard("test");
  EXPECT_EQ(kyr::hmServerProcessHandleMessage(kyr_, garbage, sizeof garbage, 5), -1);
  EXPECT_EQ(kyr::hmServerProcessHandleMessage(kyr_, garbage, 12, 5), -1);
}

}  // namespace
