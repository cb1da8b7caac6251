// Structure-aware mutation of routing documents (see documentMutator.h). An edit works on the
// JSON of one document of the input and writes it back compact; an input whose chosen document
// does not parse, or whose edited form would not fit, gets libFuzzer's own mutation instead.
#include "fuzz/documentMutator.h"

#include <jansson.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace kyrfuzz {
namespace {

constexpr const char* kTypes[] = {
    "cell",      "node",       "server",       "serverApplication",
    "transport", "cluster",    "application",  "webModule",
    "uri",       "vHostGroup", "vHost",        "webRouteWorkClass",
    "rule",      "ruleSet",    "healthPolicy",
};
constexpr const char* kOperations[] = {"add", "del", "set"};
constexpr int kMaxDepth = 32;  // deeper objects are left alone

// The full names of the cell every input starts from.
std::vector<std::string>& knownNames() {
  static std::vector<std::string> names;
  return names;
}

struct ObjectRef {
  json_t* object;
  std::string fullName;
  int depth;
};

// The parts of one document that edits change.
struct Parts {
  std::vector<ObjectRef> objects;
  std::vector<json_t*> relationships;  // the {"a": name, "b": name} entries
};

void collectObjects(json_t* node, const std::string& parent, int depth, Parts& parts) {
  if (depth > kMaxDepth) return;
  if (json_is_array(node)) {
    size_t i;
    json_t* element;
    json_array_foreach(node, i, element) collectObjects(element, parent, depth, parts);
    return;
  }
  if (!json_is_object(node)) return;
  const char* name = json_string_value(json_object_get(node, "name"));
  std::string fullName = parent + (name != nullptr ? name : "");
  parts.objects.push_back({node, fullName, depth});
  collectObjects(json_object_get(node, "objects"), fullName, depth + 1, parts);
}

Parts collect(json_t* document) {
  Parts parts;
  for (const char* op : kOperations) {
    json_t* body = json_object_get(document, op);
    if (!json_is_object(body)) continue;
    collectObjects(json_object_get(body, "objects"), "", 1, parts);
    const char* key;
    json_t* entries;
    json_object_foreach(json_object_get(body, "relationships"), key, entries) {
      size_t i;
      json_t* entry;
      json_array_foreach(entries, i, entry) {
        if (json_is_object(entry)) parts.relationships.push_back(entry);
      }
    }
  }
  return parts;
}

template <class T>
const T& pick(const std::vector<T>& v, std::minstd_rand& rng) {
  return v[rng() % v.size()];
}

// "/cell/c/node/n" + "/server/s": the last type and value of a name under another parent.
std::string lastSegments(const std::string& name) {
  size_t value = name.rfind('/');
  if (value == std::string::npos || value == 0) return name;
  size_t type = name.rfind('/', value - 1);
  return type == std::string::npos ? name : name.substr(type);
}

// One edit; false when the document offers nothing for it.
bool edit(json_t* document, std::minstd_rand& rng) {
  Parts parts = collect(document);
  std::vector<std::string> names = knownNames();
  for (const ObjectRef& o : parts.objects) {
    if (o.depth == 1 && !o.fullName.empty()) names.push_back(o.fullName);
  }
  switch (rng() % 5) {
    case 0: {  // another type for an object
      if (parts.objects.empty()) return false;
      json_t* object = pick(parts.objects, rng).object;
      json_object_set_new(object, "type", json_string(kTypes[rng() % std::size(kTypes)]));
      return true;
    }
    case 1: {  // a top-level object under another parent
      std::vector<ObjectRef> top;
      for (const ObjectRef& o : parts.objects) {
        if (o.depth == 1 && !o.fullName.empty()) top.push_back(o);
      }
      if (top.empty() || names.empty()) return false;
      const ObjectRef& o = pick(top, rng);
      std::string name = pick(names, rng) + lastSegments(o.fullName);
      json_object_set_new(o.object, "name", json_string(name.c_str()));
      return true;
    }
    case 2: {  // a relationship end naming another object
      if (parts.relationships.empty() || names.empty()) return false;
      json_t* entry = pick(parts.relationships, rng);
      std::vector<const char*> keys;
      const char* key;
      json_t* value;
      json_object_foreach(entry, key, value) keys.push_back(key);
      if (keys.empty()) return false;
      json_object_set_new(entry, pick(keys, rng), json_string(pick(names, rng).c_str()));
      return true;
    }
    case 3: {  // a relationship's ends swapped
      if (parts.relationships.empty()) return false;
      json_t* entry = pick(parts.relationships, rng);
      if (json_object_size(entry) != 2) return false;
      void* first = json_object_iter(entry);
      void* second = json_object_iter_next(entry, first);
      json_t* a = json_incref(json_object_iter_value(first));
      json_object_iter_set(entry, first, json_object_iter_value(second));
      json_object_iter_set_new(entry, second, a);
      return true;
    }
    default: {  // a part of the document under another operation
      json_t* from = json_object_get(document, kOperations[rng() % 3]);
      if (from == nullptr) return false;
      json_incref(from);
      for (const char* op : kOperations) {
        if (json_object_get(document, op) == from) json_object_del(document, op);
      }
      json_object_set_new(document, kOperations[rng() % 3], from);
      return true;
    }
  }
}

}  // namespace

void documentMutatorAddNames(const std::string& document) {
  json_t* json = json_loads(document.c_str(), 0, nullptr);
  if (json == nullptr) return;
  for (const ObjectRef& o : collect(json).objects) {
    if (!o.fullName.empty()) knownNames().push_back(o.fullName);
  }
  json_decref(json);
}

size_t mutateDocuments(uint8_t* data, size_t size, size_t maxSize, unsigned int seed) {
  std::minstd_rand rng(seed);
  if (rng() % 2 == 0) return LLVMFuzzerMutate(data, size, maxSize);

  std::vector<std::string> documents;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  while (true) {
    size_t end = input.find(kDocumentSeparator);
    documents.emplace_back(input.substr(0, end));
    if (end == std::string_view::npos) break;
    input.remove_prefix(end + kDocumentSeparator.size());
  }
  std::string& chosen = documents[rng() % documents.size()];
  json_t* json = json_loadb(chosen.data(), chosen.size(), 0, nullptr);
  bool edited = json_is_object(json) && edit(json, rng);
  char* text = edited ? json_dumps(json, JSON_COMPACT) : nullptr;
  json_decref(json);
  if (text == nullptr) return LLVMFuzzerMutate(data, size, maxSize);
  chosen = text;
  free(text);

  std::string out = documents[0];
  for (size_t i = 1; i < documents.size(); ++i) {
    out += kDocumentSeparator;
    out += documents[i];
  }
  if (out.size() > maxSize) return LLVMFuzzerMutate(data, size, maxSize);
  memcpy(data, out.data(), out.size());
  return out.size();
}

}  // namespace kyrfuzz
