// The handle's life: the state derived from its connector groups, start with its wait, stop,
// destroy, references and when the memory goes, the host's endpoint objects, and the worker
// thread's batches.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrHandleTestUtil.h"
#include "selection/kyrTargetSelector.h"

namespace {

using kyrtest::countPrinted;
using kyrtest::HandleFixture;
using kyrtest::printed;
using kyrtest::settledMemCount;
using kyrtest::stateChanges;

constexpr auto kGenerous = std::chrono::seconds(30);  // a bound for hangs, never a measurement

// ---- kyrCheckState ----------------------------------------------------------------------------

struct CheckStateRow {
  const char* name;
  std::vector<KyrComponentState> groups;  // the states of groups g0, g1, ... in list order
  KyrComponentState expected;
  const char* reason;
};

void PrintTo(const CheckStateRow& row, std::ostream* os) { *os << row.name; }

class HandleCheckState : public HandleFixture,
                         public ::testing::WithParamInterface<CheckStateRow> {};

TEST_P(HandleCheckState, FirstMatchingRowDecidesAndTheLastGroupInAStateIsNamed) {
  const CheckStateRow& row = GetParam();
  std::vector<KyrConnectorGroup*> groups;
  for (size_t i = 0; i < row.groups.size(); ++i) {
    groups.push_back(kyrConnectorGroupCreate(kyr_, ("g" + std::to_string(i)).c_str()));
    groups.back()->state = row.groups[i];
  }
  kyr_->state = INVALID;  // so that every row is a change the host hears of
  stateChanges().clear();
  printed().clear();
  {
    kyr::ControlLockGuard guard("test");
    kyrCheckState(kyr_);
  }
  EXPECT_EQ(kyr_->state.load(), row.expected);
  auto reports = stateChanges().of(kyr_);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].state, row.expected);
  EXPECT_EQ(reports[0].reason, row.reason);
  EXPECT_EQ(countPrinted(std::string("Library state changed from UNKNOWN to ") +
                         kyrState2String(row.expected) + ", reason: " + row.reason),
            1);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HandleCheckState,
    ::testing::Values(
        CheckStateRow{"InvalidGroupStateStopsRatherThanFails",
                      {FAILED, DELETED, INVALID},
                      STOPPED,
                      "g2 is in an invalid state"},
        CheckStateRow{
            "StoppingBeatsFailed", {STOPPED, STOPPING, FAILED}, STOPPING, "g1 is stopping"},
        CheckStateRow{"FailedBeatsPartialStart",
                      {PARTIAL_START, FAILED, STARTED},
                      FAILED,
                      "g1 failed to start"},
        CheckStateRow{"PartialStartBeatsStartingAndStarted",
                      {STARTING, PARTIAL_START, STARTED},
                      PARTIAL_START,
                      "g1 is partially started"},
        CheckStateRow{"StartingAndStartedNameTheLastStarted",
                      {STARTED, STARTING, STARTED},
                      PARTIAL_START,
                      "g2 is started"},
        CheckStateRow{
            "StartingWithoutStarted", {STARTING, STOPPED, STARTING}, STARTING, "g2 is starting"},
        CheckStateRow{"StoppedAndStartedNameTheLastStopped",
                      {STOPPED, STARTED, STOPPED},
                      PARTIAL_START,
                      "g2 is stopped"},
        CheckStateRow{
            "AllStopped", {STOPPED, STOPPED}, STOPPED, "all connector groups are stopped"},
        CheckStateRow{
            "AllStarted", {STARTED, STARTED}, STARTED, "all connector groups are started"},
        CheckStateRow{"NoGroups", {}, STOPPED, "no connector groups"}),
    [](const ::testing::TestParamInfo<CheckStateRow>& info) { return info.param.name; });

// ---- kyrSetState, kyrStart, kyrStop, kyrDestroy ---------------------------------------------

class HandleLifecycle : public HandleFixture {
 protected:
  std::vector<std::pair<KyrComponentState, std::string>> reports() {
    std::vector<std::pair<KyrComponentState, std::string>> out;
    for (const auto& change : stateChanges().of(kyr_))
      out.emplace_back(change.state, change.reason);
    return out;
  }
  // What a connector group's thread does when it has news: report under the control lock.
  static void report(KyrConnectorGroup* cg, KyrComponentState state) {
    kyr::ControlLockGuard guard("test group report");
    kyr::kyrConnectorGroupSetState(cg, state, "test report");
  }
};

