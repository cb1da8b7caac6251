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
  int refCount;  // the handle's hold plus one per request; guarded by kyr->routingInfoLock
  // The wrappers that make work classes and trace rule sets parents of rules: they live as
  // long as the version, and a trace rule set goes with its wrapper.
  KyrList* ruleParents;
  // This web server's trace rule sets ("vqTraceSpecs"), which requests holding this version
  // consult for their trace specification. Guarded by the lock of kyr->requestTraceRules.
  KyrList* traceRuleSets;
};

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
