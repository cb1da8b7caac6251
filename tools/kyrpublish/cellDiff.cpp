// Reading a complete document into objects by full name and relationships by value, checking it
// against the library's own handler and relationship tables (src/core/kyrObjectHandlers.h), and
// turning two such readings into the delta the library applies.
#include "cellDiff.h"

#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/kyrObjectHandlers.h"

namespace kyrpublish {
namespace {

using kyr::ObjectHandler;

// ---- Reading -------------------------------------------------------------------------------

struct Object {
  std::string fullName;
  std::string name;  // relative to the parent, as written
  std::string type;
  const ObjectHandler* row = nullptr;
  json_t* element = nullptr;  // borrowed from the document
  json_t* props = nullptr;    // borrowed; null when the object has none
  int parent = -1;            // index in Document::objects; -1 at the top level
  std::vector<int> children;
};

struct Relationship {
  std::string key;        // "cluster:server"
  std::string canonical;  // the key and the element written with sorted keys: its identity
  json_t* element;        // borrowed
  std::string name1;      // the full names of its two ends
  std::string name2;
};

struct Document {
  std::vector<Object> objects;  // in document order, parents before their children
  std::map<std::string, int> byName;
  std::vector<int> top;
  std::vector<Relationship> relationships;  // in document order
  std::string problem;                      // the first one; empty for a document to serve

  const Object* find(const std::string& fullName) const {
    auto it = byName.find(fullName);
    return it == byName.end() ? nullptr : &objects[static_cast<size_t>(it->second)];
  }
};

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

const char* jsonTypeName(const json_t* v) {
  switch (json_typeof(v)) {
    case JSON_OBJECT:
      return "an object";
    case JSON_ARRAY:
      return "an array";
    case JSON_STRING:
      return "a string";
    case JSON_INTEGER:
      return "an integer";
    case JSON_REAL:
      return "a real number";
    case JSON_TRUE:
    case JSON_FALSE:
      return "a boolean";
    case JSON_NULL:
      return "null";
  }
  return "an unknown JSON value";
}

std::string dumpSorted(const json_t* v) {
  char* text = json_dumps(v, JSON_COMPACT | JSON_SORT_KEYS | JSON_ENCODE_ANY);
  std::string s = text != nullptr ? text : "";
  free(text);
  return s;
}

// Empty when `name` is one "/type/value" pair of the object's own type; else what is wrong.
// The library would take more (several pairs, any type), but its search of the stored document
// matches names level by level as text: a value with an unescaped "/" or a trailing backslash
// (which escapes the "/" of a child's name) would make one object's name a path prefix of a
// sibling's, and deltas would then miss their target.
std::string nameProblem(const std::string& name, const std::string& type) {
  std::string prefix = "/" + type + "/";
  if (name.compare(0, prefix.size(), prefix) != 0) {
    return "is not of the form " + quoted(prefix + "<value>");
  }
  std::string value = name.substr(prefix.size());
  if (value.empty()) return "has an empty value";
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '/' && (i == 0 || value[i - 1] != '\\')) {
      return "has an unescaped \"/\" in its value (write \"\\/\")";
    }
  }
  if (value.back() == '\\') return "ends with a backslash, which would escape the next \"/\"";
  return "";
}

bool parentTypeAllowed(const ObjectHandler* row, const std::string& parentType) {
  if (row->parentTypes[0] == nullptr) return true;
  for (const char* allowed : row->parentTypes) {
    if (allowed != nullptr && parentType == allowed) return true;
  }
  return false;
}

std::string allowedParents(const ObjectHandler* row) {
  std::string list;
  for (const char* allowed : row->parentTypes) {
    if (allowed == nullptr) continue;
    list += (list.empty() ? "" : " or ") + std::string(allowed);
  }
  return list.empty() ? "any object" : list;
}

// The cell is the one object that holds the version-level objects (the rows whose parent is the
// version itself) in documents; the library would take them anywhere, as it never looks their
// parent up, but a node under a server is a mistake in the cell file.
constexpr const char* kCellType = "cell";

std::string parentProblem(const ObjectHandler* row, const Object* parent) {
  std::string type = row->objectType;
  switch (row->parmType) {
    case kyr::RoutingInfo:
      if (type == kCellType) {
        return parent == nullptr ? ""
                                 : "a cell belongs at the top level, not under a " + parent->type;
      }
      if (parent == nullptr || parent->type == kCellType) return "";
      return "a " + type + " belongs at the top level or in the cell, not under a " + parent->type;
    case kyr::ParentMandatory:
      if (parent == nullptr) return "a " + type + " needs a parent (" + allowedParents(row) + ")";
      if (!parentTypeAllowed(row, parent->type)) {
        return "a " + type + " cannot be under a " + parent->type + " (only under " +
               allowedParents(row) + ")";
      }
      return "";
    case kyr::ParentOptional:
      if (parent != nullptr && !parentTypeAllowed(row, parent->type)) {
        return "a " + type + " cannot be under a " + parent->type + " (only under " +
               allowedParents(row) + ")";
      }
      return "";
  }
  return "";
}

