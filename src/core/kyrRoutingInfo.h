// Routing-information versions: one reference-counted snapshot of the routing model (object
// map, cell, request mapper, target selector). Requests hold the version they started with,
// so a model rebuilt under them never changes mid-request.
#pragma once

#include "core/kyr.h"

namespace kyr {

struct RequestMapper;
struct TargetSelector;

struct KyrRoutingInfo;

struct Cell {
  char* name;
  Kyr* kyr;
  KyrRoutingInfo* ri;  // the version that points at this cell, cleared when the cell goes
};

struct KyrRoutingInfo {
  Kyr* kyr;               // the version holds a reference on its handle
  KyrHashMap* objectMap;  // full name -> ObjectWrapper
  Cell* cell;
  RequestMapper* requestMapper;
  TargetSelector* targetSelector;
  // The handle's hold plus one per request; guarded by kyr->routingInfoLock. Every request
  // changes it, so it has a cache line to itself, away from the fields requests read.
  alignas(kCacheLineSize) int refCount;
  // The wrappers that make work classes and trace rule sets parents of rules: they live as
  // long as the version, and a trace rule set goes with its wrapper.
  alignas(kCacheLineSize) KyrList* ruleParents;
  // This web server's trace rule sets ("vqTraceSpecs"), which requests holding this version
  // consult for their TrSpec. Guarded by the lock of kyr->requestTraceRules; its
  // count is also stored atomically, so that requests of a version without sets skip the lock.
  KyrList* traceRuleSets;
  int traceRuleSetCount;
  // What in-place changes took out of the model while requests holding this version may still
  // read it (deleted modules and applications, replaced texts, arrays and tree nodes): freed
  // with the version. Changed only by document application, under the control lock.
  KyrList* retired;  // of RetiredBlock
  size_t retiredBytes;
};

// Past this much retired memory a version is rebuilt, so a long-lived version's memory stays
// bounded however many in-place changes it takes.
inline constexpr size_t kMaxRetiredBytes = 4 * 1024 * 1024;

using RetiredFreeFcn = void (*)(void* object);

// Keeps the object until the version goes, then frees it with freeFn. `bytes` is an estimate
// for the rebuild bound. A version that is not a live one (a matcher built on its own by the
// self-test or a unit test) has no readers to wait for and frees at once.
void kyrRoutingInfoRetire(KyrRoutingInfo* ri, void* object, RetiredFreeFcn freeFn, size_t bytes);
// Replaces a counted text that requests read without a lock: publishes a copy of value (null
// allowed) and retires the old text.
void kyrRoutingInfoReplaceText(KyrRoutingInfo* ri, char** slot, const char* value);
bool kyrRoutingInfoRetiredTooMuch(const KyrRoutingInfo* ri);

KyrRoutingInfo* kyrRoutingInfoCreate(Kyr* kyr);
void kyrRoutingInfoPopulate(KyrRoutingInfo* ri);
KyrRoutingInfo* kyrCreateAndPopulateNewRoutingInfo(Kyr* kyr);
void kyrSwitchToNewRoutingInfo(Kyr* kyr, KyrRoutingInfo* ri);
void kyrResetRoutingInfo(Kyr* kyr);
KyrRoutingInfo* kyrRoutingInfoObtain(Kyr* kyr);
void kyrRoutingInfoRelease(KyrRoutingInfo* ri);

RequestMapper* kyrRoutingInfoGetRequestMapper(KyrRoutingInfo* ri);
TargetSelector* kyrRoutingInfoGetTargetSelector(KyrRoutingInfo* ri);
Kyr* kyrRoutingInfoGetKyr(KyrRoutingInfo* ri);
// The object stored under a full name, or null.
void* kyrRoutingInfoObjectGet(KyrRoutingInfo* ri, const char* fullName);

}  // namespace kyr
