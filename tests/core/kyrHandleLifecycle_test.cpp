// The handle's life: the state derived from its connector groups, start with its wait, stop,
// destroy, references and when the memory goes, and the worker thread's batches.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/kyrHandleTestUtil.h"

namespace {

using namespace kyrtest;

constexpr auto kGenerous = std::chrono::seconds(30);  // a bound for hangs, never a measurement

TEST(HandleCheckState, FirstMatchingRuleDecidesAndTheLastGroupInAStateIsNamed) {
  struct Row {
    std::vector<KyrComponentState> groups;  // the states of groups g0, g1, ... in list order
    KyrComponentState expected;
    const char* reason;
  };
  const Row rows[] = {
      {{FAILED, DELETED, INVALID}, STOPPED, "g2 is in an invalid state"},  // not FAILED
      {{STOPPED, STOPPING, FAILED}, STOPPING, "g1 is stopping"},
      {{PARTIAL_START, FAILED, STARTED}, FAILED, "g1 failed to start"},
      {{STARTING, PARTIAL_START, STARTED}, PARTIAL_START, "g1 is partially started"},
      {{STARTED, STARTING, STARTED}, PARTIAL_START, "g2 is started"},
      {{STARTING, STOPPED, STARTING}, STARTING, "g2 is starting"},
      {{STOPPED, STARTED, STOPPED}, PARTIAL_START, "g2 is stopped"},
      {{STOPPED, STOPPED}, STOPPED, "all connector groups are stopped"},
      {{STARTED, STARTED}, STARTED, "all connector groups are started"},
      {{}, STOPPED, "no connector groups"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reason);
    kyrtest::TestHost host;
    Kyr* kyr = kyrtest::quietHandle(host);
    for (size_t i = 0; i < row.groups.size(); ++i) {
      kyrConnectorGroupCreate(kyr, ("g" + std::to_string(i)).c_str())->state = row.groups[i];
    }
    kyr->state = INVALID;  // so that every row is a change the host hears of
    stateChanges().clear();
    {
      kyr::ControlLockGuard guard("test");
      kyrCheckState(kyr);
    }
    auto reports = stateChanges().of(kyr);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].state, row.expected);
    EXPECT_EQ(reports[0].reason, row.reason);
    kyrDestroy(kyr);
  }
}

using Reports = std::vector<std::pair<KyrComponentState, std::string>>;

Reports reportsOf(Kyr* kyr) {
  Reports out;
  for (const auto& change : stateChanges().of(kyr)) out.emplace_back(change.state, change.reason);
  return out;
}

class HandleLifecycle : public HandleFixture {};

TEST_F(HandleLifecycle, StateDecidesWhetherTheHandleIsStoppedUsableStartableAndStoppable) {
  struct Row {
    KyrComponentState state;
    bool stopped;
    bool usable;  // and so stoppable
    bool startable;
  };
  const Row rows[] = {{STARTING, false, true, false},      {STARTED, false, true, false},
                      {PARTIAL_START, false, true, false}, {FAILED, false, false, true},
                      {STOPPING, false, false, false},     {STOPPED, true, false, true},
                      {DELETED, true, false, false},       {INVALID, false, false, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(kyrState2String(row.state));
    kyr_->state = row.state;
    EXPECT_EQ(static_cast<bool>(kyrIsStopped(kyr_)), row.stopped);
    EXPECT_EQ(static_cast<bool>(kyrIsUsable(kyr_)), row.usable);
    EXPECT_EQ(kyrStart(kyr_, -1), row.startable ? 0 : -1);
    kyr_->state = row.state;
    EXPECT_EQ(kyrStop(kyr_), row.usable ? 0 : -1);
  }
  kyr_->state = STOPPED;
  EXPECT_EQ(kyrStart(nullptr, -1), -1);
  EXPECT_EQ(kyrStop(nullptr), -1);
  EXPECT_EQ(kyrGetState(nullptr), INVALID);
  kyrDestroy(nullptr);
}

TEST_F(HandleLifecycle, WaitIsCountedInSecondsWithoutASleepBeforeGivingUp) {
  // No group will ever report, so the handle stays STARTING and only the count ends the wait.
  for (int timeout : {-1, 1, 2}) {
    SCOPED_TRACE(timeout);
    printed().clear();
    kyr_->state = STOPPED;
    EXPECT_EQ(kyrStart(kyr_, timeout), 0);
    EXPECT_EQ(kyrGetState(kyr_), STARTING);
    EXPECT_EQ(countPrinted("KYR was started asynchronously\n"), timeout < 0 ? 1 : 0);
    EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"),
              timeout < 0 ? 0 : timeout - 1);
    EXPECT_EQ(countPrinted("Timed out waiting for KYR initialization to complete\n"),
              timeout < 0 ? 0 : 1);
    EXPECT_EQ(countPrinted("KYR initialization is complete\n"), 0);
  }
  EXPECT_EQ(kyrStart(kyr_, -1), -1);
  EXPECT_TRUE(printedOnce("KYR is not startable; state=STARTING\n"));
}