class Reader {
 public:
  explicit Reader(Document& d) : d_(d) {}

  void read(const json_t* doc) {
    if (!json_is_object(doc)) {
      fail("the document is not a JSON object");
      return;
    }
    json_t* delta = json_object_get(doc, "delta");
    if (delta != nullptr && !json_is_false(delta)) {
      fail("\"delta\" is " + dumpSorted(delta) + "; a complete document has \"delta\": false");
      return;
    }
    for (const char* key : {"version", "restVersion"}) {
      json_t* value = json_object_get(doc, key);
      if (value != nullptr && !json_is_integer(value)) {
        fail(quoted(key) + " is " + jsonTypeName(value) + ", not an integer");
        return;
      }
    }
    for (const char* key : {"del", "set"}) {
      if (json_object_get(doc, key) != nullptr) {
        fail("a complete document carries everything under \"add\"; it has " + quoted(key));
        return;
      }
    }
    json_t* add = json_object_get(doc, "add");
    if (add == nullptr) {
      fail("\"add\" is missing");
      return;
    }
    if (!json_is_object(add)) {
      fail(std::string("\"add\" is ") + jsonTypeName(add) + ", not an object");
      return;
    }
    json_t* objects = json_object_get(add, "objects");
    if (objects != nullptr && !readObjects(objects, -1)) return;
    readRelationships(json_object_get(add, "relationships"));
  }

 private:
  bool fail(std::string problem) {
    if (d_.problem.empty()) d_.problem = std::move(problem);
    return false;
  }

  std::string where(int parent) const {
    return parent < 0 ? "the top level" : d_.objects[static_cast<size_t>(parent)].fullName;
  }

  bool readObjects(json_t* node, int parent) {
    if (json_is_object(node)) return readObject(node, parent);
    if (!json_is_array(node)) {
      return fail("\"objects\" of " + where(parent) + " is " + jsonTypeName(node) +
                  ", not an array or an object");
    }
    size_t i;
    json_t* element;
    json_array_foreach(node, i, element) {
      if (!json_is_object(element)) {
        return fail("an element of \"objects\" of " + where(parent) + " is " +
                    jsonTypeName(element) + ", not an object");
      }
      if (!readObject(element, parent)) return false;
    }
    return true;
  }

  bool readObject(json_t* node, int parent) {
    json_t* typeValue = json_object_get(node, "type");
    json_t* nameValue = json_object_get(node, "name");
    std::string what = json_is_string(nameValue)
                           ? where(parent) + " object " + json_string_value(nameValue)
                           : "an object in " + where(parent);
    if (!json_is_string(typeValue)) {
      return fail(what + (typeValue == nullptr
                              ? " has no \"type\""
                              : std::string(" has a \"type\" that is ") + jsonTypeName(typeValue)));
    }
    std::string type = json_string_value(typeValue);
    const ObjectHandler* row = kyr::kyrFindObjectHandler(type.c_str());
    if (row == nullptr) return fail(what + " has the unknown type " + quoted(type));
    if (!json_is_string(nameValue)) {
      return fail("a " + type + " in " + where(parent) +
                  (nameValue == nullptr
                       ? " has no \"name\""
                       : std::string(" has a \"name\" that is ") + jsonTypeName(nameValue)));
    }
    std::string name = json_string_value(nameValue);
    std::string fullName = (parent < 0 ? std::string() : where(parent)) + name;
    if (std::string p = nameProblem(name, type); !p.empty()) {
      return fail("the name of " + type + " " + fullName + " " + p);
    }
    const Object* parentObject = parent < 0 ? nullptr : &d_.objects[static_cast<size_t>(parent)];
    if (std::string p = parentProblem(row, parentObject); !p.empty()) {
      return fail(fullName + ": " + p);
    }
    if (type == kCellType && ++cells_ > 1) {
      return fail(fullName +
                  ": a second cell (a version holds one; the library skips the second "
                  "with all it holds)");
    }
    if (d_.byName.count(fullName) != 0) return fail("duplicate full name " + fullName);
    json_t* props = json_object_get(node, "props");
    if (props != nullptr && !checkProps(props, fullName)) return false;

    int index = static_cast<int>(d_.objects.size());
    Object o;
    o.fullName = fullName;
    o.name = name;
    o.type = type;
    o.row = row;
    o.element = node;
    o.props = props;
    o.parent = parent;
    d_.objects.push_back(std::move(o));
    d_.byName[fullName] = index;
    if (parent < 0) {
      d_.top.push_back(index);
    } else {
      d_.objects[static_cast<size_t>(parent)].children.push_back(index);
    }
    json_t* children = json_object_get(node, "objects");
    return children == nullptr || readObjects(children, index);
  }

