// Trace contexts: bind a manager to its current specification, answer the enablement questions
// on every request's hot path, and hand enabled messages to the host's print callback.
#pragma once

#include <atomic>

#include "runtime/kyrLock.h"
#include "tr.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"

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

// Enablement is asked a few dozen times per request on every request thread, and taking specLock
// for each question cost a quarter of a request's time. So the question reads the pointer
// without the lock: a swap publishes it with release order (under the lock, which still
// serialises swaps and reference taking), and a TrSpec that was just replaced stays readable on
// the death row for its grace period, long past the one byte a reader looks at.
inline TrSpec* trContextCurrentSpec(TrContext* ctx) {
  return std::atomic_ref<TrSpec*>(ctx->spec).load(std::memory_order_acquire);
}

// Whether `rec` writes through `ctx` at its own level, or at `level`. Inline, for the writers in
// trWrite.h, because the request path asks at every step.
inline bool trEnabledAt(TrContext* ctx, const TrRecord* rec, int level) {
  if (ctx == nullptr || rec == nullptr) return false;
  return trSpecGetMaxLevel(trContextCurrentSpec(ctx), rec) >= level;
}
inline bool trEnabled(TrContext* ctx, const TrRecord* rec) {
  return rec != nullptr && trEnabledAt(ctx, rec, trRecordThreshold(rec));
}

void trContextSpecLockObtain(TrContext* ctx, const char* who);
void trContextSpecLockRelease(TrContext* ctx);
// Gives `to` the TrSpec that `from` has now (see trContext.cpp for why it may not lock).
void trContextShareSpec(TrContext* to, TrContext* from);

}  // namespace kyr