using Reports = std::vector<std::pair<KyrComponentState, std::string>>;

TEST_F(HandleLifecycle, SetStateReportsChangesOnlyWithTheirReason) {
  kyr::kyrSetState(kyr_, STARTED, "because");
  kyr::kyrSetState(kyr_, STARTED, "again");
  EXPECT_EQ(reports(), (Reports{{STARTED, "because"}}));
  EXPECT_EQ(countPrinted("Library state changed from STOPPED to STARTED, reason: because"), 1);
  EXPECT_EQ(countPrinted("Library state changed from STARTED to STARTED, reason: again"), 0);
  kyr_->env.stateChange.kyr = nullptr;  // hosts need not listen
  kyr::kyrSetState(kyr_, STOPPED, "quietly");
  EXPECT_EQ(kyrGetState(kyr_), STOPPED);
}

TEST_F(HandleLifecycle, StoppedAndUsableFollowTheState) {
  const std::map<KyrComponentState, std::pair<bool, bool>> table = {
      {STARTING, {false, true}}, {STARTED, {false, true}},   {PARTIAL_START, {false, true}},
      {FAILED, {false, false}},  {STOPPING, {false, false}}, {STOPPED, {true, false}},
      {DELETED, {true, false}},  {INVALID, {false, false}}};
  for (const auto& [state, expected] : table) {
    kyr_->state = state;
    EXPECT_EQ(static_cast<bool>(kyrIsStopped(kyr_)), expected.first) << kyrState2String(state);
    EXPECT_EQ(static_cast<bool>(kyrIsUsable(kyr_)), expected.second) << kyrState2String(state);
  }
  kyr_->state = STOPPED;
}

TEST_F(HandleLifecycle, NullHandleIsRefused) {
  EXPECT_EQ(kyrStart(nullptr, -1), -1);
  EXPECT_EQ(kyrStop(nullptr), -1);
  kyrDestroy(nullptr);
  EXPECT_EQ(kyrGetState(nullptr), INVALID);
}

TEST_F(HandleLifecycle, StartWithoutWaitReturnsStartingAndASecondStartIsRefused) {
  EXPECT_EQ(kyrStart(kyr_, -1), 0);
  EXPECT_EQ(kyrGetState(kyr_), STARTING);
  EXPECT_EQ(countPrinted("KYR was started asynchronously\n"), 1);
  EXPECT_EQ(kyrStart(kyr_, -1), -1);
  EXPECT_EQ(kyrGetState(kyr_), STARTING);
  EXPECT_EQ(countPrinted("KYR is not startable; state=STARTING\n"), 1);
  EXPECT_EQ(reports(), (Reports{{STARTING, "starting"}}));
}

TEST_F(HandleLifecycle, OnlyStoppedAndFailedHandlesStart) {
  for (KyrComponentState state : {STARTED, PARTIAL_START, STOPPING, DELETED}) {
    kyr_->state = state;
    EXPECT_EQ(kyrStart(kyr_, -1), -1) << kyrState2String(state);
    EXPECT_EQ(kyr_->state.load(), state);
  }
  kyr_->state = FAILED;
  EXPECT_EQ(kyrStart(kyr_, -1), 0);
  EXPECT_EQ(kyrGetState(kyr_), STARTING);
}

TEST_F(HandleLifecycle, StartStartsEveryGroupInListOrder) {
  KyrConnectorGroup* a = kyrConnectorGroupCreate(kyr_, "a");
  KyrConnectorGroup* b = kyrConnectorGroupCreate(kyr_, "b");
  stateChanges().clear();
  EXPECT_EQ(kyrStart(kyr_, -1), 0);
  auto ofA = stateChanges().of(a);
  auto ofB = stateChanges().of(b);
  ASSERT_EQ(ofA.size(), 1u);
  ASSERT_EQ(ofB.size(), 1u);
  EXPECT_EQ(ofA[0].state, STARTING);
  EXPECT_EQ(ofB[0].state, STARTING);
  EXPECT_EQ(reports(), (Reports{{STARTING, "starting"}}));  // "b is starting" changes nothing
}

