// Locks, counters and conditions hammered from real threads; ThreadSanitizer runs these.
#include "runtime/kyrLock.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace kyr {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;

template <class Fn>
void runOnThreads(Fn body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

TEST(RuntimeConcurrency, CounterIncrementsAreNeitherLostNorDuplicated) {
  KyrAtomicCounter* counter = kyrAtomicCounterCreate("hits", 0);
  std::vector<std::vector<int>> seen(kThreads);
  runOnThreads([&](int t) {
    for (int i = 0; i < kRounds; ++i) seen[t].push_back(kyrAtomicCounterIncrement(counter, "w"));
  });
  std::set<int> all;
  for (const auto& values : seen) all.insert(values.begin(), values.end());
  EXPECT_EQ(kyrAtomicCounterGetValue(counter), kThreads * kRounds);
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kRounds));  // each value handed out once
  EXPECT_EQ(*all.begin(), 1);                                      // the new value, not the old
  kyrAtomicCounterDestroy(counter);
}

TEST(RuntimeConcurrency, GuardedDataStaysConsistentUnderContention) {
  KyrLock* lock = kyrLockCreate("data");
  long total = 0;    // guarded by lock
  long updates = 0;  // guarded by lock
  runOnThreads([&](int t) {
    for (int i = 0; i < kRounds; ++i) {
      KyrLockGuard guard(lock, "worker");
      total += t + 1;
      ++updates;
    }
  });
  EXPECT_EQ(updates, kThreads * kRounds);
  EXPECT_EQ(total, static_cast<long>(kRounds) * (kThreads * (kThreads + 1) / 2));
  kyrLockDestroy(lock);
  kyrLockDestroy(nullptr);
}

TEST(RuntimeConcurrency, ConditionWakesAWaiterForEachItem) {
  KyrCondition* condition = kyrConditionCreate("queue");
  int queued = 0;  // guarded by the condition's lock
  int consumed = 0;
  std::thread consumer([&] {
    kyrConditionObtainLock(condition, "consumer");
    while (consumed < kRounds / 10) {
      while (queued == 0) kyrConditionWait(condition);
      --queued;
      ++consumed;
    }
    kyrConditionReleaseLock(condition);
  });
  for (int i = 0; i < kRounds / 10; ++i) {
    kyrConditionObtainLock(condition, "producer");
    ++queued;
    kyrConditionSignal(condition);
    kyrConditionReleaseLock(condition);
  }
  consumer.join();
  EXPECT_EQ(consumed, kRounds / 10);
  EXPECT_EQ(queued, 0);
  kyrConditionDestroy(condition);
}

}  // namespace
}  // namespace kyr