  bool checkProps(json_t* props, const std::string& fullName) {
    if (!json_is_object(props)) {
      return fail(fullName + ": \"props\" is " + jsonTypeName(props) + ", not an object");
    }
    const char* key;
    json_t* value;
    json_object_foreach(props, key, value) {
      if (json_is_integer(value)) {
        // The library hands integers to the setters as int.
        json_int_t v = json_integer_value(value);
        if (v < std::numeric_limits<int>::min() || v > std::numeric_limits<int>::max()) {
          return fail(fullName + ": property " + key + " = " + dumpSorted(value) +
                      " is outside the integer range");
        }
      } else if (!json_is_string(value) && !json_is_boolean(value) && !json_is_null(value)) {
        return fail(fullName + ": property " + key + " is " + jsonTypeName(value) +
                    "; property values are strings, integers, booleans or null");
      }
    }
    return true;
  }

  void readRelationships(json_t* relationships) {
    if (relationships == nullptr) return;
    if (!json_is_object(relationships)) {
      fail(std::string("\"relationships\" is ") + jsonTypeName(relationships) + ", not an object");
      return;
    }
    std::set<std::string> seen;
    // A server is a member of one cluster (linking it again moves it), and a module's virtual
    // cluster takes the first cluster linked to it: with two, what the library does depends on
    // the order of the links, which deltas do not keep.
    std::map<std::string, std::string> clusterOf[2];
    const char* key;
    json_t* elements;
    json_object_foreach(relationships, key, elements) {
      if (kyr::kyrFindRelationshipHandler(key) == nullptr) {
        fail("unknown relationship " + quoted(key));
        return;
      }
      const char* colon = strchr(key, ':');
      if (colon == nullptr) {
        fail("relationship " + quoted(key) + " has no colon");
        return;
      }
      std::string types[2] = {std::string(key, static_cast<size_t>(colon - key)), colon + 1};
      if (!json_is_array(elements)) {
        fail("relationship " + quoted(key) + " is " + jsonTypeName(elements) + ", not an array");
        return;
      }
      size_t i;
      json_t* element;
      json_array_foreach(elements, i, element) {
        if (!json_is_object(element)) {
          fail("an element of relationship " + quoted(key) + " is " + jsonTypeName(element) +
               ", not an object");
          return;
        }
        std::string names[2];
        for (int end = 0; end < 2; ++end) {
          json_t* value = json_object_get(element, types[end].c_str());
          if (!json_is_string(value)) {
            fail("an element of relationship " + quoted(key) + " has no string " +
                 quoted(types[end]) + ": " + dumpSorted(element));
            return;
          }
          names[end] = json_string_value(value);
          const Object* o = d_.find(names[end]);
          if (o == nullptr) {
            fail("relationship " + quoted(key) + " names the missing object " + names[end]);
            return;
          }
          if (o->type != types[end]) {
            fail("relationship " + quoted(key) + " names " + names[end] + ", which is a " +
                 o->type + ", not a " + types[end]);
            return;
          }
        }
        Relationship r{key, std::string(key) + " " + dumpSorted(element), element, names[0],
                       names[1]};
        if (!seen.insert(r.canonical).second) {
          fail("relationship " + quoted(key) + " lists " + names[0] + " and " + names[1] +
               " twice");
          return;
        }
        int one = std::string(key) == "cluster:server"      ? 0
                  : std::string(key) == "cluster:webModule" ? 1
                                                            : -1;
        if (one >= 0) {
          auto [it, inserted] = clusterOf[one].emplace(names[1], names[0]);
          if (!inserted) {
            fail(names[1] + " is linked to two clusters, " + it->second + " and " + names[0] +
                 " (the library's choice would depend on the order of the links)");
            return;
          }
        }
        d_.relationships.push_back(std::move(r));
      }
    }
  }

  Document& d_;
  int cells_ = 0;
};

Document readDocument(const json_t* doc) {
  Document d;
  Reader(d).read(doc);
  return d;
}

// ---- What a "set" does in place ------------------------------------------------------------

// What a row's setter makes of one value on an object that exists. Rows that rebuild the whole
// version (requiresRoutingInfoReset) are not asked: the library rebuilds them from its stored
// document, so any value may be set there. The names are those the setters in
// src/selection (kyrTargetServer.cpp, kyrServerApplication.cpp, kyrTargetEndpoint.cpp,
// kyrTargetSelector.cpp) and src/core/kyrRuleRows.cpp act on; a row this table does not know
// is added again on every change, which is always right.
enum class Effect {
  None,        // ignored: an unknown name, a value the setter refuses, a type it has no setter for
  Overwrite,   // a later value replaces an earlier one
  FirstWins,   // only the first value counts (a server's clone ID)
  AtCreation,  // acts when the object is created and initialised, not when changed later
};

bool oneOf(const char* name, std::initializer_list<const char*> names) {
  for (const char* n : names) {
    if (strcmp(name, n) == 0) return true;
  }
  return false;
}

