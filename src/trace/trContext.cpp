// Trace contexts: the current specification of one writer (swapped under specLock), the
// enablement tests on the request hot path, the three writing functions, and the default print
// callback for hosts that bring none.
#include "trace/trContext.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "runtime/kyrLibUtil.h"
#include "trace/trMgr.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"

namespace kyr {

namespace {

// Hands one message to the manager's print callback through a transient context. The
// specification pointer is copied under the lock; the death row keeps it readable meanwhile.
void emit(TrContext* ctx, TrRecord* rec, const char* format, const char* level, va_list args) {
  TrPrintf print = ctx->mgr != nullptr ? ctx->mgr->printf : nullptr;
  if (print == nullptr) return;
  TrContext message{};
  message.mgr = ctx->mgr;
  {
    KyrLockGuard guard(ctx->specLock, "trContext.emit");
    message.spec = ctx->spec;
  }
  message.format = format;
  message.messageId = rec->messageId;
  message.level = level;
  print(&message, args);
}

}  // namespace

void trContextSpecLockObtain(TrContext* ctx, const char* who) { kyrLockObtain(ctx->specLock, who); }

void trContextSpecLockRelease(TrContext* ctx) { kyrLockRelease(ctx->specLock); }

// A pooled request context nearly always holds already the TrSpec it is given (its handle's
// default): then nothing is locked and no reference count moves, since those of the handle's
// context and of its TrSpec are shared by every request thread. The pointers are only compared,
// so a TrSpec swapped meanwhile is never read here.
void trContextShareSpec(TrContext* to, TrContext* from) {
  if (trContextCurrentSpec(to) == trContextCurrentSpec(from)) return;
  trContextSetSpec(to, trContextGetSpec(from));
}

}  // namespace kyr

extern "C" {

TrContext* trContextCreate(TrMgr* mgr) {
  auto* ctx = static_cast<TrContext*>(kyr::kyrMalloc(sizeof(TrContext)));
  if (ctx == nullptr) return nullptr;
  ctx->mgr = mgr;
  ctx->specLock = kyr::kyrLockCreate("TrContext.specLock");
  // A new writer starts with the process default rather than in silence.
  if (mgr != nullptr && mgr->defaultContext != nullptr) {
    ctx->spec = trContextGetSpec(mgr->defaultContext);
  }
  return ctx;
}

void trContextDelete(TrContext* context) {
  if (context == nullptr) return;
  kyr::kyrLockDestroy(context->specLock);
  trSpecRefRelease(context->spec);
  kyr::kyrFree(context);
}

TrMgr* trContextGetMgr(TrContext* context) { return context != nullptr ? context->mgr : nullptr; }

TrSpec* trContextGetSpec(TrContext* context) {
  if (context == nullptr) return nullptr;
  kyr::KyrLockGuard guard(context->specLock, "trContextGetSpec");
  trSpecRefObtain(context->spec);  // the caller's reference
  return context->spec;
}

void trContextSetSpec(TrContext* context, TrSpec* spec) {
  if (context == nullptr) {
    trSpecRefRelease(spec);  // nobody to hand the caller's reference to
    return;
  }
  TrSpec* old;
  {
    kyr::KyrLockGuard guard(context->specLock, "trContextSetSpec");
    old = context->spec;
    // Takes over the caller's reference; atomic for the enablement tests, which read it unlocked.
    std::atomic_ref<TrSpec*>(context->spec).store(spec, std::memory_order_release);
  }
  trSpecRefRelease(old);  // outside the lock: it may sweep the death row
}

int trContextLogEnabled(TrContext* context, TrRecord* rec) { return kyr::trEnabled(context, rec); }

int trContextTraceEnabled(TrContext* context, TrRecord* rec, int level) {
  return kyr::trEnabledAt(context, rec, level);
}

void trContextLog(TrContext* context, TrRecord* rec, ...) {
  va_list args;
  va_start(args, rec);
  trContextVLog(context, rec, args);
  va_end(args);
}

void trContextVLog(TrContext* context, TrRecord* rec, va_list args) {
  if (context == nullptr || rec == nullptr) return;
  kyr::emit(context, rec, rec->format, trLevelIndexToName(rec->level), args);
}

void trContextDebug(TrContext* context, TrRecord* rec, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  trContextVDebug(context, rec, fmt, args);
  va_end(args);
}

void trContextVDebug(TrContext* context, TrRecord* rec, const char* fmt, va_list args) {
  if (context == nullptr || rec == nullptr) return;
  int level = rec->level >= 0 ? rec->level : rec->defaultLevel;
  kyr::emit(context, rec, fmt, trLevelIndexToName(level), args);
}

void trContextTrace(TrContext* context, TrRecord* rec, int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  trContextVTrace(context, rec, level, fmt, args);
  va_end(args);
}

void trContextVTrace(TrContext* context, TrRecord* rec, int level, const char* fmt, va_list args) {
  if (context == nullptr || rec == nullptr) return;
  kyr::emit(context, rec, fmt, trLevelIndexToName(level), args);
}

const char* trContextGetFormat(TrContext* context) {
  return context != nullptr ? context->format : nullptr;
}

const char* trContextGetMessageId(TrContext* context) {
  return context != nullptr ? context->messageId : nullptr;
}

const char* trContextGetLevel(TrContext* context) {
  return context != nullptr ? context->level : nullptr;
}

void trDefaultPrintf(TrContext* context, va_list args) {
  const char* format = trContextGetFormat(context);
  const char* level = trContextGetLevel(context);
  const char* messageId = trContextGetMessageId(context);
  // One locked stream operation per line, so lines from concurrent writers do not interleave.
  flockfile(stderr);
  fprintf(stderr, "%s [%s] ", level != nullptr ? level : "-",
          messageId != nullptr ? messageId : "-");
  if (format != nullptr) vfprintf(stderr, format, args);
  size_t length = format != nullptr ? strlen(format) : 0;
  if (length == 0 || format[length - 1] != '\n') fputc('\n', stderr);
  funlockfile(stderr);
}

}  // extern "C"
