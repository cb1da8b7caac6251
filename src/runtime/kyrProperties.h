// KyrProperties: a name-to-text map whose owner decides, through its setter callback, which
// names it knows and under which canonical key their values are kept.
#pragma once

#include "runtime/kyrHash.h"

namespace kyr {

// Returns the canonical key of a known property (text that lives as long as the owner), or
// null for a name the owner does not know or a value it refuses.
using KyrSetPropertyFcn = const char* (*)(void* passback, const char* propName,
                                          const char* propValue);

struct KyrProperties {
  KyrHashMap* map;
  KyrSetPropertyFcn setPropertyFcn;
  void* passback;
};

KyrProperties* kyrPropertiesCreate(KyrSetPropertyFcn setPropertyFcn, void* passback);
void kyrPropertiesDelete(KyrProperties* props);
const char* kyrPropertyGet(KyrProperties* props, const char* propName);
// 0 stored, 1 removal of a name that had no value, -1 refused.
int kyrPropertySet(KyrProperties* props, const char* propName, const char* propValue,
                   bool validate);

}  // namespace kyr