bool stringIn(const json_t* v, std::initializer_list<const char*> values) {
  return json_is_string(v) && oneOf(json_string_value(v), values);
}

Effect serverEffect(const char* prop, const json_t* v) {
  if (json_is_string(v)) {
    if (strcmp(prop, "id") == 0) {
      return *json_string_value(v) == '\0' ? Effect::None : Effect::FirstWins;
    }
    if (strcmp(prop, "server.maintenancemode") == 0) {
      // Any other text leaves the mode as it was.
      return stringIn(v, {"false", "affinity", "break"}) ? Effect::Overwrite : Effect::None;
    }
    return oneOf(prop, {"state", "sessionAffinityCookies", "type"}) ? Effect::Overwrite
                                                                    : Effect::None;
  }
  if (json_is_integer(v)) {
    return oneOf(prop, {"weight", "connectTimeout", "ioTimeout", "wsIoTimeout", "wsIdleTimeout",
                        "maxConnections"})
               ? Effect::Overwrite
               : Effect::None;
  }
  if (json_is_boolean(v)) {
    return oneOf(prop, {"cloneSeparatorChange", "waitForContinue", "extendedHandshake"})
               ? Effect::Overwrite
               : Effect::None;
  }
  return Effect::None;  // null changes nothing on a server
}

Effect effectOf(const std::string& type, const char* prop, const json_t* v) {
  if (v == nullptr || json_is_null(v)) {
    // Of these rows only the server has a null setter, and it changes nothing (but on the web
    // server's own server, whose string properties are the handle's custom properties).
    return type == "server" || type == "node" || type == "serverApplication" ||
                   type == "transport" || type == "cluster" || type == "rule" || type == "ruleSet"
               ? Effect::None
               : Effect::AtCreation;
  }
  if (type == "server") return serverEffect(prop, v);
  if (type == "node") {
    return strcmp(prop, "cp.node.maintenancemode") == 0 && stringIn(v, {"true", "false"})
               ? Effect::Overwrite
               : Effect::None;
  }
  if (type == "serverApplication") {
    return strcmp(prop, "state") == 0 && json_is_string(v) ? Effect::Overwrite : Effect::None;
  }
  if (type == "transport") {
    if (json_is_string(v)) {
      return oneOf(prop, {"host", "namedEndpoint"}) ? Effect::Overwrite : Effect::None;
    }
    if (json_is_integer(v)) {
      return oneOf(prop, {"port", "persistentTimeout"}) ? Effect::Overwrite : Effect::None;
    }
    return Effect::None;
  }
  if (type == "cluster") {
    if (json_is_string(v)) {
      return oneOf(prop,
                   {"cloneIdSeparator", "cookieNames", "serverType", "appEditionRolloutState"})
                 ? Effect::Overwrite
                 : Effect::None;
    }
    if (json_is_integer(v)) {
      return strcmp(prop, "ioTimeoutRetry") == 0 ? Effect::Overwrite : Effect::None;
    }
    if (json_is_boolean(v)) {
      return strcmp(prop, "learnCloneIds") == 0 ? Effect::Overwrite : Effect::None;
    }
    return Effect::None;
  }
  if (type == "rule") {
    // A rule is sorted into its set when it is initialised (its order depends on whether it
    // has an expression), a rule without action is dropped then, and a trace rule keeps its
    // old trace specification when the new one does not parse.
    return oneOf(prop, {"expression", "action"}) && json_is_string(v) ? Effect::AtCreation
                                                                      : Effect::None;
  }
  if (type == "ruleSet") return Effect::None;
  return Effect::AtCreation;
}

// The short name of an object: its value with the escapes removed.
std::string valueOf(const Object& o) {
  std::string raw = o.name.substr(o.type.size() + 2);
  std::string value;
  for (char c : raw) {
    if (c != '\\') value += c;
  }
  return value;
}

// Whether setting `newValue` (null: removed) on the existing object leaves it as an object
// created with it would be. Not asked for the cell, which is never added again.
bool settableInPlace(const Object& o, const char* prop, const json_t* oldValue,
                     const json_t* newValue) {
  if (o.row->requiresRoutingInfoReset) return true;
  if (o.type == "transport") {
    // A publisher port makes its connector when it is initialised, from what it had then.
    std::string shortName = valueOf(o);
    if (shortName == "YKAGENT_PORT" || shortName == "SMART_ROUTING_PORT") return false;
    if (strcmp(prop, "protocol") == 0) {
      // An endpoint joins its protocol's list when it is initialised with a known protocol; a
      // listed one follows later strings (an unknown one takes it off its list), one that was
      // not listed never joins. Only strings reach the setter: null leaves the list as it is.
      auto known = [](const json_t* v) { return stringIn(v, {"http", "https"}); };
      if (!json_is_string(newValue)) return !known(oldValue);
      return known(oldValue) || !known(newValue);
    }
  }
  Effect before = effectOf(o.type, prop, oldValue);
  Effect after = effectOf(o.type, prop, newValue);
  if (before == Effect::AtCreation || after == Effect::AtCreation) return false;
  switch (after) {
    case Effect::Overwrite:
      return before != Effect::FirstWins;
    case Effect::None:
    case Effect::FirstWins:
      return before == Effect::None;
    case Effect::AtCreation:
      break;
  }
  return false;
}

