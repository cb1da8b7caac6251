// Trace contexts: bind a manager to its current specification, answer the enablement questions
// on every request's hot path, and hand enabled messages to the host's print callback.
#pragma once

#include "runtime/kyrLock.h"
#include "tr.h"

struct TrContext {
  TrMgr* mgr;
  TrSpec* spec;            // owned reference; swapped under specLock, read unlocked for enablement
  kyr::KyrLock* specLock;  // null in the transient copy handed to the print callback
  // Filled only in the transient copy handed to the print callback.
  const char* format;
  const char* messageId;
  const char* level;
};

namespace kyr {

void trContextSpecLockObtain(TrContext* ctx, const char* who);
void trContextSpecLockRelease(TrContext* ctx);
// Gives `to` the TrSpec that `from` has now (see trContext.cpp for why it may not lock).
void trContextShareSpec(TrContext* to, TrContext* from);

}  // namespace kyr
