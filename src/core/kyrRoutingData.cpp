// Applying routing-data documents. A document runs through the reader up to twice: once to
// bring the connector's stored complete document up to date, and once to change the model
// (or, when the change needs it, the model is rebuilt from all stored documents instead).
// Problems inside a document skip only the object or relationship concerned.
#include "core/kyrRoutingData.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "connector/kyrConnectorGroup.h"
#include "core/kyrObjectHandlers.h"
#include "core/kyrProcessMessages.h"
#include "core/kyrStoredDocument.h"
#include "health/hmHealthMonitor.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

enum OpType { AddOp = 0, DelOp = 1, SetOp = 2 };

struct ParseInfo {
  Kyr* kyr;
  KyrConnectorGroup* cg;
  KyrConnector* c;
  KyrRoutingInfo* ri;
  TrContext* trCtx;
  TrRecord* trRec;
  OpType op;
  const char* opName;
  json_t* jsonToUpdate;  // the stored document's "add" operation, or null
  json_t* jsonToAdd;     // the top-level object being added
  const char* propName;
  json_t* propValue;
  bool callObjectHandlers;  // change the model, not only the stored document
  bool resetRoutingInfo;    // the model must be rebuilt from scratch
};

ParseInfo parseInfoFor(KyrRoutingInfo* ri, KyrConnector* c) {
  Kyr* kyr = ri->kyr;
  ParseInfo pi{};
  pi.kyr = kyr;
  pi.c = c;
  pi.cg = c != nullptr ? c->cg : nullptr;
  pi.ri = ri;
  pi.trCtx = kyr->trCtx;
  pi.trRec = kyr->processRec;
  return pi;
}

int64_t integerOr(json_t* doc, const char* key, int64_t missing) {
  json_t* value = json_object_get(doc, key);
  return json_is_integer(value) ? json_integer_value(value) : missing;
}

StoredDocumentTrace storedTrace(const ParseInfo& pi) { return {pi.trCtx, pi.trRec}; }

// The parent's full name; old publishers (negative rest version) send URI values with
// unescaped slashes, so their parent is found before "/uri/".
char* parentNameOf(const ParseInfo& pi, const char* fullName) {
  bool oldPublisher = pi.c != nullptr && pi.c->restVersion < 0;
  return oldPublisher ? kyrHackGetParentName(fullName) : kyrGetParentName(fullName);
}

void setProperty(ParseInfo& pi, const ObjectHandler* h, void* obj, const char* fullName,
                 const char* name, json_t* value) {
  const char* type = h->objectType;
  bool ok;
  switch (json_typeof(value)) {
    case JSON_STRING:
      if (h->setPropStr == nullptr) {
        trDebug(pi.trCtx, pi.trRec,
                "skip set property %s on object %s; null string property handler for object "
                "type %s\n",
                name, fullName, type);
        return;
      }
      ok = h->setPropStr(obj, name, json_string_value(value));
      if (!ok)
        trDebug(pi.trCtx, pi.trRec, "failed to set string property %s on object %s\n", name,
                fullName);
      return;
    case JSON_INTEGER:
      if (h->setPropInt == nullptr) {
        trDebug(pi.trCtx, pi.trRec,
                "skip set property %s on object %s; null integer property handler for object "
                "type %s\n",
                name, fullName, type);
        return;
      }
      ok = h->setPropInt(obj, name, static_cast<int>(json_integer_value(value)));
      if (!ok)
        trDebug(pi.trCtx, pi.trRec, "failed to set integer property %s on object %s\n", name,
                fullName);
      return;
    case JSON_TRUE:
    case JSON_FALSE:
      if (h->setPropBool == nullptr) {
        trDebug(pi.trCtx, pi.trRec,
                "skip set property %s on object %s; null kyr_boolean property handler for object "
                "type %s\n",
                name, fullName, type);
        return;
      }
      ok = h->setPropBool(obj, name, json_is_true(value));
      if (!ok)
        trDebug(pi.trCtx, pi.trRec, "failed to set kyr_boolean property %s on object %s\n", name,
                fullName);
      return;
    case JSON_NULL:
      if (h->setPropNull == nullptr) {
        trDebug(pi.trCtx, pi.trRec,
                "skip set property %s on object %s; null property handler for object type %s\n",
                name, fullName, type);
        return;
      }
      ok = h->setPropNull(obj, name);
      // A failing null setter deliberately reuses the string wording.
      if (!ok)
        trDebug(pi.trCtx, pi.trRec, "failed to set string property %s on object %s\n", name,
                fullName);
      return;
    default:
      trDebug(pi.trCtx, pi.trRec, "unknown type for property %s on object %s\n", name, fullName);
  }
}

