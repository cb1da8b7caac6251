// The counted-memory level a test compares with at its end, once nothing but the test moves it.
#pragma once

#include <chrono>
#include <cstdarg>
#include <thread>

#include "kyrlib.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"
#include "trace/trSpec.h"

namespace kyrtest {

// Three things besides the test move the counter. The control lock and the trace death row
// outlive every handle and come into being with the first, so one handle is made and destroyed
// first. Retired trace specifications wait on the death row, so it is emptied. Threads of earlier
// tests (an alarm, a worker freeing a handle destroyed from a work item) may still be freeing
// blocks, so the counter is read until it holds still.
inline int settledMemCount() {
  TestHost warmUp;
  warmUp.env.trace.printf = [](TrContext*, va_list) {};
  kyrDestroy(warmUp.create());
  int last = -1;
  for (int i = 0; i < 100; ++i) {
    kyr::trPurgeDeathRow();
    int now = kyr::kyrGetMemCount();
    if (now == last) return now;
    last = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return last;
}

}  // namespace kyrtest
