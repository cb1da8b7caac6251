// Wrapping millisecond time, the interval averagers and the random source. The averagers are
// not locked: their owners hold the lock of the object they measure.
#include "runtime/kyrTime.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

namespace kyr {

KyrTime kyrGetCurrentTime() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  uint64_t ms = static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
  return static_cast<KyrTime>(ms);
}

KyrTime kyrTimeFromSeconds(unsigned s) { return s * 1000; }

KyrTime kyrTimeFromMilliSeconds(unsigned ms) { return ms; }

KyrTime kyrTimeElapsedMilliSeconds(KyrTime started) { return kyrGetCurrentTime() - started; }

int kyrGetMyPid() { return static_cast<int>(getpid()); }

void kyrSleep(unsigned seconds) { sleep(seconds); }

struct tm* kyrLocalTime(const time_t* timep, struct tm* result) {
  return localtime_r(timep, result);
}

void kyrAvgCalcInit(KyrAvgCalc* calc, KyrTime intervalLength) {
  // intervalEnd 0 is deliberate: a fresh averager reports its first sample as the average.
  *calc = KyrAvgCalc{intervalLength, 0, 0, 0};
}

KyrTime kyrAvgCalcAddSample(KyrAvgCalc* calc, KyrTime curTime, KyrTime sample) {
  calc->count++;
  calc->total += sample;
  if (curTime < calc->intervalEnd) return static_cast<KyrTime>(-1);
  calc->intervalEnd = curTime + calc->intervalLength;
  auto avg = static_cast<KyrTime>(calc->total / static_cast<unsigned long>(calc->count));
  calc->count = 0;
  calc->total = 0;
  return avg;
}

void kyrTimeoutCalcInit(KyrTimeoutCalc* calc, KyrTime intervalLength) {
  *calc = KyrTimeoutCalc{intervalLength, 0, 0, 0};
}

long kyrTimeoutCalcAddSample(KyrTimeoutCalc* calc, KyrTime curTime, bool timeout) {
  calc->completionCount++;
  if (timeout) calc->timeoutCount++;
  if (curTime < calc->intervalEnd) return -1;
  calc->intervalEnd = curTime + calc->intervalLength;
  long percent = calc->timeoutCount * 100 / calc->completionCount;
  calc->completionCount = 0;
  calc->timeoutCount = 0;
  return percent;
}

namespace {

// getpid is a system call on every use, and percentage rules draw once per request; the
// process id is remembered, and renewed in a forked child.
pid_t processId() {
  static pid_t pid = [] {
    pthread_atfork(nullptr, nullptr, [] { pid = getpid(); });
    return getpid();
  }();
  return pid;
}

}  // namespace

int kyrRandom() {
  // Seeded afresh per call so concurrent threads share no generator state.
  auto seed = static_cast<unsigned>(kyrGetCurrentTime()) +
              static_cast<unsigned>(processId()) * static_cast<unsigned>(pthread_self());
  return rand_r(&seed);
}

}  // namespace kyr
