// The search of the stored document by full name and the edits made at what it finds. A full
// name is matched level by level: an element whose "name" is a prefix of what remains either is
// the target (nothing remains) or is descended into (the rest starts with "/").
#include "core/kyrStoredDocument.h"

#include <cstring>

#include "trace/trWrite.h"

namespace kyr {
namespace {

enum class SearchFor { Add, Set, Delete };

struct SearchResult {
  json_t* level;     // the object whose "objects" array was searched last
  json_t* objects;   // that array (null when missing for a delete)
  size_t index;      // position of the target in objects
  json_t* target;    // null when not found
  const char* rest;  // the unmatched remainder of the full name
};

// "objects" may be written as a single object; the stored tree always keeps an array.
json_t* objectsArray(json_t* level, bool create) {
  json_t* objects = json_object_get(level, "objects");
  if (json_is_array(objects)) return objects;
  if (!create && objects == nullptr) return nullptr;
  json_t* array = json_array();
  if (json_is_object(objects)) json_array_append(array, objects);
  json_object_set_new(level, "objects", array);
  return array;
}

SearchResult search(json_t* operation, const char* fullName, SearchFor purpose) {
  SearchResult r{operation, nullptr, 0, nullptr, fullName};
  for (;;) {
    r.objects = objectsArray(r.level, purpose != SearchFor::Delete);
    if (r.objects == nullptr) return r;
    json_t* descendInto = nullptr;
    size_t i;
    json_t* element;
    json_array_foreach(r.objects, i, element) {
      const char* name = json_string_value(json_object_get(element, "name"));
      if (name == nullptr) continue;
      size_t n = strlen(name);
      if (strncmp(name, r.rest, n) != 0) continue;
      if (r.rest[n] == '\0') {
        r.target = element;
        r.index = i;
        return r;
      }
      if (r.rest[n] == '/') {
        descendInto = element;
        r.rest += n;
        break;
      }
      if (purpose == SearchFor::Add) return r;  // an add stops at the first near miss
    }
    if (descendInto == nullptr) return r;
    r.level = descendInto;
  }
}

void copyMember(json_t* to, json_t* from, const char* key) {
  json_t* value = json_object_get(from, key);
  if (value != nullptr) json_object_set_new(to, key, json_deep_copy(value));
}

json_t* relationshipArray(json_t* operation, const char* relationship, bool create) {
  json_t* relationships = json_object_get(operation, "relationships");
  if (!json_is_object(relationships)) {
    if (!create) return nullptr;
    relationships = json_object();
    json_object_set_new(operation, "relationships", relationships);
  }
  json_t* array = json_object_get(relationships, relationship);
  if (!json_is_array(array)) {
    if (!create) return nullptr;
    array = json_array();
    json_object_set_new(relationships, relationship, array);
  }
  return array;
}

}  // namespace

void deltaObjectsAdd(json_t* operation, const char* fullName, json_t* object,
                     const StoredDocumentTrace& trace) {
  SearchResult r = search(operation, fullName, SearchFor::Add);
  if (r.target != nullptr) {
    trDebug(trace.ctx, trace.rec,
            "deltaObjects failure: not added because object already found: %s\n", fullName);
    return;
  }
  json_t* added = json_object();
  json_object_set_new(added, "name", json_string(r.rest));
  copyMember(added, object, "type");
  copyMember(added, object, "props");
  copyMember(added, object, "objects");
  json_array_append_new(r.objects, added);
}

void deltaObjectsSet(json_t* operation, const char* fullName, const char* propName,
                     json_t* propValue, const StoredDocumentTrace& trace) {
  SearchResult r = search(operation, fullName, SearchFor::Set);
  if (r.target == nullptr) {
    char* text = json_dumps(propValue, JSON_ENCODE_ANY);
    trDebug(trace.ctx, trace.rec,
            "deltaObjects failure: object not found; failed to set property '%s' to '%s' on '%s'\n",
            propName, text != nullptr ? text : "null", fullName);
    free(text);
    return;
  }
  json_t* props = json_object_get(r.target, "props");
  if (!json_is_object(props)) {
    props = json_object();
    json_object_set_new(r.target, "props", props);
  }
  json_object_set_new(props, propName, json_deep_copy(propValue));
}

void deltaObjectsDelete(json_t* operation, const char* fullName, const StoredDocumentTrace& trace) {
  SearchResult r = search(operation, fullName, SearchFor::Delete);
  if (r.target == nullptr) {
    trDebug(trace.ctx, trace.rec,
            "deltaObjects failure: delete failed because '%s' was not found\n", fullName);
    return;
  }
  json_array_remove(r.objects, r.index);
}

void deltaRelAdd(json_t* operation, const char* relationship, json_t* element, const char* name1,
                 const char* name2, const StoredDocumentTrace& trace) {
  json_t* array = relationshipArray(operation, relationship, true);
  size_t i;
  json_t* existing;
  json_array_foreach(array, i, existing) {
    if (json_equal(existing, element)) {
      trDebug(trace.ctx, trace.rec,
              "deltaRel: failed to add because already exists: relationship='%s', name1='%s', "
              "name2='%s'\n",
              relationship, name1, name2);
      return;
    }
  }
  json_array_append_new(array, json_deep_copy(element));
}

void deltaRelDelete(json_t* operation, const char* relationship, json_t* element) {
  json_t* array = relationshipArray(operation, relationship, false);
  if (array == nullptr) return;
  size_t i;
  json_t* existing;
  json_array_foreach(array, i, existing) {
    if (json_equal(existing, element)) {
      json_array_remove(array, i);
      return;
    }
  }
}

}  // namespace kyr
