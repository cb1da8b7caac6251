// The tables that tell the routing-data reader how to build each object type and each
// relationship of the routing model. The reader itself is generic; everything type-specific
// sits behind these rows.
#pragma once

#include "connector/kyrConnector.h"
#include "core/kyrRoutingInfo.h"

namespace kyr {

enum KyrObjectHandlerParmType {
  RoutingInfo = 0,      // created under the version itself
  ParentMandatory = 1,  // needs its parent object; skipped without one
  ParentOptional = 2,   // created with a null parent when there is none
};

struct ObjectHandler {
  const char* objectType;
  KyrObjectHandlerParmType parmType;
  bool requiresRoutingInfoReset;  // a change rebuilds the whole version
  // parent is the KyrRoutingInfo for RoutingInfo rows, else the parent's object (or null).
  void* (*create)(void* parent, const char* fullName, KyrConnector* connector, KyrRoutingInfo* ri);
  bool (*setPropStr)(void* obj, const char* name, const char* value);
  bool (*setPropInt)(void* obj, const char* name, int value);
  bool (*setPropBool)(void* obj, const char* name, bool value);
  bool (*setPropNull)(void* obj, const char* name);
  // False drops the object: it leaves the version again, through delete_.
  bool (*init)(void* obj);
  void (*delete_)(void* obj);
  // The types a parent may have; the parent is found by name, so a document could put the
  // object under anything. Empty: the version is the parent.
  const char* parentTypes[2] = {};
  // Deleting the object takes its descendants with it, so they leave the object map first,
  // each through its own row.
  bool deletesDescendants = false;
  // No owner in the model frees it (the selector and the mapper free theirs): the version's
  // end deletes it through its row.
  bool freedWithVersion = false;
};

// Row adapters: turn `R F(T*, A...)` into `R call(void*, A...)`, the shape the reader calls.
template <auto F>
struct Untyped;
template <typename R, typename T, typename... A, R (*F)(T*, A...)>
struct Untyped<F> {
  static R call(void* obj, A... args) { return F(static_cast<T*>(obj), args...); }
};

// For init functions that always keep their object (whatever their result means to their
// module's own callers).
template <auto F>
bool initKeeping(void* obj) {
  Untyped<F>::call(obj);
  return true;
}

struct RelationshipHandler {
  const char* relationshipName;
  void (*link)(void* a, void* b, bool add);
};

// Row lookups by exact type or key; null when there is none.
const ObjectHandler* kyrFindObjectHandler(const char* objectType);
const RelationshipHandler* kyrFindRelationshipHandler(const char* relationshipName);

// One entry of a version's object map.
struct ObjectWrapper {
  const ObjectHandler* handler;
  void* object;
  char* name;  // owned full name; the map's key
};

// Deletes the wrapped object with its handler, then the wrapper.
void objectWrapperDelete(void* wrapper);
// Frees only the wrapper: for versions whose objects go with their owners.
void objectWrapperFree(void* wrapper);

}  // namespace kyr