std::promise<void>* waiting = nullptr;
void printAndNoticeWaiting(TrContext* context, va_list args) {
  const char* format = trContextGetFormat(context);
  bool isWait = format != nullptr &&
                std::string(format) == "Waiting for KYR initialization to complete ...\n";
  kyrtest::capturePrintf(context, args);
  if (isWait && waiting != nullptr) {
    waiting->set_value();
    waiting = nullptr;
  }
}

TEST_F(HandleLifecycle, WaitLetsGoOfTheControlLockSoThatGroupsCanReport) {
  SilentPublisher publisher;
  KyrConnectorGroup* cg = heldGroup(kyr_, "slow", publisher);
  std::promise<void> firstWait;
  waiting = &firstWait;
  trMgrSetPrintf(kyr_->trMgr, printAndNoticeWaiting);
  // The group's news arrives while the starter waits; it needs the control lock to report.
  std::thread group([&] {
    firstWait.get_future().wait();
    reportGroupState(cg, STARTED);
  });
  EXPECT_EQ(kyrStart(kyr_, 30), 0);
  group.join();
  EXPECT_EQ(kyrGetState(kyr_), STARTED);
  EXPECT_TRUE(printedOnce("Waiting for KYR initialization to complete ...\n"));
  EXPECT_TRUE(printedOnce("KYR initialization is complete\n"));
  EXPECT_EQ(countPrinted("Timed out waiting for KYR initialization to complete\n"), 0);
}

void startedAtOnce(KyrConnectorGroup* cg, KyrComponentState state, char*) {
  if (state == STARTING) kyr::kyrConnectorGroupSetState(cg, STARTED, "started at once");
}

// A start whose groups settle at once needs no wait; destroy then stops through the groups
// before it deletes them.
TEST_F(HandleLifecycle, StartThatSettlesAtOnceDoesNotWaitAndDestroyStopsThroughTheGroups) {
  kyr_->env.stateChange.kyrConnectorGroup = startedAtOnce;
  kyrConnectorGroupCreate(kyr_, "cg1");
  EXPECT_EQ(kyrStart(kyr_, 0), 0);
  EXPECT_EQ(kyrGetState(kyr_), STARTED);
  EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"), 0);
  EXPECT_TRUE(printedOnce("KYR initialization is complete\n"));
  EXPECT_TRUE(printedOnce("Library state changed from STOPPED to STARTING, reason: starting"));
  Kyr* kyr = kyr_;
  kyr_ = nullptr;
  kyrDestroy(kyr);
  EXPECT_EQ(reportsOf(kyr), (Reports{{STARTING, "starting"},
                                     {STARTED, "all connector groups are started"},
                                     {STOPPING, "stopping initiated"},
                                     {STOPPED, "all connector groups are stopped"},
                                     {DELETED, "deleted"}}));
  EXPECT_TRUE(printedOnce("kyrDestroy entry\n"));
  EXPECT_TRUE(printedOnce("kyrDestroy2: enter"));
  EXPECT_TRUE(printedOnce("connector group deleted: cg1\n"));
}