void applyProperties(ParseInfo& pi, const ObjectHandler* h, void* obj, const char* fullName,
                     json_t* props) {
  const char* name;
  json_t* value;
  json_object_foreach(props, name, value) {
    if (pi.op == SetOp && pi.jsonToUpdate != nullptr) {
      pi.propName = name;
      pi.propValue = value;
      deltaObjectsSet(pi.jsonToUpdate, fullName, name, value, storedTrace(pi));
    }
    if (pi.callObjectHandlers && obj != nullptr) setProperty(pi, h, obj, fullName, name, value);
  }
}

ObjectWrapper* wrapperOf(const ParseInfo& pi, const char* fullName) {
  return static_cast<ObjectWrapper*>(kyrHashGet(pi.ri->objectMap, fullName));
}

bool parentTypeAllowed(const ObjectHandler* h, const char* parentType) {
  for (const char* allowed : h->parentTypes) {
    if (allowed != nullptr && strcmp(allowed, parentType) == 0) return true;
  }
  return h->parentTypes[0] == nullptr;
}

// The parent object an "add" names, or null when the object must be skipped.
void* findParent(ParseInfo& pi, const ObjectHandler* h, const char* fullName) {
  char* parentName = parentNameOf(pi, fullName);
  if (parentName == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "no parent name for %s\n", fullName);
    return nullptr;
  }
  ObjectWrapper* parent = wrapperOf(pi, parentName);
  kyrFree(parentName);
  if (parent == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "parent for %s was not found\n", fullName);
    return nullptr;
  }
  // Every row casts its parent to the type it expects.
  if (!parentTypeAllowed(h, parent->handler->objectType)) {
    trDebug(pi.trCtx, pi.trRec, "skip %s object %s; its parent %s is of type %s\n", h->objectType,
            fullName, parent->name, parent->handler->objectType);
    return nullptr;
  }
  return parent->object;
}

// Creates the object of an "add" and stores it in the version; null when it was skipped.
void* addObject(ParseInfo& pi, const ObjectHandler* h, const char* fullName) {
  if (kyrHashGet(pi.ri->objectMap, fullName) != nullptr) {
    trDebug(pi.trCtx, pi.trRec, "failed to add %s object which already exists: %s\n", h->objectType,
            fullName);
    return nullptr;
  }
  void* parent = pi.ri;
  if (h->parmType == ParentMandatory) {
    parent = findParent(pi, h, fullName);
    if (parent == nullptr) return nullptr;
  } else if (h->parmType == ParentOptional) {
    char* parentName = parentNameOf(pi, fullName);
    parent = parentName != nullptr ? kyrRoutingInfoObjectGet(pi.ri, parentName) : nullptr;
    kyrFree(parentName);
  }
  void* obj = h->create != nullptr ? h->create(parent, fullName, pi.c, pi.ri) : nullptr;
  if (obj == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "failed to create %s object: %s\n", h->objectType, fullName);
    return nullptr;
  }
  auto* wrapper = kyrNew<ObjectWrapper>();
  *wrapper = ObjectWrapper{h, obj, kyrStrdup(fullName)};
  kyrHashPut(pi.ri->objectMap, wrapper->name, wrapper);
  return obj;
}

void removeAndDelete(ParseInfo& pi, ObjectWrapper* wrapper) {
  kyrHashPut(pi.ri->objectMap, wrapper->name, nullptr);
  objectWrapperDelete(wrapper);
}

