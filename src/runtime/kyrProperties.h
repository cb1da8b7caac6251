// KyrProperties: a name-to-text map whose owner decides, through its setter callback, which
// names it knows and under which canonical key their values are kept.
#pragma once

#include <string>

#include "runtime/kyrHash.h"
#include "runtime/kyrLock.h"

namespace kyr {

// Returns the canonical key of a known property (text that lives as long as the owner), or
// null for a name the owner does not know or a value it refuses.
using KyrSetPropertyFcn = const char* (*)(void* passback, const char* propName,
                                          const char* propValue);

struct KyrProperties {
  // Guarded by lock: request threads read properties while the host or a cell document sets
  // them. A leaf lock: nothing else is taken, and the setter callback runs, outside it.
  KyrHashMap* map;
  KyrLock* lock;
  KyrSetPropertyFcn setPropertyFcn;
  void* passback;
};

KyrProperties* kyrPropertiesCreate(KyrSetPropertyFcn setPropertyFcn, void* passback);
void kyrPropertiesDelete(KyrProperties* props);
// For owners whose every value came through a validated set: releases those copies too.
void kyrPropertiesDeleteWithCopies(KyrProperties* props);
// The stored text, for callers that no setter can run beside (the owner's own control path):
// a later set may free it.
const char* kyrPropertyGet(KyrProperties* props, const char* propName);
// A copy of the stored text, for any thread; false when the property has no value.
bool kyrPropertyCopy(KyrProperties* props, const char* propName, std::string* value);
// 0 stored, 1 removal of a name that had no value, -1 refused.
int kyrPropertySet(KyrProperties* props, const char* propName, const char* propValue,
                   bool validate);

}  // namespace kyr
