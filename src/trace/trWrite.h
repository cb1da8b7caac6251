// The one way library code writes trace: ask the context first, write only when enabled. The
// writing calls themselves do not test enablement, so every call site would otherwise repeat
// the same two-step dance.
#pragma once

#include "tr.h"
#include "trace/trContext.h"

namespace kyr {

// A catalogue message: the record's own format with these arguments.
template <class... Args>
void trLog(TrContext* ctx, TrRecord* rec, Args... args) {
  if (trEnabled(ctx, rec)) trContextLog(ctx, rec, args...);
}

// Free-form text at the record's level.
template <class... Args>
void trDebug(TrContext* ctx, TrRecord* rec, const char* fmt, Args... args) {
  if (trEnabled(ctx, rec)) trContextDebug(ctx, rec, fmt, args...);
}

// Free-form text at an explicit level (8 for the chattiest output).
template <class... Args>
void trTrace(TrContext* ctx, TrRecord* rec, int level, const char* fmt, Args... args) {
  if (trEnabledAt(ctx, rec, level)) trContextTrace(ctx, rec, level, fmt, args...);
}

}  // namespace kyr