// The objects stored under the name, deepest first, each deleted through its own row so that
// nothing in the map names what the parent's delete takes away.
void deleteDescendants(ParseInfo& pi, const char* fullName) {
  std::string prefix = std::string(fullName) + "/";
  std::vector<ObjectWrapper*> descendants;
  KyrHashIterator it;
  kyrHashIteratorStart(pi.ri->objectMap, &it);
  while (kyrHashNext(&it) != nullptr) {
    if (strncmp(kyrHashThisKey(&it), prefix.c_str(), prefix.size()) == 0) {
      descendants.push_back(static_cast<ObjectWrapper*>(kyrHashThisVal(&it)));
    }
  }
  // A descendant's name extends its ancestors' names, so longer names go first.
  std::sort(descendants.begin(), descendants.end(),
            [](ObjectWrapper* a, ObjectWrapper* b) { return strlen(a->name) > strlen(b->name); });
  for (ObjectWrapper* wrapper : descendants) removeAndDelete(pi, wrapper);
}

void deleteObject(ParseInfo& pi, const ObjectHandler* h, const char* fullName) {
  pi.resetRoutingInfo |= h->requiresRoutingInfoReset;
  if (pi.jsonToUpdate != nullptr) deltaObjectsDelete(pi.jsonToUpdate, fullName, storedTrace(pi));
  if (!pi.callObjectHandlers) return;
  ObjectWrapper* wrapper = wrapperOf(pi, fullName);
  if (wrapper == nullptr) return;
  if (wrapper->handler->deletesDescendants) deleteDescendants(pi, fullName);
  removeAndDelete(pi, wrapper);
}

void jsonHandleObjects(ParseInfo& pi, json_t* node, const char* parentName, int depth);

void jsonHandleObject(ParseInfo& pi, json_t* node, const char* parentName, int depth) {
  const char* type = json_string_value(json_object_get(node, "type"));
  if (type == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "object with no type\n");
    return;
  }
  const ObjectHandler* h = kyrFindObjectHandler(type);
  if (h == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "no object handler for type %s\n", type);
    return;
  }
  const char* name = json_string_value(json_object_get(node, "name"));
  if (name == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "object of type %s with no name\n", type);
    return;
  }
  if (h->requiresRoutingInfoReset) {
    pi.resetRoutingInfo = true;
    trDebug(pi.trCtx, pi.trRec,
            "jsonHandleObjects: set resetRoutingInfo to TRUE because object type=%s mandates "
            "it.\n",
            type);
  }
  char* fullName = kyrStrJoin(parentName != nullptr ? parentName : "", name);
  json_t* children = json_object_get(node, "objects");

  if (pi.op == DelOp) {
    // A delete naming an object with children deletes the children only.
    if (children != nullptr) {
      jsonHandleObjects(pi, children, fullName, depth + 1);
    } else {
      deleteObject(pi, h, fullName);
    }
    kyrFree(fullName);
    return;
  }

  void* obj = nullptr;
  bool created = false;
  if (pi.op == AddOp) {
    pi.jsonToAdd = depth == 1 ? node : nullptr;
    if (pi.jsonToUpdate != nullptr && pi.jsonToAdd != nullptr) {
      deltaObjectsAdd(pi.jsonToUpdate, fullName, node, storedTrace(pi));
    }
    if (pi.callObjectHandlers) {
      obj = addObject(pi, h, fullName);
      if (obj == nullptr) {
        kyrFree(fullName);
        return;
      }
      created = true;
    }
  } else if (pi.callObjectHandlers) {
    ObjectWrapper* wrapper = wrapperOf(pi, fullName);
    if (wrapper == nullptr) {
      trDebug(pi.trCtx, pi.trRec, "set operation but object of type '%s' at '%s' was not found\n",
              type, fullName);
      kyrFree(fullName);
      return;
    }
    // The setters of the type the document names would be applied to the stored object.
    if (wrapper->handler != h) {
      trDebug(pi.trCtx, pi.trRec, "skip set operation on %s; it is of type %s, not %s\n", fullName,
              wrapper->handler->objectType, type);
      kyrFree(fullName);
      return;
    }
    obj = wrapper->object;
  }
  applyProperties(pi, h, obj, fullName, json_object_get(node, "props"));
  if (created && h->init != nullptr) {
    trDebug(pi.trCtx, pi.trRec, "initializing object type=%s, name=%s\n", type, fullName);
    if (!h->init(obj)) {
      removeAndDelete(pi, wrapperOf(pi, fullName));
      kyrFree(fullName);
      return;
    }
  }
  if (children != nullptr) jsonHandleObjects(pi, children, fullName, depth + 1);
  kyrFree(fullName);
}