// ---- Diff ----------------------------------------------------------------------------------

json_t* effectiveProp(const json_t* props, const char* key) {
  json_t* v = json_object_get(props, key);
  return json_is_null(v) ? nullptr : v;
}

// A property value as the row sees it: null when the row has no setter for its JSON type (the
// library skips it, on a new object as on an existing one), as for null itself.
json_t* effectiveProp(const Object& o, const char* key) {
  json_t* v = effectiveProp(o.props, key);
  if (v == nullptr) return nullptr;
  bool skipped = (json_is_string(v) && o.row->setPropStr == nullptr) ||
                 (json_is_integer(v) && o.row->setPropInt == nullptr) ||
                 (json_is_boolean(v) && o.row->setPropBool == nullptr);
  return skipped ? nullptr : v;
}

struct PropChange {
  std::string name;
  json_t* before;   // as the row sees it (effectiveProp): null when missing or skipped
  json_t* after;    // likewise; null when removed or skipped
  json_t* written;  // the new value as the document has it; null when missing or null
};

std::vector<PropChange> propChanges(const Object& before, const Object& after) {
  std::vector<PropChange> changes;
  std::set<std::string> names;
  for (const Object* o : {&before, &after}) {
    const char* key;
    json_t* value;
    json_object_foreach(o->props, key, value) names.insert(key);
  }
  for (const std::string& name : names) {
    json_t* a = effectiveProp(before, name.c_str());
    json_t* b = effectiveProp(after, name.c_str());
    if (a == nullptr && b == nullptr) continue;
    if (a != nullptr && b != nullptr && json_equal(a, b)) continue;
    changes.push_back({name, a, b, effectiveProp(after.props, name.c_str())});
  }
  return changes;
}

// The first ancestor of object `i` (or `i` itself) at whose level the library's search of its
// stored document for an add of `i` could stop early: a sibling whose name is a prefix of what
// remains of the path (/server/s1 against /server/s10/transport/http) ends the search there,
// and the object would be stored under a name of several pairs at the wrong level. Which
// sibling comes first in the stored document is not known here, so any such sibling counts.
// -1 when there is none.
int addHazard(const Document& d, int i) {
  std::vector<int> path;
  for (int p = i; p >= 0; p = d.objects[static_cast<size_t>(p)].parent) {
    path.insert(path.begin(), p);
  }
  for (size_t j = 0; j + 1 < path.size(); ++j) {
    std::string rest;
    for (size_t k = j; k < path.size(); ++k) rest += d.objects[static_cast<size_t>(path[k])].name;
    const std::vector<int>& siblings =
        j == 0 ? d.top : d.objects[static_cast<size_t>(path[j - 1])].children;
    for (int s : siblings) {
      if (s == path[j]) continue;
      const std::string& name = d.objects[static_cast<size_t>(s)].name;
      if (rest.compare(0, name.size(), name) == 0) return path[j];
    }
  }
  return -1;
}

class Differ {
 public:
  Differ(const Document& before, const Document& after) : o_(before), n_(after) {}

  json_t* run(const json_t* newDoc) {
    decideObjects();
    json_t* delta = json_object();
    json_object_set_new(delta, "delta", json_true());
    json_t* restVersion = json_object_get(newDoc, "restVersion");
    if (restVersion != nullptr)
      json_object_set_new(delta, "restVersion", json_deep_copy(restVersion));

    json_t* delObjects = json_array();
    json_t* addObjects = json_array();
    json_t* setObjects = json_array();
    json_t* delRelationships = json_object();
    json_t* addRelationships = json_object();
    emitDeletions(delObjects);
    emitAdditions(addObjects);
    emitSets(setObjects);
    emitRelationships(delRelationships, addRelationships);
    if (affinityPolicyInputsChange() &&
        !rebuilds(delObjects, addObjects, setObjects, delRelationships)) {
      forceRebuild(setObjects);
    }

    bool any = false;
    any |= putOperation(delta, "del", delObjects, delRelationships);
    any |= putOperation(delta, "add", addObjects, addRelationships);
    any |= putOperation(delta, "set", setObjects, nullptr);
    if (!any) {
      json_decref(delta);
      return nullptr;
    }
    return delta;
  }

 private:
  bool replaced(const std::string& fullName) const { return replaced_.count(fullName) != 0; }

  // Whether the object is new or added again, and so comes with its parent unless the parent
  // stays.
  bool addedAgain(const Object& o) const {
    return o_.find(o.fullName) == nullptr || replaced(o.fullName);
  }