TEST_F(HandleLifecycle, TimeoutOfOneGivesUpWithoutSleeping) {
  // No group will ever report, so the handle stays STARTING and only the count can end the wait.
  EXPECT_EQ(kyrStart(kyr_, 1), 0);
  EXPECT_EQ(kyrGetState(kyr_), STARTING);
  EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"), 0);
  EXPECT_EQ(countPrinted("Timed out waiting for KYR initialization to complete\n"), 1);
  EXPECT_EQ(countPrinted("KYR initialization is complete\n"), 0);
}

TEST_F(HandleLifecycle, TimeoutOfTwoSleepsOnce) {
  EXPECT_EQ(kyrStart(kyr_, 2), 0);
  EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"), 1);
  EXPECT_EQ(countPrinted("Timed out waiting for KYR initialization to complete\n"), 1);
}

void startedAtOnce(KyrConnectorGroup* cg, KyrComponentState state, char*) {
  if (state == STARTING) kyr::kyrConnectorGroupSetState(cg, STARTED, "started at once");
}

TEST_F(HandleLifecycle, StartThatSettlesAtOnceDoesNotWait) {
  kyr_->env.stateChange.kyrConnectorGroup = startedAtOnce;
  kyrConnectorGroupCreate(kyr_, "quick");
  EXPECT_EQ(kyrStart(kyr_, 0), 0);
  EXPECT_EQ(kyrGetState(kyr_), STARTED);
  EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"), 0);
  EXPECT_EQ(countPrinted("KYR initialization is complete\n"), 1);
  EXPECT_EQ(reports(),
            (Reports{{STARTING, "starting"}, {STARTED, "all connector groups are started"}}));
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
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr_, "slow");
  std::promise<void> firstWait;
  waiting = &firstWait;
  trMgrSetPrintf(kyr_->trMgr, printAndNoticeWaiting);
  // The group's news arrives while the starter waits; it needs the control lock to report.
  std::thread group([&] {
    firstWait.get_future().wait();
    report(cg, STARTED);
  });
  EXPECT_EQ(kyrStart(kyr_, 30), 0);
  group.join();
  EXPECT_EQ(kyrGetState(kyr_), STARTED);
  EXPECT_EQ(countPrinted("Waiting for KYR initialization to complete ...\n"), 1);
  EXPECT_EQ(countPrinted("KYR initialization is complete\n"), 1);
  EXPECT_EQ(countPrinted("Timed out waiting for KYR initialization to complete\n"), 0);
}

TEST_F(HandleLifecycle, OnlyUsableHandlesStop) {
  EXPECT_EQ(kyrStop(kyr_), -1);
  kyr_->state = FAILED;
  EXPECT_EQ(kyrStop(kyr_), -1);
  kyr_->state = STOPPING;
  EXPECT_EQ(kyrStop(kyr_), -1);
  EXPECT_TRUE(reports().empty());
  kyr_->state = STOPPED;
  ASSERT_EQ(kyrStart(kyr_, -1), 0);
  EXPECT_EQ(kyrStop(kyr_), 0);
  // Without groups nobody reports the end of the stop.
  EXPECT_EQ(reports(), (Reports{{STARTING, "starting"}, {STOPPING, "stopping initiated"}}));
}

TEST_F(HandleLifecycle, StopEndsStoppedThroughTheGroupsReports) {
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr_, "cg1");
  ASSERT_EQ(kyrStart(kyr_, -1), 0);
  report(cg, STARTED);
  EXPECT_EQ(kyrStop(kyr_), 0);
  EXPECT_EQ(kyrGetState(kyr_), STOPPED);
  EXPECT_EQ(reports(), (Reports{{STARTING, "starting"},
                                {STARTED, "all connector groups are started"},
                                {STOPPING, "stopping initiated"},
                                {STOPPED, "all connector groups are stopped"}}));
}

TEST_F(HandleLifecycle, DestroyStopsDeletesTheGroupsAndEndsDeleted) {
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr_, "cg1");
  ASSERT_EQ(kyrStart(kyr_, -1), 0);
  report(cg, STARTED);
  Kyr* kyr = kyr_;
  kyr_ = nullptr;
  kyrDestroy(kyr);
  auto changes = stateChanges().of(kyr);
  ASSERT_EQ(changes.size(), 5u);
  EXPECT_EQ(changes[2].state, STOPPING);
  EXPECT_EQ(changes[3].state, STOPPED);
  EXPECT_EQ(changes[4].state, DELETED);
  EXPECT_EQ(changes[4].reason, "deleted");
  EXPECT_EQ(countPrinted("kyrDestroy entry\n"), 1);
  EXPECT_EQ(countPrinted("kyrDestroy2: enter"), 1);
  EXPECT_EQ(countPrinted("connector group deleted: cg1\n"), 1);
}