void jsonHandleObjects(ParseInfo& pi, json_t* node, const char* parentName, int depth) {
  if (json_is_array(node)) {
    size_t i;
    json_t* element;
    json_array_foreach(node, i, element) jsonHandleObjects(pi, element, parentName, depth);
  } else if (json_is_object(node)) {
    jsonHandleObject(pi, node, parentName, depth);
  }
}

void jsonHandleRelationship(ParseInfo& pi, const RelationshipHandler* h, const char* key,
                            const char* type1, const char* type2, json_t* element) {
  const char* name1 = json_string_value(json_object_get(element, type1));
  const char* name2 = json_string_value(json_object_get(element, type2));
  if (name1 == nullptr || name2 == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "skip relationship %s; type %s not found\n", key,
            name1 == nullptr ? type1 : type2);
    return;
  }
  if (pi.jsonToUpdate != nullptr) {
    if (pi.op == AddOp) deltaRelAdd(pi.jsonToUpdate, key, element, name1, name2, storedTrace(pi));
    if (pi.op == DelOp) deltaRelDelete(pi.jsonToUpdate, key, element);
  }
  if (pi.op == DelOp && kyrStrCmpIgnoreCase(key, "vHostGroup:webModule") == 0) {
    pi.resetRoutingInfo = true;
    trDebug(pi.trCtx, pi.trRec,
            "relationship vHostGroup:webModule was deleted, setting resetRoutingInfo to TRUE to "
            "reload the URL matcher\n");
  }
  if (!pi.callObjectHandlers) return;
  ObjectWrapper* a = wrapperOf(pi, name1);
  ObjectWrapper* b = wrapperOf(pi, name2);
  if (a == nullptr || b == nullptr) {
    trDebug(pi.trCtx, pi.trRec, "skip relationship %s; object %s not found\n", key,
            a == nullptr ? name1 : name2);
    return;
  }
  // The link functions cast each end to the type the key names.
  for (auto [end, type] : {std::pair{a, type1}, std::pair{b, type2}}) {
    if (strcmp(end->handler->objectType, type) != 0) {
      trDebug(pi.trCtx, pi.trRec, "skip relationship %s; object %s is of type %s\n", key, end->name,
              end->handler->objectType);
      return;
    }
  }
  if (pi.op == SetOp) {
    trDebug(pi.trCtx, pi.trRec, "unexpected %s operation in %s relationship\n", pi.opName, key);
    return;
  }
  h->link(a->object, b->object, pi.op == AddOp);
}

void jsonHandleRelationships(ParseInfo& pi, json_t* relationships) {
  if (relationships != nullptr && !json_is_object(relationships)) {
    trDebug(pi.trCtx, pi.trRec, "skip %s relationships; they are not a JSON object\n", pi.opName);
    return;
  }
  const char* key;
  json_t* elements;
  json_object_foreach(relationships, key, elements) {
    const RelationshipHandler* h = kyrFindRelationshipHandler(key);
    if (h == nullptr) {
      trDebug(pi.trCtx, pi.trRec, "no relationship handler found for %s\n", key);
      continue;
    }
    const char* colon = strchr(key, ':');
    if (colon == nullptr) {
      trDebug(pi.trCtx, pi.trRec, "no colon found in relationship %s\n", key);
      continue;
    }
    char* type1 = kyrStrndup(key, static_cast<size_t>(colon - key));
    const char* type2 = colon + 1;
    if (!json_is_array(elements)) {
      trDebug(pi.trCtx, pi.trRec, "skip relationship %s; its value is not a JSON array\n", key);
    } else {
      size_t i;
      json_t* element;
      json_array_foreach(elements, i, element) {
        jsonHandleRelationship(pi, h, key, type1, type2, element);
      }
    }
    kyrFree(type1);
  }
}

