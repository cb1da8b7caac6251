// The object and relationship tables of the routing-data reader, with the adapters that map
// each row onto the module that owns the object type. Row order is lookup order.
#include "core/kyrObjectHandlers.h"

#include <cstring>

#include "core/kyrHealthRows.h"
#include "core/kyrMappingRows.h"
#include "core/kyrRoutingData.h"
#include "core/kyrRuleRows.h"
#include "core/kyrTargetModelRows.h"
#include "runtime/kyrLibUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// ---- cell: the version records it; its "cp." properties are the cell's custom properties.

void* cellCreate(void*, const char* fullName, KyrConnector*, KyrRoutingInfo* ri) {
  // A version knows one cell; a second one's custom properties would fight the first one's.
  if (ri->cell != nullptr) {
    trDebug(ri->kyr->trCtx, ri->kyr->processRec, "skip cell %s; this version has the cell %s\n",
            fullName, ri->cell->name);
    return nullptr;
  }
  auto* cell = kyrNew<Cell>();
  *cell = Cell{kyrStrdup(fullName), ri->kyr, ri};
  ri->cell = cell;
  return cell;
}

bool cellSetPropStr(void* obj, const char* name, const char* value) {
  auto* cell = static_cast<Cell*>(obj);
  kyrCellSetPropStr(cell->kyr, cell->name, name, value);
  return true;
}

bool cellSetPropNull(void* obj, const char* name) { return cellSetPropStr(obj, name, nullptr); }

void cellDeleteObject(void* obj) { cellDelete(static_cast<Cell*>(obj)); }

const ObjectHandler kCellRow = {"cell",         RoutingInfo,     false,   cellCreate,
                                cellSetPropStr, nullptr,         nullptr, cellSetPropNull,
                                nullptr,        cellDeleteObject};

// Pointers, so rows defined with their modules need no cross-file initialisation order.
const ObjectHandler* const kObjectHandlers[] = {
    &kCellRow,      &kNodeRow,       &kServerRow,       &kServerApplicationRow,
    &kTransportRow, &kClusterRow,    &kApplicationRow,  &kWebModuleRow,
    &kUriRow,       &kVHostGroupRow, &kVHostRow,        &kWebRouteWorkClassRow,
    &kRuleRow,      &kRuleSetRow,    &kHealthPolicyRow,
};

const RelationshipHandler kRelationshipHandlers[] = {
    {"cluster:server", linkClusterServer},
    {"cluster:webModule", linkClusterWebModule},
    {"vHostGroup:webModule", linkVHostGroupWebModule},
    {"server:webModule", linkServerWebModule},
    {"server:healthPolicy", linkServerHealthPolicy},
};

void freeWrapperOnly(ObjectWrapper* wrapper) {
  kyrFree(wrapper->name);
  kyrDelete(wrapper);
}

}  // namespace

const ObjectHandler* kyrFindObjectHandler(const char* objectType) {
  for (const ObjectHandler* h : kObjectHandlers) {
    if (strcmp(h->objectType, objectType) == 0) return h;
  }
  return nullptr;
}

const RelationshipHandler* kyrFindRelationshipHandler(const char* relationshipName) {
  for (const RelationshipHandler& h : kRelationshipHandlers) {
    if (strcmp(h.relationshipName, relationshipName) == 0) return &h;
  }
  return nullptr;
}

void objectWrapperDelete(void* p) {
  auto* wrapper = static_cast<ObjectWrapper*>(p);
  if (wrapper->handler->delete_ != nullptr) wrapper->handler->delete_(wrapper->object);
  freeWrapperOnly(wrapper);
}

void objectWrapperFree(void* p) {
  auto* wrapper = static_cast<ObjectWrapper*>(p);
  if (wrapper->handler->freedWithVersion) {
    objectWrapperDelete(wrapper);
  } else {
    freeWrapperOnly(wrapper);
  }
}

}  // namespace kyr