// ---- References -------------------------------------------------------------------------------

class HandleReferences : public HandleFixture {};

TEST_F(HandleReferences, ObtainAndReleaseAreCountedAndTraced) {
  int start = kyr_->refcnt;
  kyrObtainRef(kyr_, "test holder");
  EXPECT_EQ(kyr_->refcnt.load(), start + 1);
  kyrReleaseRef(kyr_, "test holder");
  EXPECT_EQ(kyr_->refcnt.load(), start);
  EXPECT_EQ(countPrinted("Obtained reference to kyr, refcnt: " + std::to_string(start + 1) +
                         ", reason: test holder\n"),
            1);
  EXPECT_EQ(countPrinted("Released reference to kyr, refcnt: " + std::to_string(start) +
                         ", reason: test holder\n"),
            1);
}

// The host's endpoint objects: counted, so a test sees each creation and deletion.
struct HostEndpoint {
  std::string name;
};
std::atomic<int> hostCreates{0};
std::atomic<int> hostDeletes{0};
bool hostRefuses = false;

EnvTargetEndpoint* hostCreate(KyrTargetEndpoint* tep) {
  if (hostRefuses) return nullptr;
  ++hostCreates;
  return reinterpret_cast<EnvTargetEndpoint*>(new HostEndpoint{tep->name});
}
int hostDelete(EnvTargetEndpoint* object) {
  ++hostDeletes;
  delete reinterpret_cast<HostEndpoint*>(object);
  return 0;
}

void useHostEndpoints(Kyr* kyr) {
  hostCreates = 0;
  hostDeletes = 0;
  hostRefuses = false;
  kyr->env.targetEndpoint.create = hostCreate;
  kyr->env.targetEndpoint.KYR_DELETE_MEMBER = hostDelete;
}

KyrTargetEndpoint endpointNamed(const char* name) {
  KyrTargetEndpoint tep{};
  tep.name = const_cast<char*>(name);
  return tep;
}

TEST(HandleMemory, DestroyWhileAnotherThreadHoldsAReferenceFreesOnlyAtTheLastRelease) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  useHostEndpoints(kyr);
  KyrTargetEndpoint probe = endpointNamed("probe");
  ASSERT_NE(kyr::envTargetEndPointObtainRef(kyr, &probe), nullptr);

  kyrObtainRef(kyr, "holder");
  std::promise<void> letGo;
  std::thread holder([&] {
    letGo.get_future().wait();
    kyrReleaseRef(kyr, "holder");
  });
  kyrDestroy(kyr);
  // Destroyed, yet still readable by the holder: nothing of it has been freed.
  EXPECT_EQ(kyr->state.load(), DELETED);
  EXPECT_EQ(kyr->refcnt.load(), 1);
  EXPECT_EQ(hostDeletes.load(), 0);
  EXPECT_GT(kyr::kyrGetMemCount(), baseline);

  letGo.set_value();
  holder.join();
  EXPECT_EQ(hostDeletes.load(), 1);  // endpoint objects still held go back to the host
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

TEST(HandleMemory, CreateAndDestroyLeaveTheCounterWhereItWas) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  for (int i = 0; i < 3; ++i) {
    Kyr* kyr = host.create();
    ASSERT_NE(kyr, nullptr);
    KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr, "cg");
    ASSERT_EQ(kyrStart(kyr, -1), 0);
    kyrSetServerCustomProperty(kyr, "cp.vq.MaxHttpContextPoolSize", "3");
    kyrSetProperty(kyr, "DefaultRequestTraceSpec", "control:DEBUG");
    (void)cg;
    kyrDestroy(kyr);
    // The worker's last frees are done by the time kyrDestroy returns: no waiting here.
    kyr::trPurgeDeathRow();
    EXPECT_EQ(baseline, kyr::kyrGetMemCount()) << "round " << i;
  }
}

// ---- Host endpoint references -----------------------------------------------------------------

class HandleEndpointRefs : public HandleFixture {
 protected:
  void SetUp() override {
    HandleFixture::SetUp();
    useHostEndpoints(kyr_);
  }
};