void jsonHandleOp(ParseInfo& pi, json_t* operation) {
  if (operation == nullptr) return;
  if (!json_is_object(operation)) {
    trDebug(pi.trCtx, pi.trRec, "skip %s operation; it is not a JSON object\n", pi.opName);
    return;
  }
  json_t* objects = json_object_get(operation, "objects");
  json_t* relationships = json_object_get(operation, "relationships");
  // Links go before their objects on delete and after them otherwise.
  if (pi.op == DelOp) jsonHandleRelationships(pi, relationships);
  jsonHandleObjects(pi, objects, nullptr, 1);
  if (pi.op != DelOp) jsonHandleRelationships(pi, relationships);
}

// A document's text as it arrived, or written out from the document when the caller had none.
class DocumentText {
 public:
  DocumentText(json_t* doc, const char* given) : doc_(doc), given_(given) {}
  ~DocumentText() { free(written_); }
  DocumentText(const DocumentText&) = delete;
  DocumentText& operator=(const DocumentText&) = delete;
  const char* get() {
    if (given_ != nullptr) return given_;
    if (written_ == nullptr) written_ = json_dumps(doc_, 0);
    return written_ != nullptr ? written_ : "";
  }

 private:
  json_t* doc_;
  const char* given_;
  char* written_ = nullptr;
};

int64_t jsonHandle(ParseInfo& pi, json_t* doc) {
  if (doc == nullptr) return -1;
  int64_t version = integerOr(doc, "version", -1);
  if (pi.c != nullptr) {
    kyrConnectorSetProcessingJSON(pi.c, true);
    pi.c->restVersion = integerOr(doc, "restVersion", -1);
  }
  static constexpr struct {
    OpType op;
    const char* name;
  } kOps[] = {{DelOp, "del"}, {AddOp, "add"}, {SetOp, "set"}};
  for (const auto& op : kOps) {
    pi.op = op.op;
    pi.opName = op.name;
    jsonHandleOp(pi, json_object_get(doc, op.name));
  }
  // What the document put into URI patterns reaches requests together, now.
  if (pi.callObjectHandlers) rmPublish(kyrRoutingInfoGetRequestMapper(pi.ri));
  if (pi.c != nullptr) kyrConnectorSetProcessingJSON(pi.c, false);
  return version;
}

}  // namespace

void jsonHandleStoredDocument(KyrRoutingInfo* ri, KyrConnector* c) {
  ParseInfo pi = parseInfoFor(ri, c);
  pi.callObjectHandlers = true;
  pi.resetRoutingInfo = true;
  jsonHandle(pi, c->json);
}

void cellDelete(Cell* cell) {
  if (cell->ri != nullptr && cell->ri->cell == cell) cell->ri->cell = nullptr;
  kyrFree(cell->name);
  kyrDelete(cell);
}

}  // namespace kyr

using namespace kyr;

