/*
 * kyrlib tracing: the types a host needs to print the library's trace output, and the calls
 * with which it reads one message inside its print callback or writes trace of its own.
 *
 * Conventions:
 *  1. Every type is opaque; the library creates and frees all of them.
 *  2. The host's TrPrintf is called once per enabled message with a transient context; inside
 *     it, trContextGetFormat / trContextGetMessageId / trContextGetLevel give the printf-style
 *     format, the message id and the level name, and `args` holds the message's arguments.
 *     The texts belong to the library and live only for the duration of the call.
 *  3. A writer asks trContextLogEnabled (or trContextTraceEnabled) first and formats its
 *     arguments only when that is true: the writing calls do not test enablement again.
 *  4. Trace specifications are reference counted: trSpecCreate returns one reference, which the
 *     caller hands to trContextSetSpec or releases with trSpecRefRelease.
 *  5. Any thread may write trace and swap specifications.
 */
#ifndef KYRLIB_TR_H
#define KYRLIB_TR_H

#include <stdarg.h>
#include <stdio.h>

#ifndef KYR_EXPORT
#if defined(KYR_BUILDING_LIBRARY)
#define KYR_EXPORT __attribute__((visibility("default")))
#else
#define KYR_EXPORT
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TrMgr TrMgr;
typedef struct TrGroup TrGroup;
typedef struct TrRecord TrRecord;
typedef struct TrSpec TrSpec;
typedef struct TrContext TrContext;

/* Trace levels; a record of level L is written when the trace specification allows at least L. */
enum {
  TR_LEVEL_OFF = 0,
  TR_LEVEL_EMERG = 1,
  TR_LEVEL_ALERT = 2,
  TR_LEVEL_CRITICAL = 3,
  TR_LEVEL_ERROR = 4,
  TR_LEVEL_WARNING = 5,
  TR_LEVEL_NOTICE = 6,
  TR_LEVEL_INFO = 7,
  TR_LEVEL_DEBUG = 8
};

/* The host's output function: called with a transient context and the message's arguments. */
typedef void (*TrPrintf)(TrContext* context, va_list args);

/* Manager. trMgrCreate reads the trace catalogue from fp (closing it if closeTraceFile);
 * a malformed catalogue ends the process. */
KYR_EXPORT TrMgr* trMgrCreate(FILE* fp, int closeTraceFile);
KYR_EXPORT void trMgrDelete(TrMgr* mgr);
KYR_EXPORT TrContext* trMgrGetDefaultContext(TrMgr* mgr);
KYR_EXPORT TrGroup* trMgrGetGroup(TrMgr* mgr, const char* path);
KYR_EXPORT TrRecord* trMgrGetRecord(TrMgr* mgr, const char* path); /* NULL if unknown */
KYR_EXPORT void trMgrSetPrintf(TrMgr* mgr, TrPrintf fcn);

/* Level names "OFF" .. "DEBUG", compared without regard to case. */
KYR_EXPORT int trLevelNameToIndex(const char* levelName); /* -1 for NULL or unknown */
KYR_EXPORT const char* trLevelIndexToName(int index);     /* NULL outside 0..8 */

/* Records. trRecordGet ends the process for an unknown path: record paths are fixed in code. */
KYR_EXPORT TrRecord* trRecordGet(TrMgr* mgr, const char* recordPath);
KYR_EXPORT const char* trRecordGetName(TrRecord* rec);
KYR_EXPORT const char* trRecordGetPath(TrRecord* rec);
KYR_EXPORT const char* trRecordGetFormat(TrRecord* rec);
KYR_EXPORT int trRecordGetDefaultLevel(TrRecord* rec);

/* Specifications: "name:LEVEL,name:LEVEL,..."; NULL text enables everything. NULL on error. */
KYR_EXPORT TrSpec* trSpecCreate(TrMgr* mgr, const char* traceSpec);
KYR_EXPORT int trSpecRefObtain(TrSpec* spec);
KYR_EXPORT int trSpecRefRelease(TrSpec* spec);

/* Contexts. */
KYR_EXPORT TrContext* trContextCreate(TrMgr* mgr);
KYR_EXPORT void trContextDelete(TrContext* context);
KYR_EXPORT TrMgr* trContextGetMgr(TrContext* context);
KYR_EXPORT TrSpec* trContextGetSpec(TrContext* context);
KYR_EXPORT void trContextSetSpec(TrContext* context, TrSpec* spec);
KYR_EXPORT int trContextLogEnabled(TrContext* context, TrRecord* rec);
KYR_EXPORT int trContextTraceEnabled(TrContext* context, TrRecord* rec, int level);
KYR_EXPORT void trContextLog(TrContext* context, TrRecord* rec, ...);
KYR_EXPORT void trContextVLog(TrContext* context, TrRecord* rec, va_list args);
KYR_EXPORT void trContextDebug(TrContext* context, TrRecord* rec, const char* fmt, ...);
KYR_EXPORT void trContextVDebug(TrContext* context, TrRecord* rec, const char* fmt, va_list args);
KYR_EXPORT void trContextTrace(TrContext* context, TrRecord* rec, int level, const char* fmt, ...);
KYR_EXPORT void trContextVTrace(TrContext* context, TrRecord* rec, int level, const char* fmt,
                                va_list args);
KYR_EXPORT const char* trContextGetFormat(TrContext* context);
KYR_EXPORT const char* trContextGetMessageId(TrContext* context);
KYR_EXPORT const char* trContextGetLevel(TrContext* context);

/* A ready-made TrPrintf for hosts that have none: writes "LEVEL [messageId] text" to stderr. */
KYR_EXPORT void trDefaultPrintf(TrContext* context, va_list args);

#ifdef __cplusplus
}
#endif

#endif /* KYRLIB_TR_H */