TEST_F(HandleEndpointRefs, EndpointsOfOneNameShareOneHostObject) {
  KyrTargetEndpoint first = endpointNamed("ep1");
  KyrTargetEndpoint second = endpointNamed("ep1");
  EnvTargetEndpoint* object = kyr::envTargetEndPointObtainRef(kyr_, &first);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(kyr::envTargetEndPointObtainRef(kyr_, &second), object);
  EXPECT_EQ(hostCreates.load(), 1);
  kyr::envTargetEndPointReleaseRef(kyr_, &first);
  EXPECT_EQ(hostDeletes.load(), 0);
  kyr::envTargetEndPointReleaseRef(kyr_, &second);
  EXPECT_EQ(hostDeletes.load(), 1);
  EXPECT_EQ(kyr_->endPointRefMap->count, 0);
}

TEST_F(HandleEndpointRefs, ObtainAndReleaseAreTracedWithTheCount) {
  KyrTargetEndpoint tep = endpointNamed("ep1");
  kyr::envTargetEndPointObtainRef(kyr_, &tep);
  kyr::envTargetEndPointObtainRef(kyr_, &tep);
  kyr::envTargetEndPointReleaseRef(kyr_, &tep);
  kyr::envTargetEndPointReleaseRef(kyr_, &tep);
  ASSERT_EQ(printed().size(), 4u);
  EXPECT_NE(printed()[0].text.find("envTargetEndPointObtainRef ref="), std::string::npos);
  EXPECT_NE(printed()[1].text.find(", cnt=2, name='ep1'\n"), std::string::npos);
  EXPECT_NE(printed()[2].text.find("envTargetEndPointReleaseRef ref="), std::string::npos);
  EXPECT_NE(printed()[3].text.find(", cnt=0, name='ep1'\n"), std::string::npos);
}

TEST_F(HandleEndpointRefs, HostRefusingAnObjectLeavesNothingStored) {
  hostRefuses = true;
  KyrTargetEndpoint tep = endpointNamed("ep1");
  EXPECT_EQ(kyr::envTargetEndPointObtainRef(kyr_, &tep), nullptr);
  EXPECT_EQ(kyr_->endPointRefMap->count, 0);
  hostRefuses = false;
  EXPECT_NE(kyr::envTargetEndPointObtainRef(kyr_, &tep), nullptr);  // asked again next time
  kyr::envTargetEndPointReleaseRef(kyr_, &tep);
}

TEST_F(HandleEndpointRefs, HostWithoutEndpointObjectsGetsNone) {
  kyr_->env.targetEndpoint.create = nullptr;
  KyrTargetEndpoint tep = endpointNamed("ep1");
  EXPECT_EQ(kyr::envTargetEndPointObtainRef(kyr_, &tep), nullptr);
  EXPECT_EQ(kyr_->endPointRefMap->count, 0);
}

TEST_F(HandleEndpointRefs, ReleaseOfAnUnknownNameIsIgnored) {
  KyrTargetEndpoint tep = endpointNamed("never");
  kyr::envTargetEndPointReleaseRef(kyr_, &tep);
  EXPECT_EQ(hostDeletes.load(), 0);
}

// ---- The worker thread ------------------------------------------------------------------------

// Work items of these tests: each records its tag, in the order the worker ran them.
struct Journal {
  std::mutex lock;
  std::vector<std::string> ran;
  std::thread::id worker;
  std::promise<void> done;
  std::string last;  // the tag whose run completes `done`
  void note(const std::string& tag) {
    std::lock_guard<std::mutex> guard(lock);
    ran.push_back(tag);
    worker = std::this_thread::get_id();
    if (tag == last) done.set_value();
  }
};

struct Item {
  Journal* journal;
  std::string tag;
  std::shared_future<void> gate = {};     // when valid, the item waits for it before it finishes
  std::string queueFromCallback = {};     // when set, queues an item of that tag while running
  std::promise<void>* entered = nullptr;  // when set, told that the worker runs the item
};

void runItem(Kyr* kyr, void* obj) {
  std::unique_ptr<Item> item(static_cast<Item*>(obj));
  if (item->entered != nullptr) item->entered->set_value();
  if (item->gate.valid()) item->gate.wait();
  if (!item->queueFromCallback.empty()) {
    kyr::kyrProcessAsync(kyr, new Item{item->journal, item->queueFromCallback}, runItem);
  }
  item->journal->note(item->tag);
}