  void decideObjects() {
    // Objects whose type changed, and those a property change cannot reach in place.
    for (const Object& after : n_.objects) {
      const Object* before = o_.find(after.fullName);
      if (before == nullptr) continue;
      if (before->type != after.type) {
        replaced_.insert(after.fullName);
        continue;
      }
      if (after.type == kCellType) continue;  // everything is in it; see emitSets
      for (const PropChange& c : propChanges(*before, after)) {
        if (!settableInPlace(after, c.name.c_str(), c.before, c.after)) {
          replaced_.insert(after.fullName);
          break;
        }
      }
    }
    decideEndpointOrder();
    // Adds whose search would stop early add an ancestor again; that ancestor's own add is
    // checked in the next round.
    for (bool changed = true; changed;) {
      changed = false;
      forEachRootAdd([&](int i) {
        int hazard = addHazard(n_, i);
        if (hazard >= 0 &&
            replaced_.insert(n_.objects[static_cast<size_t>(hazard)].fullName).second) {
          changed = true;
        }
      });
    }
  }

  // Whether an object of the old document stays as it is (its subtree is not added again).
  bool stays(const Object& before) const {
    const Object* after = n_.find(before.fullName);
    return after != nullptr && after->type == before.type && !replaced(before.fullName);
  }

  // Endpoint selection takes the first endpoint of the wanted protocol in the order the
  // server's endpoints were created (selectEndpoint, src/selection/kyrTargetSelect.cpp); the
  // library appends an added endpoint, and one whose protocol changes goes to the end of its new
  // protocol's list. Where a server has two endpoints of one protocol their order is the
  // document's, so the server is added again when the library's order would differ.
  void decideEndpointOrder() {
    for (const Object& server : n_.objects) {
      const Object* before = o_.find(server.fullName);
      if (server.type != "server" || before == nullptr || !stays(*before)) continue;
      std::map<std::string, int> perProtocol;
      std::vector<std::string> order, added;
      bool protocolChanged = false;
      for (int c : server.children) {
        const Object& t = n_.objects[static_cast<size_t>(c)];
        if (t.type != "transport") continue;
        order.push_back(t.fullName);
        json_t* protocol = effectiveProp(t.props, "protocol");
        if (json_is_string(protocol)) ++perProtocol[json_string_value(protocol)];
        const Object* tb = o_.find(t.fullName);
        if (tb == nullptr || !stays(*tb)) {
          added.push_back(t.fullName);
          continue;
        }
        json_t* was = effectiveProp(tb->props, "protocol");
        if ((was == nullptr) != (protocol == nullptr) ||
            (was != nullptr && !json_equal(was, protocol))) {
          protocolChanged = true;
        }
      }
      bool shared = false;
      for (const auto& [protocol, count] : perProtocol) shared |= count > 1;
      if (!shared) continue;
      std::vector<std::string> libraryOrder;
      for (int c : before->children) {
        const Object& t = o_.objects[static_cast<size_t>(c)];
        if (t.type == "transport" && stays(t)) libraryOrder.push_back(t.fullName);
      }
      libraryOrder.insert(libraryOrder.end(), added.begin(), added.end());
      if (protocolChanged || libraryOrder != order) replaced_.insert(server.fullName);
    }
  }

  // Calls fn for each object of the new document that is added (new, or added again) while its
  // parent stays: the tops of the subtrees that "add" carries.
  template <class Fn>
  void forEachRootAdd(Fn fn) const {
    std::vector<bool> inAdded(n_.objects.size(), false);
    for (size_t i = 0; i < n_.objects.size(); ++i) {
      const Object& o = n_.objects[i];
      bool parentAdded = o.parent >= 0 && inAdded[static_cast<size_t>(o.parent)];
      if (parentAdded) {
        inAdded[i] = true;
      } else if (addedAgain(o)) {
        inAdded[i] = true;
        fn(static_cast<int>(i));
      }
    }
  }

  // Whether an object of the new document is part of a subtree that is added again.
  bool insideReplaced(const std::string& fullName) const {
    for (const Object* o = n_.find(fullName); o != nullptr;
         o = o->parent >= 0 ? &n_.objects[static_cast<size_t>(o->parent)] : nullptr) {
      if (replaced(o->fullName)) return true;
    }
    return false;
  }

  // The deletion of an object and everything under it, deepest first: "del" with children
  // deletes only the children, so an object with children is named twice.
  void appendDeletion(json_t* array, const Object& o, const std::string& nameInDelta) const {
    if (!o.children.empty()) {
      json_t* children = json_array();
      for (int c : o.children) {
        const Object& child = o_.objects[static_cast<size_t>(c)];
        appendDeletion(children, child, child.name);
      }
      json_t* entry = json_object();
      json_object_set_new(entry, "type", json_string(o.type.c_str()));
      json_object_set_new(entry, "name", json_string(nameInDelta.c_str()));
      json_object_set_new(entry, "objects", children);
      json_array_append_new(array, entry);
    }
    json_t* entry = json_object();
    json_object_set_new(entry, "type", json_string(o.type.c_str()));
    json_object_set_new(entry, "name", json_string(nameInDelta.c_str()));
    json_array_append_new(array, entry);
  }

