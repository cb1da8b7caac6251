// The walk over a delta's objects and relationships; the edits themselves are the library's own
// stored-document functions, so a document rebuilt here is byte for byte what a web server's
// library holds after the same deltas.
#include "deltaApply.h"

#include <cstring>
#include <string>

#include "core/kyrObjectHandlers.h"
#include "core/kyrStoredDocument.h"

namespace kyrpublish {
namespace {

enum class Op { Del, Add, Set };

// Nothing of this is traced: a publisher has no trace context, and a skipped object is the
// same skip the web servers make.
const kyr::StoredDocumentTrace kNoTrace{nullptr, nullptr};

void applyObjects(json_t* stored, json_t* node, const std::string& parent, Op op, int depth);

void applyObject(json_t* stored, json_t* node, const std::string& parent, Op op, int depth) {
  const char* type = json_string_value(json_object_get(node, "type"));
  const char* name = json_string_value(json_object_get(node, "name"));
  if (type == nullptr || name == nullptr || kyr::kyrFindObjectHandler(type) == nullptr) return;
  std::string fullName = parent + name;
  json_t* children = json_object_get(node, "objects");
  if (op == Op::Del) {
    // A delete naming an object with children deletes the children only.
    if (children != nullptr) {
      applyObjects(stored, children, fullName, op, depth + 1);
    } else {
      kyr::deltaObjectsDelete(stored, fullName.c_str(), kNoTrace);
    }
    return;
  }
  // An object added at the top of the delta brings its children along; nested ones are not
  // added again.
  if (op == Op::Add && depth == 1) kyr::deltaObjectsAdd(stored, fullName.c_str(), node, kNoTrace);
  if (op == Op::Set) {
    const char* prop;
    json_t* value;
    json_object_foreach(json_object_get(node, "props"), prop, value) {
      kyr::deltaObjectsSet(stored, fullName.c_str(), prop, value, kNoTrace);
    }
  }
  if (children != nullptr) applyObjects(stored, children, fullName, op, depth + 1);
}

void applyObjects(json_t* stored, json_t* node, const std::string& parent, Op op, int depth) {
  if (json_is_array(node)) {
    size_t i;
    json_t* element;
    json_array_foreach(node, i, element) applyObjects(stored, element, parent, op, depth);
  } else if (json_is_object(node)) {
    applyObject(stored, node, parent, op, depth);
  }
}

void applyRelationships(json_t* stored, json_t* relationships, Op op) {
  if (!json_is_object(relationships) || op == Op::Set) return;
  const char* key;
  json_t* elements;
  json_object_foreach(relationships, key, elements) {
    const char* colon = strchr(key, ':');
    if (kyr::kyrFindRelationshipHandler(key) == nullptr || colon == nullptr) continue;
    std::string type1(key, static_cast<size_t>(colon - key));
    size_t i;
    json_t* element;
    json_array_foreach(elements, i, element) {
      const char* name1 = json_string_value(json_object_get(element, type1.c_str()));
      const char* name2 = json_string_value(json_object_get(element, colon + 1));
      if (name1 == nullptr || name2 == nullptr) continue;
      if (op == Op::Add) kyr::deltaRelAdd(stored, key, element, name1, name2, kNoTrace);
      if (op == Op::Del) kyr::deltaRelDelete(stored, key, element);
    }
  }
}

}  // namespace

void applyDelta(json_t* document, const json_t* delta) {
  json_t* stored = json_object_get(document, "add");
  if (!json_is_object(stored)) {
    stored = json_object();
    json_object_set_new(document, "add", stored);
  }
  static constexpr struct {
    Op op;
    const char* key;
  } kOrder[] = {{Op::Del, "del"}, {Op::Add, "add"}, {Op::Set, "set"}};
  for (const auto& [op, key] : kOrder) {
    json_t* operation = json_object_get(delta, key);
    if (!json_is_object(operation)) continue;
    json_t* objects = json_object_get(operation, "objects");
    json_t* relationships = json_object_get(operation, "relationships");
    // Links go before their objects on delete and after them otherwise.
    if (op == Op::Del) applyRelationships(stored, relationships, op);
    applyObjects(stored, objects, "", op, 1);
    if (op != Op::Del) applyRelationships(stored, relationships, op);
  }
}

}  // namespace kyrpublish
