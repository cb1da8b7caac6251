// The handle under real threads (these suites also run under ThreadSanitizer): start, stop,
// destroy and references from several threads, the host's endpoint objects shared by routing
// versions built on different threads, and producers feeding one worker.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrHandleTestUtil.h"
#include "selection/kyrTargetSelector.h"

namespace {

using kyrtest::settledMemCount;

constexpr int kThreads = 4;

Kyr* quietHandle(kyrtest::TestHost& host) {
  host.env.trace.printf = nullptr;
  return host.create();
}

// What a connector group's thread does when it has news: report under the control lock.
void report(KyrConnectorGroup* cg, KyrComponentState state) {
  kyr::ControlLockGuard guard("test group report");
  kyr::kyrConnectorGroupSetState(cg, state, "test report");
}

TEST(HandleConcurrency, StartStopAndReferencesFromSeveralThreads) {
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  ASSERT_NE(kyr, nullptr);
  KyrConnectorGroup* groups[] = {kyrConnectorGroupCreate(kyr, "a"),
                                 kyrConnectorGroupCreate(kyr, "b")};
  int refsBefore = kyr->refcnt;
  std::latch go(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      go.arrive_and_wait();
      for (int i = 0; i < 200; ++i) {
        kyrObtainRef(kyr, "stress");
        int rc = kyrStart(kyr, -1);
        EXPECT_TRUE(rc == 0 || rc == -1);
        report(groups[(t + i) % 2], STARTED);
        (void)kyrIsUsable(kyr);
        (void)kyrGetState(kyr);
        rc = kyrStop(kyr);
        EXPECT_TRUE(rc == 0 || rc == -1);
        kyrReleaseRef(kyr, "stress");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kyr->refcnt.load(), refsBefore);
  // Whatever the interleaving left behind, the groups' next reports decide the state again.
  report(groups[0], STARTED);
  report(groups[1], STARTED);
  EXPECT_EQ(kyrGetState(kyr), STARTED);
  report(groups[0], STOPPED);
  EXPECT_EQ(kyrGetState(kyr), PARTIAL_START);
  kyrDestroy(kyr);
}

TEST(HandleConcurrency, HandlesComeAndGoOnSeveralThreadsAtOnce) {
  int baseline = settledMemCount();
  std::latch go(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      kyrtest::TestHost host;
      go.arrive_and_wait();
      for (int i = 0; i < 5; ++i) {
        Kyr* kyr = quietHandle(host);
        ASSERT_NE(kyr, nullptr);
        KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr, "cg");
        EXPECT_EQ(kyrStart(kyr, -1), 0);
        report(cg, STARTED);
        EXPECT_EQ(kyrStop(kyr), 0);
        kyrDestroy(kyr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

TEST(HandleConcurrency, DestroyRacingTheHoldersReleasesFreesExactlyOnce) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  ASSERT_NE(kyr, nullptr);
  constexpr int kRefsPerThread = 50;
  for (int i = 0; i < kThreads * kRefsPerThread; ++i) kyrObtainRef(kyr, "holder");
  std::latch go(kThreads + 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      go.arrive_and_wait();
      for (int i = 0; i < kRefsPerThread; ++i) kyrReleaseRef(kyr, "holder");
    });
  }
  go.arrive_and_wait();
  kyrDestroy(kyr);
  for (auto& thread : threads) thread.join();
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

TEST(HandleConcurrency, ControlLockSerialisesStartAgainstAHolder) {
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  ASSERT_NE(kyr, nullptr);
  std::promise<void> locked;
  std::promise<void> letGo;
  std::thread holder([&] {
    kyrControlLock("test holder");
    locked.set_value();
    letGo.get_future().wait();
    // Still ours: the starter below cannot have changed the state yet.
    EXPECT_EQ(kyrGetState(kyr), STOPPED);
    kyrControlUnlock();
  });
  locked.get_future().wait();
  std::thread starter([&] { EXPECT_EQ(kyrStart(kyr, -1), 0); });
  letGo.set_value();
  starter.join();
  holder.join();
  EXPECT_EQ(kyrGetState(kyr), STARTING);
  kyrDestroy(kyr);
}

// ---- Host endpoint objects shared by versions on different threads ----------------------------

struct HostObjects {
  std::mutex lock;
  std::map<std::string, int> live;  // host objects alive per endpoint name
  int creates = 0;
  int deletes = 0;
  bool duplicate = false;  // two live objects for one name
};
HostObjects hostObjects;

struct HostEndpoint {
  std::string name;
};

EnvTargetEndpoint* hostCreate(KyrTargetEndpoint* tep) {
  std::lock_guard<std::mutex> guard(hostObjects.lock);
  ++hostObjects.creates;
  if (++hostObjects.live[tep->name] > 1) hostObjects.duplicate = true;
  return reinterpret_cast<EnvTargetEndpoint*>(new HostEndpoint{tep->name});
}

int hostDelete(EnvTargetEndpoint* object) {
  auto* endpoint = reinterpret_cast<HostEndpoint*>(object);
  {
    std::lock_guard<std::mutex> guard(hostObjects.lock);
    ++hostObjects.deletes;
    --hostObjects.live[endpoint->name];
  }
  delete endpoint;
  return 0;
}

TEST(HandleEndpointRefConcurrency, VersionsOnSeveralThreadsShareOneObjectPerName) {
  kyrtest::TestHost host;
  host.env.targetEndpoint.create = hostCreate;
  host.env.targetEndpoint.KYR_DELETE_MEMBER = hostDelete;
  Kyr* kyr = quietHandle(host);
  ASSERT_NE(kyr, nullptr);
  const char* names[] = {"ep0", "ep1", "ep2"};
  std::latch go(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread stands for one routing version holding endpoints of the same names.
      KyrTargetEndpoint endpoints[3] = {};
      for (int n = 0; n < 3; ++n) endpoints[n].name = const_cast<char*>(names[n]);
      go.arrive_and_wait();
      for (int i = 0; i < 500; ++i) {
        KyrTargetEndpoint& tep = endpoints[(t + i) % 3];
        EnvTargetEndpoint* object = kyr::envTargetEndPointObtainRef(kyr, &tep);
        EXPECT_NE(object, nullptr);
        EXPECT_EQ(reinterpret_cast<HostEndpoint*>(object)->name, tep.name);
        kyr::envTargetEndPointReleaseRef(kyr, &tep);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kyr->endPointRefMap->count, 0);
  {
    std::lock_guard<std::mutex> guard(hostObjects.lock);
    EXPECT_FALSE(hostObjects.duplicate);
    EXPECT_EQ(hostObjects.creates, hostObjects.deletes);
    for (const auto& [name, count] : hostObjects.live) EXPECT_EQ(count, 0) << name;
  }
  kyrDestroy(kyr);
}

// ---- Producers feeding the worker -------------------------------------------------------------

struct Produced {
  int producer;
  int seq;
};

struct Consumed {
  std::mutex lock;
  std::vector<int> nextSeq = std::vector<int>(kThreads, 0);
  int total = 0;
  bool outOfOrder = false;
  std::promise<void> all;
};
Consumed* consumed = nullptr;
constexpr int kItemsPerProducer = 300;

void consume(Kyr*, void* obj) {
  auto* item = static_cast<Produced*>(obj);
  std::lock_guard<std::mutex> guard(consumed->lock);
  if (consumed->nextSeq[item->producer]++ != item->seq) consumed->outOfOrder = true;
  if (++consumed->total == kThreads * kItemsPerProducer) consumed->all.set_value();
  delete item;
}

TEST(HandleAsyncWorkConcurrency, ItemsFromSeveralProducersRunOnceEachInEachProducersOrder) {
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  ASSERT_NE(kyr, nullptr);
  Consumed sink;
  consumed = &sink;
  std::latch go(kThreads);
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      go.arrive_and_wait();
      for (int i = 0; i < kItemsPerProducer; ++i) {
        kyr::kyrProcessAsync(kyr, new Produced{t, i}, consume);
      }
    });
  }
  for (auto& producer : producers) producer.join();
  ASSERT_EQ(sink.all.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  kyrDestroy(kyr);
  EXPECT_FALSE(sink.outOfOrder);
}

}  // namespace