  void emitDeletions(json_t* objects) const {
    std::vector<bool> inDeleted(o_.objects.size(), false);
    for (size_t i = 0; i < o_.objects.size(); ++i) {
      const Object& o = o_.objects[i];
      if (o.parent >= 0 && inDeleted[static_cast<size_t>(o.parent)]) {
        inDeleted[i] = true;
        continue;
      }
      const Object* after = n_.find(o.fullName);
      if (after == nullptr || replaced(o.fullName)) {
        inDeleted[i] = true;
        appendDeletion(objects, o, o.fullName);
      }
    }
  }

  void emitAdditions(json_t* objects) const {
    forEachRootAdd([&](int i) {
      const Object& o = n_.objects[static_cast<size_t>(i)];
      json_t* entry = json_deep_copy(o.element);
      json_object_set_new(entry, "name", json_string(o.fullName.c_str()));
      json_array_append_new(objects, entry);
    });
  }

  static json_t* setEntry(const Object& o, json_t* props) {
    json_t* entry = json_object();
    json_object_set_new(entry, "type", json_string(o.type.c_str()));
    json_object_set_new(entry, "name", json_string(o.fullName.c_str()));
    json_object_set_new(entry, "props", props);
    return entry;
  }

  void emitSets(json_t* objects) const {
    for (const Object& after : n_.objects) {
      const Object* before = o_.find(after.fullName);
      if (before == nullptr || before->type != after.type || insideReplaced(after.fullName)) {
        continue;
      }
      std::vector<PropChange> changes = propChanges(*before, after);
      if (changes.empty()) continue;
      json_t* props = json_object();
      for (const PropChange& c : changes) {
        // A value the row skips goes as null where the row has a null setter (the cell's
        // custom properties): null clears what the old value set, and a rebuild from the
        // stored document, which leaves the handle's custom properties as they are, must see
        // that null too. Elsewhere the value goes as written.
        bool clear =
            c.written == nullptr || (c.after == nullptr && after.row->setPropNull != nullptr);
        json_object_set_new(props, c.name.c_str(), clear ? json_null() : json_deep_copy(c.written));
      }
      json_array_append_new(objects, setEntry(after, props));
    }
  }

  // Servers that stay and gain a server application: a "server:webModule" link made before
  // the application existed, or whose application was deleted since, does not take the new
  // application into the module's virtual cluster (the link looks the application up when it
  // is made, or when a waiting link's application starts), so those links are made again.
  std::set<std::string> serversGainingApplications() const {
    std::set<std::string> servers;
    forEachRootAdd([&](int i) {
      const Object& o = n_.objects[static_cast<size_t>(i)];
      if (o.type != "serverApplication" || o.parent < 0) return;
      const Object& server = n_.objects[static_cast<size_t>(o.parent)];
      if (server.type == "server") servers.insert(server.fullName);
    });
    return servers;
  }

  static void appendRelationship(json_t* relationships, const Relationship& r) {
    json_t* array = json_object_get(relationships, r.key.c_str());
    if (array == nullptr) {
      array = json_array();
      json_object_set_new(relationships, r.key.c_str(), array);
    }
    json_array_append_new(array, json_deep_copy(r.element));
  }

  // Affinity policies: a module's policy is built at its first request from its cluster's
  // cookie names, clone ID separator and learning flag and from the cluster's members (the
  // first member's own cookie names; a member that changes the separator), and then kept
  // (getAffinityPolicy, src/selection/kyrAffinity.cpp). A change of any of these reaches the
  // policy only when the version is rebuilt.
  bool affinityPolicyInputsChange() const {
    for (const Object& after : n_.objects) {
      const Object* before = o_.find(after.fullName);
      if (before == nullptr || before->type != after.type) continue;
      bool cluster = after.type == "cluster";
      if (!cluster && after.type != "server") continue;
      for (const PropChange& c : propChanges(*before, after)) {
        const char* name = c.name.c_str();
        if (cluster
                ? oneOf(name, {"cookieNames", "cloneIdSeparator", "learnCloneIds", "serverType"})
                : oneOf(name, {"sessionAffinityCookies", "cloneSeparatorChange"})) {
          return true;
        }
      }
    }
    for (const Relationship* r : changedRelationships_) {
      if (r->key == "cluster:webModule") return true;
      if (r->key == "cluster:server" && clusterHasPolicyMembers(r->name1)) return true;
    }
    return false;
  }