// Work items of these tests record their tags in the order the worker ran them.
struct Journal {
  std::mutex lock;
  std::vector<std::string> ran;
  std::promise<void> done;
  std::string last;  // the tag whose run completes `done`
  void note(const std::string& tag) {
    std::lock_guard<std::mutex> guard(lock);
    ran.push_back(tag);
    if (tag == last) done.set_value();
  }
};

struct Item {
  Journal* journal;
  std::string tag;
  std::string queueFromCallback = {};  // when set, queues an item of that tag while running
};

void runItem(Kyr* kyr, void* obj) {
  std::unique_ptr<Item> item(static_cast<Item*>(obj));
  if (!item->queueFromCallback.empty()) {
    kyr::kyrProcessAsync(kyr, new Item{item->journal, item->queueFromCallback}, runItem);
  }
  item->journal->note(item->tag);
}

// Holds the worker until opened; hold() returns once the worker runs it, so that what is queued
// next waits in the queue.
struct Gate {
  std::promise<void> entered;
  std::promise<void> open;
  void hold(Kyr* kyr) {
    kyr::kyrProcessAsync(kyr, this, [](Kyr*, void* gate) {
      static_cast<Gate*>(gate)->entered.set_value();
      static_cast<Gate*>(gate)->open.get_future().wait();
    });
    entered.get_future().wait();
  }
};

TEST_F(HandleLifecycle, ItemQueuedByAWorkItemRunsInTheNextBatchAfterTheRest) {
  Journal journal;
  journal.last = "c";
  Gate gate;
  gate.hold(kyr_);
  // Queued while the worker is held, so a and b form the next batch together.
  kyr::kyrProcessAsync(kyr_, new Item{&journal, "a", "c"}, runItem);
  kyr::kyrProcessAsync(kyr_, new Item{&journal, "b"}, runItem);
  gate.open.set_value();
  // Queuing c from a's callback needs the queue lock: a batch run under it would hang here.
  auto finished = journal.done.get_future().wait_for(kGenerous);
  kyrDestroy(kyr_);  // waits for the worker, which may still be leaving the journal's lock
  kyr_ = nullptr;
  ASSERT_EQ(finished, std::future_status::ready);
  EXPECT_EQ(journal.ran, (std::vector<std::string>{"a", "b", "c"}));
}

std::promise<void>* handleFreed = nullptr;
int noteFreed(EnvTargetEndpoint* object) {
  kyrtest::deleteHostEndpoint(object);
  handleFreed->set_value();
  return 0;
}
void destroyFromWorker(Kyr* kyr, void* journal) {
  kyrDestroy(kyr);  // must neither wait for its own thread nor free what the worker still uses
  static_cast<Journal*>(journal)->note("destroyed");
}

TEST(HandleAsyncWorkEnd, DestroyFromAWorkItemFinishesTheQueueAndThenFreesTheHandle) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  // An endpoint object left with the handle tells when the handle is freed.
  kyrtest::useHostEndpoints(host.env);
  host.env.targetEndpoint.KYR_DELETE_MEMBER = noteFreed;
  Kyr* kyr = kyrtest::quietHandle(host);
  std::promise<void> freed;
  handleFreed = &freed;
  KyrTargetEndpoint probe = endpointNamed("probe");
  ASSERT_NE(kyr::envTargetEndPointObtainRef(kyr, &probe), nullptr);
  Journal journal;
  Gate gate;
  gate.hold(kyr);
  kyr::kyrProcessAsync(kyr, &journal, destroyFromWorker);
  kyr::kyrProcessAsync(kyr, new Item{&journal, "after"}, runItem);
  gate.open.set_value();
  ASSERT_EQ(freed.get_future().wait_for(kGenerous), std::future_status::ready);
  EXPECT_EQ(journal.ran, (std::vector<std::string>{"destroyed", "after"}));
  // The worker finishes the free after handing the endpoint back; wait for the last block.
  for (int spins = 0; kyr::kyrGetMemCount() != baseline && spins < 100000; ++spins) {
    kyr::trPurgeDeathRow();
    std::this_thread::yield();
  }
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
