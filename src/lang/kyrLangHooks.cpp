// The replaceable clock and random source of rule evaluation. Atomic because request threads
// read them while a test may be swapping them.
#include "lang/kyrLangHooks.h"

#include <atomic>

#include "runtime/kyrTime.h"

namespace kyr {
namespace {

time_t systemClock() { return time(nullptr); }

std::atomic<LangClockFcn> g_clock{systemClock};
std::atomic<LangRandomFcn> g_random{kyrRandom};

}  // namespace

void langSetClock(LangClockFcn fcn) { g_clock.store(fcn != nullptr ? fcn : systemClock); }

void langSetRandom(LangRandomFcn fcn) { g_random.store(fcn != nullptr ? fcn : kyrRandom); }

time_t langNow() { return g_clock.load(std::memory_order_relaxed)(); }

int langRandom() { return g_random.load(std::memory_order_relaxed)(); }

}  // namespace kyr
