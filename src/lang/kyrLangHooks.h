// The clock and the random source that rule evaluation reads (the `time`, `rampup` and
// `percentage` operands). Tests replace them to make time windows and draws deterministic.
#pragma once

#include <ctime>

namespace kyr {

using LangClockFcn = time_t (*)();
using LangRandomFcn = int (*)();

// A null function restores the default (the system clock; kyrRandom).
void langSetClock(LangClockFcn fcn);
void langSetRandom(LangRandomFcn fcn);

time_t langNow();
int langRandom();

}  // namespace kyr
