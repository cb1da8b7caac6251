// Millisecond time (32-bit, wrapping, compared unsigned), the interval averagers that feed
// load balancing and health checks, and the random source of rule evaluation.
#pragma once

#include <cstdint>
#include <ctime>

namespace kyr {

using KyrTime = uint32_t;

KyrTime kyrGetCurrentTime();
KyrTime kyrTimeFromSeconds(unsigned s);
KyrTime kyrTimeFromMilliSeconds(unsigned ms);
KyrTime kyrTimeElapsedMilliSeconds(KyrTime started);
int kyrGetMyPid();
void kyrSleep(unsigned seconds);
struct tm* kyrLocalTime(const time_t* timep, struct tm* result);

struct KyrAvgCalc {
  KyrTime intervalLength;
  KyrTime intervalEnd;
  long count;
  KyrTime total;
};

struct KyrTimeoutCalc {
  KyrTime intervalLength;
  KyrTime intervalEnd;
  long completionCount;
  long timeoutCount;
};

// Both return (KyrTime)-1 / -1 while the interval is still open, else the interval's result.
void kyrAvgCalcInit(KyrAvgCalc* calc, KyrTime intervalLength);
KyrTime kyrAvgCalcAddSample(KyrAvgCalc* calc, KyrTime curTime, KyrTime sample);
void kyrTimeoutCalcInit(KyrTimeoutCalc* calc, KyrTime intervalLength);
long kyrTimeoutCalcAddSample(KyrTimeoutCalc* calc, KyrTime curTime, bool timeout);

int kyrRandom();

}  // namespace kyr
