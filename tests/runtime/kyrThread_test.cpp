// Library threads: threadInit runs first on the new thread, the start record is freed, and an
// alarm fires once after its delay rounded up to a whole second.
#include "runtime/kyrThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrTime.h"

namespace kyr {
namespace {

thread_local bool t_initialised = false;
std::atomic<int> g_initCalls{0};

void hostThreadInit() {
  t_initialised = true;
  g_initCalls++;
}

struct RunReport {
  bool initialisedFirst;
  pthread_t self;
};

void reportRun(void* arg) {
  static_cast<std::promise<RunReport>*>(arg)->set_value({t_initialised, pthread_self()});
}

EnvCallBacks hostWithInit() {
  EnvCallBacks env{};
  env.version = KYR_ENV_CALLBACKS_VERSION;
  env.threadInit = hostThreadInit;
  return env;
}

// The counted start and alarm records are freed just after the work runs; wait for that.
bool memCountReturnsTo(int expected) {
  for (int i = 0; i < 500 && kyrGetMemCount() != expected; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return kyrGetMemCount() == expected;
}

TEST(Thread, RunsTheHostsThreadInitOnTheNewThreadBeforeTheWorkWhenThereIsOne) {
  const EnvCallBacks withInit = hostWithInit();
  const EnvCallBacks noInit{};
  for (const EnvCallBacks* env : {&withInit, &noInit, static_cast<const EnvCallBacks*>(nullptr)}) {
    int before = kyrGetMemCount();
    std::promise<RunReport> done;
    KyrThread* thread = kyrThreadCreate(reportRun, &done, env);
    ASSERT_NE(thread, nullptr);
    RunReport report = done.get_future().get();
    EXPECT_EQ(report.initialisedFirst, env == &withInit);
    EXPECT_EQ(thread, reinterpret_cast<KyrThread*>(report.self));
    EXPECT_TRUE(memCountReturnsTo(before));
    kyrThreadDestroy(thread);
  }
  EXPECT_FALSE(t_initialised);  // not on the creating thread
}

std::atomic<int> g_alarmCalls{0};
void countAlarm(void* arg) {
  g_alarmCalls++;
  static_cast<std::promise<KyrTime>*>(arg)->set_value(kyrGetCurrentTime());
}

TEST(Thread, AlarmFiresOnceOnAnInitialisedThreadAfterAWholeSecond) {
  EnvCallBacks env = hostWithInit();
  int initsBefore = g_initCalls;
  int before = kyrGetMemCount();
  std::promise<KyrTime> fired;
  KyrTime start = kyrGetCurrentTime();
  ASSERT_EQ(kyrSetAlarm(countAlarm, &fired, 1, &env), 0);
  KyrTime firedAt = fired.get_future().get();
  EXPECT_GE(firedAt - start, 990u);  // 1 ms rounds up to one second
  EXPECT_TRUE(memCountReturnsTo(before));
  EXPECT_EQ(g_alarmCalls, 1);
  EXPECT_EQ(g_initCalls, initsBefore + 1);
}

}  // namespace
}  // namespace kyr
