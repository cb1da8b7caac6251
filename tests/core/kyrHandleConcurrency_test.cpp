// The handle under real threads (these suites also run under ThreadSanitizer): start, stop,
// destroy and references from several threads, the host's endpoint objects shared by routing
// versions built on different threads, and producers feeding one worker.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/kyrHandleTestUtil.h"

namespace {

using namespace kyrtest;

constexpr int kThreads = 4;

// Runs body(t) for t in [0, kThreads) on threads released together, and waits for them all.
void onThreads(const std::function<void(int)>& body) {
  std::latch go(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      go.arrive_and_wait();
      body(t);
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST(HandleConcurrency, StartStopAndReferencesFromSeveralThreads) {
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  SilentPublisher publisher;
  KyrConnectorGroup* groups[] = {heldGroup(kyr, "a", publisher), heldGroup(kyr, "b", publisher)};
  int refsBefore = kyr->refcnt;
  onThreads([&](int t) {
    for (int i = 0; i < 200; ++i) {
      kyrObtainRef(kyr, "stress");
      int rc = kyrStart(kyr, -1);
      EXPECT_TRUE(rc == 0 || rc == -1);
      reportGroupState(groups[(t + i) % 2], STARTED);
      (void)kyrIsUsable(kyr);
      rc = kyrStop(kyr);
      EXPECT_TRUE(rc == 0 || rc == -1);
      kyrReleaseRef(kyr, "stress");
    }
  });
  EXPECT_EQ(kyr->refcnt.load(), refsBefore);
  // Whatever the interleaving left behind, the groups' next reports decide the state again.
  reportGroupState(groups[0], STARTED);
  reportGroupState(groups[1], STARTED);
  EXPECT_EQ(kyrGetState(kyr), STARTED);
  reportGroupState(groups[0], STOPPED);
  EXPECT_EQ(kyrGetState(kyr), PARTIAL_START);
  kyrDestroy(kyr);
}

TEST(HandleConcurrency, HandlesComeAndGoOnSeveralThreadsAtOnce) {
  int baseline = settledMemCount();
  SilentPublisher publisher;
  onThreads([&](int) {
    kyrtest::TestHost host;
    for (int i = 0; i < 5; ++i) {
      Kyr* kyr = quietHandle(host);
      KyrConnectorGroup* cg = heldGroup(kyr, "cg", publisher);
      EXPECT_EQ(kyrStart(kyr, -1), 0);
      reportGroupState(cg, STARTED);
      EXPECT_EQ(kyrStop(kyr), 0);
      kyrDestroy(kyr);
    }
  });
  EXPECT_EQ(baseline, settledMemCount());  // requests still in flight at destroy free later
}

TEST(HandleConcurrency, DestroyRacingTheHoldersReleasesFreesExactlyOnce) {
  int baseline = settledMemCount();
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  constexpr int kRefsPerThread = 50;
  for (int i = 0; i < (kThreads - 1) * kRefsPerThread; ++i) kyrObtainRef(kyr, "holder");
  onThreads([&](int t) {
    if (t == 0) {
      kyrDestroy(kyr);
    } else {
      for (int i = 0; i < kRefsPerThread; ++i) kyrReleaseRef(kyr, "holder");
    }
  });
  kyr::trPurgeDeathRow();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

TEST(HandleEndpointRefConcurrency, VersionsOnSeveralThreadsShareOneObjectPerName) {
  kyrtest::TestHost host;
  kyrtest::useHostEndpoints(host.env);
  Kyr* kyr = quietHandle(host);
  constexpr int kNames = 3;
  // What each thread held while every thread held every name: one object per name, or two
  // versions would each talk to an endpoint object of their own.
  EnvTargetEndpoint* held[kThreads][kNames] = {};
  std::latch allHold(kThreads);
  onThreads([&](int t) {
    // Each thread stands for one routing version holding endpoints of the same names.
    KyrTargetEndpoint endpoints[kNames] = {kyrtest::endpointNamed("ep0"),
                                           kyrtest::endpointNamed("ep1"),
                                           kyrtest::endpointNamed("ep2")};
    for (int k = 0; k < kNames; ++k)
      held[t][k] = kyr::envTargetEndPointObtainRef(kyr, &endpoints[k]);
    allHold.arrive_and_wait();
    for (int i = 0; i < 500; ++i) {
      KyrTargetEndpoint& tep = endpoints[(t + i) % kNames];
      EnvTargetEndpoint* object = kyr::envTargetEndPointObtainRef(kyr, &tep);
      ASSERT_NE(object, nullptr);
      EXPECT_EQ(reinterpret_cast<kyrtest::HostEndpoint*>(object)->name, tep.name);
      kyr::envTargetEndPointReleaseRef(kyr, &tep);
    }
    for (KyrTargetEndpoint& tep : endpoints) kyr::envTargetEndPointReleaseRef(kyr, &tep);
  });
  for (int k = 0; k < kNames; ++k) {
    ASSERT_NE(held[0][k], nullptr);
    for (int t = 1; t < kThreads; ++t) EXPECT_EQ(held[t][k], held[0][k]) << "thread " << t;
  }
  EXPECT_EQ(kyr->endPointRefMap->count, 0);
  kyrtest::HostEndpoints& objects = kyrtest::hostEndpoints();
  EXPECT_FALSE(objects.duplicate);
  EXPECT_EQ(objects.creates, objects.deletes);
  kyrDestroy(kyr);
}

// Items of the producers below: each producer's sequence numbers must arrive in order.
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
  std::unique_ptr<Produced> item(static_cast<Produced*>(obj));
  std::lock_guard<std::mutex> guard(consumed->lock);
  if (consumed->nextSeq[item->producer]++ != item->seq) consumed->outOfOrder = true;
  if (++consumed->total == kThreads * kItemsPerProducer) consumed->all.set_value();
}

TEST(HandleAsyncWorkConcurrency, ItemsFromSeveralProducersRunOnceEachInEachProducersOrder) {
  kyrtest::TestHost host;
  Kyr* kyr = quietHandle(host);
  Consumed sink;
  consumed = &sink;
  onThreads([&](int t) {
    for (int i = 0; i < kItemsPerProducer; ++i) {
      kyr::kyrProcessAsync(kyr, new Produced{t, i}, consume);
    }
  });
  ASSERT_EQ(sink.all.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  kyrDestroy(kyr);
  EXPECT_FALSE(sink.outOfOrder);
}

}  // namespace