  // Whether a member of the cluster, in either document, brings its own cookie names or
  // separator into the cluster's policy: then which member comes first matters.
  bool clusterHasPolicyMembers(const std::string& cluster) const {
    for (const Document* d : {&o_, &n_}) {
      for (const Relationship& r : d->relationships) {
        if (r.key != "cluster:server" || r.name1 != cluster) continue;
        const Object* server = d->find(r.name2);
        json_t* cookies = effectiveProp(*server, "sessionAffinityCookies");
        if ((json_is_string(cookies) && strcmp(json_string_value(cookies), "JSESSIONID") != 0) ||
            json_is_true(effectiveProp(*server, "cloneSeparatorChange"))) {
          return true;
        }
      }
    }
    return false;
  }

  // Whether the library rebuilds its version for the delta: it names an object of a row that
  // requires it, or removes a "vHostGroup:webModule" link.
  static bool namesResettingRow(const json_t* objects) {
    size_t i;
    json_t* e;
    json_array_foreach(objects, i, e) {
      const ObjectHandler* row =
          kyr::kyrFindObjectHandler(json_string_value(json_object_get(e, "type")));
      if (row != nullptr && row->requiresRoutingInfoReset) return true;
      json_t* children = json_object_get(e, "objects");
      if (json_is_array(children) && namesResettingRow(children)) return true;
      if (json_is_object(children)) {
        json_t* one = json_array();
        json_array_append(one, children);
        bool found = namesResettingRow(one);
        json_decref(one);
        if (found) return true;
      }
    }
    return false;
  }
  static bool rebuilds(const json_t* del, const json_t* add, const json_t* set,
                       const json_t* delRelationships) {
    return namesResettingRow(del) || namesResettingRow(add) || namesResettingRow(set) ||
           json_object_get(delRelationships, "vHostGroup:webModule") != nullptr;
  }

  // Makes the library rebuild its version: a "set" without properties of an object that
  // stays, of a row that requires a rebuild, changes nothing but that.
  void forceRebuild(json_t* setObjects) const {
    for (const Object& after : n_.objects) {
      const Object* before = o_.find(after.fullName);
      if (!after.row->requiresRoutingInfoReset || before == nullptr || !stays(*before) ||
          insideReplaced(after.fullName)) {
        continue;
      }
      json_array_append_new(setObjects, setEntry(after, json_object()));
      return;
    }
  }

  void emitRelationships(json_t* del, json_t* add) {
    std::set<std::string> before, after;
    for (const Relationship& r : o_.relationships) before.insert(r.canonical);
    for (const Relationship& r : n_.relationships) after.insert(r.canonical);
    std::set<std::string> gaining = serversGainingApplications();
    // Links that stay but must be made again: one end is added again (its delete unlinks it),
    // or a server gains an application.
    auto remade = [&](const Relationship& r) {
      if (after.count(r.canonical) == 0 || before.count(r.canonical) == 0) return false;
      if (insideReplaced(r.name1) || insideReplaced(r.name2)) return true;
      return r.key == "server:webModule" && gaining.count(r.name1) != 0;
    };
    for (const Relationship& r : o_.relationships) {
      if (after.count(r.canonical) == 0 || remade(r)) {
        appendRelationship(del, r);
        changedRelationships_.push_back(&r);
      }
    }
    for (const Relationship& r : n_.relationships) {
      if (before.count(r.canonical) == 0 || remade(r)) {
        appendRelationship(add, r);
        changedRelationships_.push_back(&r);
      }
    }
  }

  static bool putOperation(json_t* delta, const char* key, json_t* objects, json_t* relationships) {
    json_t* operation = json_object();
    if (json_array_size(objects) > 0) {
      json_object_set_new(operation, "objects", objects);
    } else {
      json_decref(objects);
    }
    if (relationships != nullptr && json_object_size(relationships) > 0) {
      json_object_set_new(operation, "relationships", relationships);
    } else {
      json_decref(relationships);
    }
    if (json_object_size(operation) == 0) {
      json_decref(operation);
      return false;
    }
    json_object_set_new(delta, key, operation);
    return true;
  }

  const Document& o_;
  const Document& n_;
  std::set<std::string> replaced_;  // full names of objects deleted and added again
  std::vector<const Relationship*> changedRelationships_;  // removed, added or made again
};

}  // namespace

std::string checkDocument(const json_t* doc) { return readDocument(doc).problem; }

json_t* diffDocuments(const json_t* oldDoc, const json_t* newDoc) {
  Document before = readDocument(oldDoc);
  Document after = readDocument(newDoc);
  if (!before.problem.empty() || !after.problem.empty()) return nullptr;
  return Differ(before, after).run(newDoc);
}

std::string deltaLimitation(const json_t* oldDoc, const json_t* newDoc) {
  json_t* before = json_object_get(oldDoc, "restVersion");
  json_t* after = json_object_get(newDoc, "restVersion");
  json_int_t b = json_is_integer(before) ? json_integer_value(before) : -1;
  json_int_t a = json_is_integer(after) ? json_integer_value(after) : -1;
  if (a == b) return "";
  return "the rest version changes from " + std::to_string(b) + " to " + std::to_string(a) +
         "; the library keeps the one of its complete document";
}

}  // namespace kyrpublish