// Queues an item that holds the worker until `open` is given; returns once the worker runs it,
// so that what is queued next waits in the queue.
void holdWorker(Kyr* kyr, Journal* journal, std::promise<void>& open) {
  std::promise<void> entered;
  kyr::kyrProcessAsync(kyr, new Item{journal, "gate", open.get_future().share(), {}, &entered},
                       runItem);
  entered.get_future().wait();
}

class HandleAsyncWork : public HandleFixture {
 protected:
  void queue(const std::string& tag, const std::string& queueFromCallback = {}) {
    kyr::kyrProcessAsync(kyr_, new Item{&journal_, tag, {}, queueFromCallback}, runItem);
  }
  bool finished() {
    return journal_.done.get_future().wait_for(kGenerous) == std::future_status::ready;
  }
  Journal journal_;
};

TEST_F(HandleAsyncWork, ItemsRunInQueueOrderOnTheWorkerThread) {
  journal_.last = "5";
  for (const char* tag : {"1", "2", "3", "4", "5"}) queue(tag);
  ASSERT_TRUE(finished());
  EXPECT_EQ(journal_.ran, (std::vector<std::string>{"1", "2", "3", "4", "5"}));
  EXPECT_NE(journal_.worker, std::this_thread::get_id());
}

TEST_F(HandleAsyncWork, ItemQueuedByACallbackRunsInTheNextBatchAfterTheRest) {
  std::promise<void> open;
  journal_.last = "c";
  holdWorker(kyr_, &journal_, open);
  // Queued while the worker is held by the gate, so a and b form the next batch together.
  queue("a", "c");
  queue("b");
  open.set_value();
  // Queuing c from a's callback needs the queue lock: a batch run under it would hang here.
  ASSERT_TRUE(finished());
  EXPECT_EQ(journal_.ran, (std::vector<std::string>{"gate", "a", "b", "c"}));
}

TEST(HandleAsyncWorkEnd, DestroyWithItemsPendingRunsThemAndLeavesNothing) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  Journal journal;
  journal.last = "p9";
  std::promise<void> open;
  holdWorker(kyr, &journal, open);
  for (int i = 0; i < 10; ++i) {
    kyr::kyrProcessAsync(kyr, new Item{&journal, "p" + std::to_string(i)}, runItem);
  }
  std::thread destroyer([&] { kyrDestroy(kyr); });
  // Let the worker go only once destroy is waiting for it, so the items are pending at destroy.
  for (bool asked = false; !asked; std::this_thread::yield()) {
    kyr::kyrConditionObtainLock(kyr->asyncWorkCondition, "test");
    asked = kyr->asyncWorkStopRequested;
    kyr::kyrConditionReleaseLock(kyr->asyncWorkCondition);
  }
  open.set_value();
  destroyer.join();
  EXPECT_EQ(journal.ran.size(), 11u);
  EXPECT_EQ(journal.ran.back(), "p9");
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

std::promise<void>* handleFreed = nullptr;
int noteFreed(EnvTargetEndpoint* object) {
  delete reinterpret_cast<HostEndpoint*>(object);
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
  host.env.trace.printf = nullptr;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  // An endpoint object left with the handle tells when the handle is freed.
  std::promise<void> freed;
  handleFreed = &freed;
  kyr->env.targetEndpoint.create = hostCreate;
  kyr->env.targetEndpoint.KYR_DELETE_MEMBER = noteFreed;
  KyrTargetEndpoint probe = endpointNamed("probe");
  ASSERT_NE(kyr::envTargetEndPointObtainRef(kyr, &probe), nullptr);

  Journal journal;
  journal.last = "after";
  std::promise<void> open;
  holdWorker(kyr, &journal, open);
  kyr::kyrProcessAsync(kyr, &journal, destroyFromWorker);
  kyr::kyrProcessAsync(kyr, new Item{&journal, "after"}, runItem);
  open.set_value();
  ASSERT_EQ(freed.get_future().wait_for(kGenerous), std::future_status::ready);
  EXPECT_EQ(journal.ran, (std::vector<std::string>{"gate", "destroyed", "after"}));
  // The worker finishes the free after handing the endpoint back; wait for the last block.
  for (int spins = 0; kyr::kyrGetMemCount() != baseline && spins < 100000; ++spins) {
    kyr::trPurgeDeathRow();
    std::this_thread::yield();
  }
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