extern "C" {

json_t* kyrStrToJson(Kyr* kyr, const char* text, const char* source) {
  trDebug(kyr->trCtx, kyr->processRec, "Start processing JSON from %s\n", source);
  if (text == nullptr) {
    trLog(kyr->trCtx, kyr->invalidJSON, source, "NULL JSON", "NULL");
    return nullptr;
  }
  json_error_t error;
  json_t* doc = json_loads(text, 0, &error);
  if (doc == nullptr) trLog(kyr->trCtx, kyr->invalidJSON, source, error.text, text);
  return doc;
}

int64_t kyrHandleJson(json_t* doc, const char* docText, KyrConnector* c) {
  if (c == nullptr) {
    json_decref(doc);
    return -1;
  }
  kyrControlLockAssertHeld();
  Kyr* kyr = c->kyr;
  if (doc == nullptr) {
    trLog(kyr->trCtx, kyr->invalidJSON, c->URL, "NULL JSON", "NULL");
    return -1;
  }
  // Anything but an object would otherwise pass as an empty delta and hide a broken publisher.
  if (!json_is_object(doc)) {
    if (trEnabled(kyr->trCtx, kyr->invalidJSON)) {
      DocumentText text(doc, docText);
      trContextLog(kyr->trCtx, kyr->invalidJSON, c->URL, "document is not a JSON object",
                   text.get());
    }
    json_decref(doc);
    return -1;
  }
  if (trEnabled(kyr->trCtx, kyr->jsonReceivedRec)) {
    DocumentText text(doc, docText);
    trContextDebug(kyr->trCtx, kyr->jsonReceivedRec, "%s received JSON:\n%s\n",
                   kyrGetProcessTypeName(kyr->processType), text.get());
  }
  // A document without "delta" is deliberately handled as a delta.
  bool isDelta = !json_is_false(json_object_get(doc, "delta"));
  trDebug(kyr->trCtx, kyr->processRec, isDelta ? "JSON is delta\n" : "JSON is complete\n");

  KyrRoutingInfo* ri = kyr->newRoutingInfo != nullptr ? kyr->newRoutingInfo : kyr->routingInfo;
  ParseInfo pi = parseInfoFor(ri, c);
  int64_t version;
  if (kyrIsClientProcess(kyr)) {
    pi.callObjectHandlers = true;
    version = jsonHandle(pi, doc);
  } else {
    if (isDelta) {
      pi.jsonToUpdate = c->json != nullptr ? json_object_get(c->json, "add") : nullptr;
    } else {
      json_incref(doc);
      kyrConnectorSetJSON(c, doc);
    }
    // The first pass brings the stored document up to date; the model changes in the second,
    // or is rebuilt. The server process routes requests too, so it keeps its model as a
    // standalone process does and passes each document on to its clients.
    pi.callObjectHandlers = false;
    version = jsonHandle(pi, doc);
    if (version != c->vid) {
      if (c->json != nullptr) json_object_set_new(c->json, "version", json_integer(version));
      if (version >= 0) c->vid = version;
      if (isDelta && trEnabled(kyr->trCtx, kyr->jsonUpdatedRec) && c->json != nullptr) {
        char* text = json_dumps(c->json, 0);
        trContextDebug(kyr->trCtx, kyr->jsonUpdatedRec, "Updated JSON:\n%s\n", text);
        free(text);
      }
    }
    if (c->cg == nullptr || !c->cg->initialized) {
      pi.resetRoutingInfo = false;
    } else if (!isDelta) {
      pi.resetRoutingInfo = true;
    }
    if (!pi.resetRoutingInfo) {
      ParseInfo apply = parseInfoFor(ri, c);
      apply.callObjectHandlers = true;
      jsonHandle(apply, doc);
    }
    // A version that took many in-place changes holds what they retired until its last
    // request goes; a fresh one lets that memory go. In a server process the switch sends
    // everything to the clients, which rebuild too.
    if (pi.resetRoutingInfo || kyrRoutingInfoRetiredTooMuch(ri)) {
      if (pi.resetRoutingInfo) hmResetInfo(kyr);
      kyrResetRoutingInfo(kyr);
    } else if (kyrIsServerProcess(kyr)) {
      DocumentText text(doc, docText);
      kyrServerProcessBroadcastDocument(kyr, text.get(), isDelta);
    }
  }
  json_decref(doc);  // a complete document stays with its connector through its own reference
  trDebug(kyr->trCtx, kyr->processRec,
          "Finished processing JSON from %s, new version ID is '%lld'\n", c->URL,
          static_cast<long long>(version));
  return version;
}

int64_t kyrHandleJsonFromRestService(const char* text, KyrConnector* c) {
  if (c == nullptr) return -1;
  json_t* doc = kyrStrToJson(c->kyr, text, c->URL);
  if (doc == nullptr) return -1;
  // The connector's identity travels with the document, so a client process can find it.
  json_object_set_new(doc, "connectorGroupName", json_string(c->cg->name));
  json_object_set_new(doc, "connectorURL", json_string(c->URL));
  // The stamped text is written out only where it is read (trace, other processes): for a
  // large cell it costs as much as building the model.
  return kyrHandleJson(doc, nullptr, c);
}

}  // extern "C"
