// The publisher's diff engine (tools/kyrpublish/cellDiff): which documents it serves, the deltas
// of a small cell for the changes whose delta is not the obvious one, and, over many random pairs
// of cells (tools/cellgen shapes changed by random edits), that the library given the old
// document and then the delta holds the new document in its connector and routes as a library
// given the new document does.
#include "cellDiff.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "cellgen/cellDocument.h"
#include "connector/kyrConnector.h"
#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrObjectHandlers.h"
#include "core/kyrRoutingInfo.h"
#include "support/kyrTestHost.h"
#include "support/testData.h"
#include "trace/trSpec.h"

namespace {

using kyrpublish::checkDocument;
using kyrpublish::diffDocuments;

struct JsonFree {
  void operator()(json_t* j) const { json_decref(j); }
};
using Json = std::unique_ptr<json_t, JsonFree>;

Json parse(const std::string& text) {
  json_error_t error;
  json_t* doc = json_loads(text.c_str(), 0, &error);
  EXPECT_NE(doc, nullptr) << error.text << " in " << text.substr(0, 200);
  return Json(doc);
}

std::string dump(const json_t* j, size_t flags = JSON_COMPACT | JSON_SORT_KEYS) {
  if (j == nullptr) return "null";
  char* text = json_dumps(j, flags | JSON_ENCODE_ANY);
  std::string s = text != nullptr ? text : "";
  free(text);
  return s;
}

Json exampleCell() { return Json(json_load_file(KYR_EXAMPLES_DIR "/cell/cell.json", 0, nullptr)); }

std::string orEmpty(const char* s) { return s != nullptr ? s : "-"; }
std::string text(const json_t* o, const char* key) {
  const char* s = json_string_value(json_object_get(o, key));
  return s != nullptr ? s : "";
}
std::string propText(const json_t* o, const char* prop) {
  return text(json_object_get(o, "props"), prop);
}

// An object of a document with its full name and its parent's ("" at the top).
struct Node {
  std::string fullName;
  std::string type;
  std::string parent;
  json_t* object;
};

void walk(json_t* objects, const std::string& parent, std::vector<Node>& out) {
  if (json_is_object(objects)) {
    std::string full = parent + text(objects, "name");
    out.push_back({full, text(objects, "type"), parent, objects});
    walk(json_object_get(objects, "objects"), full, out);
    return;
  }
  size_t i;
  json_t* e;
  json_array_foreach(objects, i, e) walk(e, parent, out);
}

std::vector<Node> nodesOf(const json_t* doc) {
  std::vector<Node> out;
  walk(json_object_get(json_object_get(doc, "add"), "objects"), "", out);
  return out;
}

// ---- The stored document, compared with the document it should equal -----------------------

// The library's stored form legitimately differs from a publisher's document in three ways,
// none of which changes what the library builds from it:
// - order: an added object is appended to its parent's "objects", an object added again moves
//   to the end, and added relationship elements are appended; full names identify objects and
//   no row depends on the order of its siblings (both arrays are sorted here, objects by name,
//   relationship elements by their text);
// - null properties: a removed property reaches the stored document as a "set" to null; every
//   row treats null like a missing value on a new object (the cell's and the server's null
//   setters clear what nothing set yet, the application's resets the default, the rest have
//   none), so null members are dropped here; so are values of a JSON type the object's row has
//   no setter for (an integer on the cell), which the library skips like null, and which
//   reach the cell's stored copy as null, the value that clears what a string set before;
// - "objects" written as one object, or as an empty array, and empty "props": the stored tree
//   makes arrays where it descends and keeps only what a delta carried.
json_t* normalisedObjects(const json_t* objects) {
  std::vector<const json_t*> elements;
  if (json_is_object(objects)) {
    elements.push_back(objects);
  } else {
    size_t i;
    json_t* e;
    json_array_foreach(objects, i, e) elements.push_back(e);
  }
  std::vector<std::pair<std::string, json_t*>> out;
  for (const json_t* e : elements) {
    json_t* n = json_object();
    for (const char* key : {"type", "name"}) {
      json_t* v = json_object_get(e, key);
      if (v != nullptr) json_object_set_new(n, key, json_deep_copy(v));
    }
    const kyr::ObjectHandler* row = kyr::kyrFindObjectHandler(text(e, "type").c_str());
    json_t* props = json_object();
    const char* key;
    json_t* value;
    json_object_foreach(json_object_get(e, "props"), key, value) {
      bool skipped = json_is_null(value) ||
                     (row != nullptr && ((json_is_string(value) && row->setPropStr == nullptr) ||
                                         (json_is_integer(value) && row->setPropInt == nullptr) ||
                                         (json_is_boolean(value) && row->setPropBool == nullptr)));
      if (!skipped) json_object_set_new(props, key, json_deep_copy(value));
    }
    json_t* children = normalisedObjects(json_object_get(e, "objects"));
    for (auto [name, part] : {std::pair{"props", props}, std::pair{"objects", children}}) {
      if (json_is_array(part) ? json_array_size(part) > 0 : json_object_size(part) > 0) {
        json_object_set_new(n, name, part);
      } else {
        json_decref(part);
      }
    }
    out.emplace_back(text(e, "name"), n);
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  json_t* array = json_array();
  for (auto& [name, n] : out) json_array_append_new(array, n);
  return array;
}

Json normalised(const json_t* add) {
  json_t* n = json_object();
  json_object_set_new(n, "objects", normalisedObjects(json_object_get(add, "objects")));
  json_t* relationships = json_object();
  const char* key;
  json_t* elements;
  json_object_foreach(json_object_get(add, "relationships"), key, elements) {
    std::vector<std::string> texts;
    size_t i;
    json_t* e;
    json_array_foreach(elements, i, e) texts.push_back(dump(e));
    if (texts.empty()) continue;
    std::sort(texts.begin(), texts.end());
    json_t* array = json_array();
    for (const std::string& t : texts)
      json_array_append_new(array, json_loads(t.c_str(), 0, nullptr));
    json_object_set_new(relationships, key, array);
  }
  json_object_set_new(n, "relationships", relationships);
  return Json(n);
}

// ---- A library handle fed by one connector -------------------------------------------------

// A handle whose connector group is initialised, as a running group's is once its first
// complete document arrived: complete documents rebuild the model, deltas change it in place
// unless they touch the kinds of object that rebuild it.
class Library {
 public:
  explicit Library(const std::string& complete) {
    host_.env.trace.printf = nullptr;
    kyr_ = host_.create();
    EXPECT_NE(kyr_, nullptr);
    // The cell's custom properties apply to the handle of a web server in that cell.
    kyrSetServerName(kyr_, "bench_wsnode_ws1");
    KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr_, "cg1");
    connector_ = kyrConnectorCreate(cg, "http://publisher:9080");
    cg->curConnector = connector_;
    cg->initialized = true;
    version_ = apply(complete);
  }
  ~Library() { kyrDestroy(kyr_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  int64_t apply(const std::string& text) {
    kyr::ControlLockGuard guard("cellDiff test");
    return kyrHandleJsonFromRestService(text.c_str(), connector_);
  }
  // Sends a delta under the next version; the version the library reports back.
  int64_t applyDelta(json_t* delta) {
    json_object_set_new(delta, "version", json_integer(++version_));
    return apply(dump(delta, JSON_COMPACT));
  }
  int64_t version() const { return version_; }
  json_t* stored() const { return json_object_get(connector_->json, "add"); }
  Kyr* kyr() const { return kyr_; }

 private:
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  KyrConnector* connector_ = nullptr;
  int64_t version_ = 0;
};

// ---- Requests derived from documents, and what a handle decides for them --------------------

struct Request {
  std::string host;
  int port;
  std::string path;
  bool ruleHeaders;          // with every header the documents' rules test set to "yes"
  std::string cloneId = {};  // a session naming this server, in both cookies clusters use here
  std::string text() const {
    return host + ":" + std::to_string(port) + path + (ruleHeaders ? " +headers" : "") +
           (cloneId.empty() ? "" : " session@" + cloneId);
  }
};

// A path that the URI (its object's name, escaped) maps below the context root.
std::string pathFor(const std::string& root, const std::string& uriName) {
  std::string p;
  for (char c : uriName.substr(5)) {
    if (c != '\\') p += c == '*' ? 'x' : c;
  }
  if (uriName.compare(5, 1, "*") == 0) p = "/" + p;
  return (root == "/" ? "" : root) + p;
}

// Every URI of every module, on each virtual host, of all documents; with and without the
// headers the rules look at; and a session of each server into each module on one host.
std::vector<Request> requestsFor(const std::vector<const json_t*>& docs) {
  std::set<std::string> paths{"/nothing/here"}, roots, cloneIds;
  std::set<std::pair<std::string, int>> hosts;
  for (const json_t* doc : docs) {
    std::map<std::string, json_t*> byName;
    for (const Node& n : nodesOf(doc)) {
      byName[n.fullName] = n.object;
      std::string root = propText(n.object, "contextRoot");
      if (n.type == "server" && !propText(n.object, "id").empty()) {
        cloneIds.insert(propText(n.object, "id"));
      } else if (n.type == "webModule") {
        roots.insert(root + "/");
        paths.insert(root + "/");
      } else if (n.type == "uri") {
        paths.insert(pathFor(propText(byName[n.parent], "contextRoot"), text(n.object, "name")));
      } else if (n.type == "vHost") {
        std::string host = propText(n.object, "host");
        json_t* port = json_object_get(json_object_get(n.object, "props"), "port");
        hosts.emplace(host.empty() || host == "*" ? "www.example.com" : host,
                      json_is_integer(port) ? static_cast<int>(json_integer_value(port)) : 80);
      }
    }
  }
  std::vector<Request> requests;
  for (const auto& [host, port] : hosts) {
    for (const std::string& path : paths) {
      for (bool headers : {false, true}) requests.push_back({host, port, path, headers});
    }
  }
  for (const std::string& root : roots) {
    for (const std::string& id : hosts.empty() ? std::set<std::string>{} : cloneIds)
      requests.push_back({hosts.begin()->first, hosts.begin()->second, root, false, id});
  }
  return requests;
}

std::set<std::string> ruleHeaders(const std::vector<const json_t*>& docs) {
  std::set<std::string> headers;
  std::regex header(R"(header\$([A-Za-z0-9-]+))");
  for (const json_t* doc : docs) {
    for (const Node& n : nodesOf(doc)) {
      std::string expression = propText(n.object, "expression");
      for (std::sregex_iterator it(expression.begin(), expression.end(), header), end; it != end;
           ++it) {
        headers.insert((*it)[1]);
      }
    }
  }
  return headers;
}

// What the handle decides for the request: whether it routes it, the application and module,
// and the set of outcomes (action, status, target) that `rounds` requests in a row reach. Each
// request completes before the next, so load balancing takes the idle servers in turn from
// where the last request left off: within as many requests as a module has servers every
// server it may choose is reached once, whatever the order of its list (which deltas do not
// keep) and wherever the turn stood. Which outcome comes first depends on both, so the
// outcomes are compared as a set (a server without endpoints, for one, gives a 503 when its
// turn comes).
std::string decide(Kyr* kyr, const Request& r, const std::set<std::string>& headers, int rounds) {
  std::string first;
  std::set<std::string> targets;
  for (int round = 0; round < rounds; ++round) {
    EnvHttpContext env;
    env.virtualHost = r.host;
    env.virtualPort = r.port;
    env.path = r.path;
    if (r.ruleHeaders) {
      for (const std::string& h : headers) env.headers[h] = "yes";
    }
    if (!r.cloneId.empty()) {
      for (const char* cookie : {"JSESSIONID", "SID"})
        env.cookies[cookie] = "0000sess:" + r.cloneId;
    }
    KyrHttpContext* ctx = kyrHttpContextObtain(kyr, &env);
    int handle = kyrHttpContextShouldHandle(ctx);
    KyrTargetEndpoint* tep = handle == 1 ? kyrHttpContextGetTargetEndpoint(ctx) : nullptr;
    if (round == 0) {
      first = "handle=" + std::to_string(handle) +
              " app=" + orEmpty(kyrHttpContextGetApplicationName(ctx)) +
              " module=" + orEmpty(kyrHttpContextGetModuleName(ctx));
    }
    std::string outcome = "action=" + std::to_string(kyrHttpContextGetAction(ctx)) +
                          " status=" + std::to_string(kyrHttpContextGetErrorCode(ctx)) +
                          " sticky=" + std::to_string(kyrHttpContextGetSticky(ctx)) +
                          " redirect=" + orEmpty(kyrHttpContextGetRedirectURL(ctx)) + " -> ";
    if (tep != nullptr) {
      targets.insert(outcome + orEmpty(kyrHttpContextGetTargetEndpointServerName(ctx)) + "@" +
                     orEmpty(kyrTargetEndpointGetHostName(tep)) + ":" +
                     std::to_string(kyrTargetEndpointGetPort(tep)));
      for (KyrHttpContextState state : {CONNECT_SUCCESS, REQUEST_SENT, RESPONSE_ARRIVED})
        kyrHttpContextSetState(ctx, state, 0, nullptr);
    } else if (handle == 1) {
      targets.insert(outcome + "none");
    }
    kyrHttpContextRelease(ctx);
    if (handle != 1) break;
  }
  for (const std::string& t : targets) first += "\n      " + t;
  return first;
}

std::map<std::string, std::string> decisions(Kyr* kyr, const std::vector<Request>& requests,
                                             const std::set<std::string>& headers, int rounds) {
  std::map<std::string, std::string> out;
  for (const Request& r : requests) out[r.text()] = decide(kyr, r, headers, rounds);
  out["handle MaxHttpContextPoolSize"] = std::to_string(kyr->maxHttpContextPoolSize);
  // Released contexts leave their trace specifications on a row that frees them after a grace
  // time, and each release searches the row: thousands of requests a second would make it long.
  kyr::trPurgeDeathRow();
  return out;
}

std::string differences(const std::map<std::string, std::string>& live,
                        const std::map<std::string, std::string>& fresh) {
  std::string text;
  int shown = 0;
  for (const auto& [request, decision] : fresh) {
    auto it = live.find(request);
    std::string mine = it == live.end() ? "(not asked)" : it->second;
    if (mine == decision) continue;
    if (++shown > 8) break;
    text +=
        "\n  " + request + "\n    after the delta: " + mine + "\n    new document:    " + decision;
  }
  return text;
}

// ---- Random cells and random edits ---------------------------------------------------------

json_t* make(const std::string& type, const std::string& name, json_t* props = nullptr) {
  json_t* o = json_pack("{s:s,s:s}", "type", type.c_str(), "name", name.c_str());
  if (props != nullptr) json_object_set_new(o, "props", props);
  return o;
}
void setProp(json_t* o, const char* name, json_t* value) {
  if (json_object_get(o, "props") == nullptr) json_object_set_new(o, "props", json_object());
  json_object_set_new(json_object_get(o, "props"), name, value);
}
// An object's "objects" as an array, made one if it was missing or a single object.
json_t* children(json_t* object) {
  json_t* objects = json_object_get(object, "objects");
  if (json_is_array(objects)) return objects;
  json_t* array = json_array();
  if (json_is_object(objects)) json_array_append(array, objects);
  json_object_set_new(object, "objects", array);
  return array;
}
std::string valueOf(const std::string& fullName) {
  return fullName.substr(fullName.rfind('/') + 1);
}
std::string escaped(const std::string& uri) {
  std::string out;
  for (char c : uri) out += c == '/' ? std::string("\\/") : std::string(1, c);
  return out;
}

// A document being edited: its objects by full name, and its relationships.
class Cell {
 public:
  explicit Cell(json_t* doc) : doc_(doc) {}

  std::vector<Node> nodes() const { return nodesOf(doc_); }
  std::vector<Node> ofType(const std::string& type) const {
    std::vector<Node> out;
    for (const Node& n : nodes()) {
      if (n.type == type) out.push_back(n);
    }
    return out;
  }
  std::optional<Node> find(const std::string& fullName) const {
    for (Node& n : nodes()) {
      if (n.fullName == fullName) return n;
    }
    return std::nullopt;
  }
  bool exists(const std::string& fullName) const { return find(fullName).has_value(); }
  std::string cellName() const { return nodes().front().fullName; }
  // Adds `child` (owned) under the object of that full name.
  void add(const std::string& parent, json_t* child) {
    json_array_append_new(children(find(parent)->object), child);
  }
  void remove(const std::string& fullName) {
    Node n = *find(fullName);
    json_t* siblings =
        children(n.parent.empty() ? json_object_get(doc_, "add") : find(n.parent)->object);
    for (size_t i = 0; i < json_array_size(siblings); ++i) {
      if (json_array_get(siblings, i) == n.object) {
        json_array_remove(siblings, i);
        return;
      }
    }
  }

  json_t* relationshipArray(const std::string& key) {
    json_t* add = json_object_get(doc_, "add");
    if (json_object_get(add, "relationships") == nullptr)
      json_object_set_new(add, "relationships", json_object());
    json_t* relationships = json_object_get(add, "relationships");
    if (json_object_get(relationships, key.c_str()) == nullptr)
      json_object_set_new(relationships, key.c_str(), json_array());
    return json_object_get(relationships, key.c_str());
  }
  std::vector<std::pair<std::string, std::string>> links(const std::string& key) {
    std::vector<std::pair<std::string, std::string>> out;
    std::string t1 = key.substr(0, key.find(':')), t2 = key.substr(key.find(':') + 1);
    size_t i;
    json_t* e;
    json_array_foreach(relationshipArray(key), i, e) {
      out.emplace_back(text(e, t1.c_str()), text(e, t2.c_str()));
    }
    return out;
  }
  void link(const std::string& key, const std::string& a, const std::string& b) {
    for (const auto& [x, y] : links(key)) {
      if (x == a && y == b) return;
    }
    std::string t1 = key.substr(0, key.find(':')), t2 = key.substr(key.find(':') + 1);
    json_array_append_new(relationshipArray(key),
                          json_pack("{s:s,s:s}", t1.c_str(), a.c_str(), t2.c_str(), b.c_str()));
  }
  // Drops every relationship element naming the object or anything below it.
  void unlinkUnder(const std::string& fullName) {
    const char* key;
    json_t* elements;
    json_object_foreach(json_object_get(json_object_get(doc_, "add"), "relationships"), key,
                        elements) {
      for (size_t i = json_array_size(elements); i-- > 0;) {
        const char* k2;
        json_t* v;
        bool names = false;
        json_object_foreach(json_array_get(elements, i), k2, v) {
          std::string n = json_string_value(v);
          names |= n == fullName || n.compare(0, fullName.size() + 1, fullName + "/") == 0;
        }
        if (names) json_array_remove(elements, i);
      }
    }
  }
  // The cluster a server or module is linked to, or "".
  std::string clusterOf(const std::string& key, const std::string& member) {
    for (const auto& [c, m] : links(key)) {
      if (m == member) return c;
    }
    return "";
  }

 private:
  json_t* doc_;
};

// Random edits of the kinds a cell file sees: subtrees deleted, servers, endpoints, server
// applications, clusters, applications, modules, URIs, rules and virtual hosts added, property
// values changed or removed, links made and dropped. Every result is a document checkDocument
// accepts; names are often made prefixes of their siblings' (s1 and s10), which is what the
// library's search of its stored document trips over.
class Editor {
 public:
  Editor(std::mt19937& rng, int& counter) : rng_(rng), counter_(counter) {}

  void changeProperty(json_t* doc, int kind) {
    Cell cell(doc);
    changeProperty(cell, kind);
  }

  void edit(json_t* doc, int edits) {
    using Edit = void (Editor::*)(Cell&);
    static constexpr Edit kEdits[16] = {
        &Editor::deleteSubtree,  &Editor::addServer,      &Editor::addApplication,
        &Editor::addModule,      &Editor::addUri,         &Editor::addRule,
        &Editor::addVHost,       &Editor::changeProperty, &Editor::changeProperty,
        &Editor::changeProperty, &Editor::changeLinks,    &Editor::changeLinks,
        &Editor::addServerApp,   &Editor::addTransport,   &Editor::addCluster,
        &Editor::removeServerApp};
    Cell cell(doc);
    for (int i = 0; i < edits; ++i) (this->*kEdits[pick(16)])(cell);
  }

 private:
  int pick(size_t n) {
    return static_cast<int>(std::uniform_int_distribution<size_t>(0, n - 1)(rng_));
  }
  bool chance(int percent) { return pick(100) < percent; }
  template <class T>
  const T& any(const std::vector<T>& v) {
    return v[static_cast<size_t>(pick(v.size()))];
  }
  json_t* one(std::initializer_list<const char*> values) {
    return json_string(values.begin()[pick(values.size())]);
  }
  std::string next() { return std::to_string(++counter_); }

  // A name for a new child: often an existing sibling's value with a digit added.
  std::string freshName(Cell& cell, const std::string& parent, const std::string& type,
                        const std::string& base) {
    std::vector<std::string> siblings;
    for (const Node& n : cell.nodes()) {
      if (n.parent == parent && n.type == type) siblings.push_back(valueOf(n.fullName));
    }
    std::string value =
        !siblings.empty() && chance(40) ? any(siblings) + std::to_string(pick(10)) : base + next();
    while (cell.exists(parent + "/" + type + "/" + value)) value += std::to_string(pick(10));
    return "/" + type + "/" + value;
  }

  void deleteSubtree(Cell& cell) {
    std::vector<Node> candidates;
    for (const Node& n : cell.nodes()) {
      if (n.type != "cell") candidates.push_back(n);
    }
    if (candidates.empty()) return;
    std::string victim = any(candidates).fullName;
    cell.unlinkUnder(victim);
    cell.remove(victim);
  }

  static json_t* transport(const std::string& name, const char* protocol, const std::string& host,
                           int port) {
    return make(
        "transport", name,
        json_pack("{s:s,s:s,s:i}", "protocol", protocol, "host", host.c_str(), "port", port));
  }

  // Deploys the application on the server and links the server to the modules.
  void deploy(Cell& cell, const std::string& server, const std::string& app,
              const std::vector<std::string>& modules) {
    if (!cell.exists(server + "/serverApplication/" + app)) {
      cell.add(server, make("serverApplication", "/serverApplication/" + app,
                            json_pack("{s:s}", "state", "STARTED")));
    }
    for (const std::string& m : modules) cell.link("server:webModule", server, m);
  }

  void addServer(Cell& cell) {
    std::vector<Node> nodes = cell.ofType("node");
    std::string node;
    if (nodes.empty() || chance(15)) {
      std::string name = freshName(cell, cell.cellName(), "node", "n");
      cell.add(cell.cellName(), make("node", name));
      node = cell.cellName() + name;
    } else {
      node = any(nodes).fullName;
    }
    std::string name = freshName(cell, node, "server", "s");
    std::string id = next();
    json_t* server =
        make("server", name,
             json_pack("{s:s,s:s,s:i,s:s}", "id", ("clone-x" + id).c_str(), "state", "STARTED",
                       "weight", 1 + pick(3), "type", "APPLICATION_SERVER"));
    std::string host = "hx" + id + ".example.com";
    json_array_append_new(children(server), transport("/transport/http", "http", host, 9080));
    if (chance(70))
      json_array_append_new(children(server), transport("/transport/https", "https", host, 9443));
    cell.add(node, server);
    std::vector<Node> clusters = cell.ofType("cluster");
    if (clusters.empty() || chance(15)) return;
    std::string cluster = any(clusters).fullName;
    cell.link("cluster:server", cluster, node + name);
    // The applications whose modules the cluster serves.
    std::map<std::string, std::vector<std::string>> apps;
    for (const auto& [c, module] : cell.links("cluster:webModule")) {
      std::optional<Node> m = cell.find(module);
      if (c == cluster && m) apps[valueOf(m->parent)].push_back(module);
    }
    for (const auto& [app, modules] : apps) deploy(cell, node + name, app, modules);
  }

  // An application deployed on a server that stays: often one whose module the server is
  // linked to already (its application was deleted from the server, or never deployed), and
  // not always started.
  void addServerApp(Cell& cell) {
    std::vector<std::pair<std::string, std::string>> missing;
    for (const auto& [server, module] : cell.links("server:webModule")) {
      std::optional<Node> m = cell.find(module);
      if (m && !cell.exists(server + "/serverApplication/" + valueOf(m->parent))) {
        missing.emplace_back(server, valueOf(m->parent));
      }
    }
    std::vector<Node> servers = cell.ofType("server");
    std::vector<Node> apps = cell.ofType("application");
    std::string server, app;
    if (!missing.empty() && chance(70)) {
      std::tie(server, app) = any(missing);
    } else if (!servers.empty() && !apps.empty()) {
      server = any(servers).fullName;
      app = valueOf(any(apps).fullName);
      if (cell.exists(server + "/serverApplication/" + app)) return;
    } else {
      return;
    }
    cell.add(server, make("serverApplication", "/serverApplication/" + app,
                          json_pack("{s:o}", "state", one({"STARTED", "STARTED", "STOPPED"}))));
  }

  // An application taken off a server whose links to its modules stay (the publisher may add
  // it back later).
  void removeServerApp(Cell& cell) {
    std::vector<std::string> linked;
    for (const auto& [server, module] : cell.links("server:webModule")) {
      std::optional<Node> m = cell.find(module);
      std::string sapp = m ? server + "/serverApplication/" + valueOf(m->parent) : "";
      if (m && cell.exists(sapp)) linked.push_back(sapp);
    }
    if (!linked.empty()) cell.remove(any(linked));
  }

  // A further endpoint of a server, often of a protocol it has already.
  void addTransport(Cell& cell) {
    std::vector<Node> servers = cell.ofType("server");
    if (servers.empty()) return;
    std::string server = any(servers).fullName;
    const char* protocol = chance(50) ? "http" : "https";
    std::string name = freshName(cell, server, "transport", protocol);
    std::string host = "ht" + next() + ".example.com";
    cell.add(server, transport(name, protocol, host, 8000 + pick(100)));
  }

  // A new cluster, sometimes taking a member from another.
  void addCluster(Cell& cell) {
    std::string name = freshName(cell, cell.cellName(), "cluster", "c");
    cell.add(cell.cellName(),
             make("cluster", name,
                  json_pack("{s:s,s:s}", "cookieNames", "JSESSIONID", "cloneIdSeparator", ":")));
    std::vector<Node> servers = cell.ofType("server");
    if (servers.empty() || chance(40)) return;
    std::string server = any(servers).fullName;
    json_t* links = cell.relationshipArray("cluster:server");
    for (size_t i = json_array_size(links); i-- > 0;) {
      if (server == text(json_array_get(links, i), "server")) json_array_remove(links, i);
    }
    cell.link("cluster:server", cell.cellName() + name, server);
  }

  json_t* module(const std::string& name) {
    json_t* m =
        make("webModule", name, json_pack("{s:s}", "contextRoot", ("/new" + next()).c_str()));
    std::set<std::string> uris;
    for (int k = 0, n = 1 + pick(3); k < n; ++k) {
      static const char* const kPatterns[] = {"/*", "*.jsp", "/static/*", "/api/item"};
      std::string uri = "/uri/" + escaped(kPatterns[pick(4)]);
      if (uris.insert(uri).second) json_array_append_new(children(m), make("uri", uri));
    }
    return m;
  }

  // Links a new module to a cluster (deploying its application on the members), a virtual host
  // group and the members.
  void bindModule(Cell& cell, const std::string& app, const std::string& moduleName,
                  std::string cluster) {
    std::vector<Node> clusters = cell.ofType("cluster");
    if (cluster.empty() && !clusters.empty()) cluster = any(clusters).fullName;
    if (!cluster.empty() && chance(90)) {
      cell.link("cluster:webModule", cluster, moduleName);
      for (const auto& [c, server] : cell.links("cluster:server")) {
        if (c == cluster) deploy(cell, server, valueOf(app), {moduleName});
      }
    }
    std::vector<Node> groups = cell.ofType("vHostGroup");
    if (!groups.empty() && chance(90)) {
      cell.link("vHostGroup:webModule", any(groups).fullName, moduleName);
    }
  }

  void addApplication(Cell& cell) {
    std::string name = freshName(cell, cell.cellName(), "application", "app");
    json_t* app = make("application", name, json_pack("{s:s}", "state", "STARTED"));
    std::string moduleName = "/webModule/m" + next() + ".war";
    json_array_append_new(children(app), module(moduleName));
    cell.add(cell.cellName(), app);
    std::string full = cell.cellName() + name;
    bindModule(cell, full, full + moduleName, "");
  }

  // Applications whose modules are reached by URL (later editions are reached through rules).
  std::vector<Node> firstEditions(Cell& cell) {
    std::vector<Node> apps;
    for (const Node& a : cell.ofType("application")) {
      if (a.fullName.find("-edition") == std::string::npos) apps.push_back(a);
    }
    return apps;
  }

  void addModule(Cell& cell) {
    std::vector<Node> apps = firstEditions(cell);
    if (apps.empty()) return addApplication(cell);
    const Node app = any(apps);
    std::string cluster;
    for (const Node& m : cell.ofType("webModule")) {
      if (m.parent == app.fullName && cluster.empty()) {
        cluster = cell.clusterOf("cluster:webModule", m.fullName);
      }
    }
    std::string name = freshName(cell, app.fullName, "webModule", "m");
    cell.add(app.fullName, module(name));
    bindModule(cell, app.fullName, app.fullName + name, cluster);
  }

  void addUri(Cell& cell) {
    std::vector<Node> modules = cell.ofType("webModule");
    if (modules.empty()) return;
    std::string m = any(modules).fullName;
    static const char* const kForms[] = {"/p%/*", "*.e%", "/exact%", "/api/item%"};
    std::string pattern = kForms[pick(4)];
    pattern.replace(pattern.find('%'), 1, next());
    cell.add(m, make("uri", "/uri/" + escaped(pattern)));
  }

  std::string ruleAction(Cell& cell) {
    std::vector<Node> apps = cell.ofType("application");
    switch (pick(3)) {
      case 0:
        return "reject:40" + std::to_string(pick(10));
      case 1:
        return "redirect:http://elsewhere.example.com/" + next();
      default:
        return apps.empty() ? "reject:403" : "permit:" + valueOf(any(apps).fullName);
    }
  }

  void addRule(Cell& cell) {
    std::vector<Node> classes = cell.ofType("webRouteWorkClass");
    std::string wc;
    if (classes.empty() || chance(30)) {
      std::vector<Node> apps = firstEditions(cell);
      if (apps.empty()) return;
      const Node app = any(apps);
      std::string name = "/webRouteWorkClass/" + valueOf(app.fullName) + "_Default_HTTP_WC";
      if (!cell.exists(app.fullName + name))
        cell.add(app.fullName, make("webRouteWorkClass", name));
      wc = app.fullName + name;
    } else {
      wc = any(classes).fullName;
    }
    std::string n = next();
    std::string expression = "header$X-R" + n + " = 'yes'";
    std::string action = ruleAction(cell);
    cell.add(wc, make("rule", "/rule/" + std::to_string(100 + std::stoi(n)),
                      json_pack("{s:s,s:s}", "expression", expression.c_str(), "action",
                                action.c_str())));
  }

  void addVHost(Cell& cell) {
    std::vector<Node> groups = cell.ofType("vHostGroup");
    if (groups.empty()) return;
    std::string group = any(groups).fullName;
    std::string name = freshName(cell, group, "vHost", "v");
    std::string host = "h" + next() + ".example.com";
    cell.add(group, make("vHost", name,
                         json_pack("{s:s,s:i}", "host", host.c_str(), "port", 80 + pick(3))));
  }

  // One change of a property value: a new value, a value of another JSON type, or removal
  // (deleted or set to null).
  void changeProperty(Cell& cell) { changeProperty(cell, -1); }

  // With `kind` -1, a random change on a random object. Otherwise the change of that number
  // (modulo the number of kinds, in a fixed order) on a random object of its type, if the cell
  // has one: a cell has a cluster or two and dozens of URIs, and random picks alone leave some
  // changes of the rarer types untried in a run.
  void changeProperty(Cell& cell, int kind) {
    std::vector<Node> all = cell.nodes();
    Node target = any(all);
    json_t* props = json_object_get(target.object, "props");
    auto set = [&](const char* name, json_t* value) { setProp(target.object, name, value); };
    auto str = [](const std::string& s) { return json_string(s.c_str()); };
    // Removing a rule's expression would tie its order with the default rule's, and ties are
    // broken by document order, which deltas do not keep.
    if (kind < 0 && chance(15)) {
      if (json_object_size(props) == 0) return;
      std::vector<std::string> names;
      const char* key;
      json_t* value;
      json_object_foreach(props, key, value) names.push_back(key);
      std::string name = any(names);
      if (target.type == "rule") return;
      if (chance(50)) return (void)json_object_del(props, name.c_str());
      return set(name.c_str(), json_null());
    }
    const std::map<std::string, std::vector<std::function<void()>>> changes = {
        {"cell", {[&] {
           if (chance(20)) return set("cp.MaxHttpContextPoolSize", json_integer(7));
           set("cp.MaxHttpContextPoolSize", one({"10", "20", "64"}));
         }}},
        {"node", {[&] {
           set("cp.node.maintenancemode", one({"true", "false", "maybe"}));
         }}},
        {"server",
         {[&] {
            set("state", one({"STARTED", "STOPPED"}));
          },
          [&] { set("weight", json_integer(pick(4))); }, [&] { set("weight", json_string("2")); },
          [&] { set("id", str("clone-y" + next())); },
          [&] {
            set("server.maintenancemode", one({"false", "affinity", "break", "bogus"}));
          },
          [&] { set("maxConnections", json_integer(pick(3) * 50)); },
          [&] { set("connectTimeout", json_integer(1 + pick(5))); }}},
        {"serverApplication", {[&] {
           set("state", one({"STARTED", "STOPPED", "AFFINITY", "QUIESCED"}));
         }}},
        {"transport",
         {[&] { set("port", json_integer(9080 + pick(3))); },
          [&] { set("host", str("hz" + next() + ".example.com")); },
          [&] {
            set("protocol", one({"http", "https", "ftp"}));
          }}},
        {"cluster",
         {[&] {
            set("cookieNames", one({"JSESSIONID", "SID"}));
          },
          [&] {
            set("cloneIdSeparator", one({":", "+"}));
          },
          [&] { set("learnCloneIds", json_boolean(chance(50))); }}},
        {"application", {[&] {
           if (chance(50)) return set("sessionAffinityCookies", json_string("APPSID"));
           set("state", one({"STARTED", "STOPPED"}));
         }}},
        {"webModule", {[&] {
           if (chance(50)) return set("protocolMap", one({"direct", "http", "https"}));
           set("contextRoot", str("/moved" + next()));
         }}},
        {"vHost", {[&] {
           if (chance(50)) return set("port", json_integer(80 + pick(3)));
           set("host", str("hv" + next() + ".example.com"));
         }}},
        {"rule", {[&] {
           if (chance(50)) return set("action", str(ruleAction(cell)));
           set("expression", str("header$X-R" + next() + " = 'yes'"));
         }}},
    };
    if (kind >= 0) {
      std::vector<std::pair<std::string, size_t>> kinds;
      for (const auto& [type, ofType] : changes) {
        for (size_t i = 0; i < ofType.size(); ++i) kinds.emplace_back(type, i);
      }
      const auto& [type, index] = kinds[static_cast<size_t>(kind) % kinds.size()];
      std::vector<Node> candidates = cell.ofType(type);
      if (candidates.empty()) return;
      target = any(candidates);
      return changes.at(type)[index]();
    }
    auto it = changes.find(target.type);
    if (it != changes.end()) it->second[it->second.size() == 1 ? 0 : pick(it->second.size())]();
  }

  void changeLinks(Cell& cell) {
    static const char* const kKeys[] = {"cluster:server", "cluster:webModule",
                                        "vHostGroup:webModule", "server:webModule"};
    std::string key = kKeys[pick(4)];
    if (chance(50)) {
      json_t* array = cell.relationshipArray(key);
      if (json_array_size(array) > 0)
        json_array_remove(array, static_cast<size_t>(pick(json_array_size(array))));
      return;
    }
    std::vector<Node> servers = cell.ofType("server");
    std::vector<Node> clusters = cell.ofType("cluster");
    std::vector<Node> modules;
    for (const Node& m : cell.ofType("webModule")) {
      if (m.fullName.find("-edition") == std::string::npos) modules.push_back(m);
    }
    if (key == "cluster:server" && !servers.empty() && !clusters.empty()) {
      std::string server = any(servers).fullName;
      if (cell.clusterOf(key, server).empty()) cell.link(key, any(clusters).fullName, server);
    } else if (key == "cluster:webModule" && !modules.empty() && !clusters.empty()) {
      std::string m = any(modules).fullName;
      if (cell.clusterOf(key, m).empty()) cell.link(key, any(clusters).fullName, m);
    } else if (key == "vHostGroup:webModule" && !modules.empty()) {
      std::vector<Node> groups = cell.ofType("vHostGroup");
      if (!groups.empty()) cell.link(key, any(groups).fullName, any(modules).fullName);
    } else if (key == "server:webModule" && !servers.empty() && !modules.empty()) {
      cell.link(key, any(servers).fullName, any(modules).fullName);
    }
  }

  std::mt19937& rng_;
  int& counter_;
};

Json randomCell(std::mt19937& rng) {
  auto in = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  kyrtools::CellShape shape;
  shape.cell = "bench";
  shape.nodes = in(1, 3);
  shape.clusters = in(1, 2);
  shape.serversPerCluster = in(1, 3);
  shape.appsPerCluster = in(1, 2);
  shape.modulesPerApp = in(1, 2);
  shape.urisPerModule = in(1, 4);
  shape.vHostGroups = in(1, 2);
  shape.secondEditions = in(0, 2) == 0;
  Json doc = parse(kyrtools::completeDocument(shape));
  for (const Node& n : nodesOf(doc.get())) {
    // "percentage$10" sends a random tenth of the requests elsewhere, which two handles would
    // not agree on; a header test takes its place.
    if (propText(n.object, "expression").find("percentage") != std::string::npos)
      setProp(n.object, "expression", json_string("header$X-Gamma = 'yes'"));
    // Affinity needs the cookie names: a module of a cluster without them cannot be served.
    if (n.type != "cluster" || in(0, 4) == 0) continue;
    setProp(n.object, "cookieNames", json_string("JSESSIONID"));
    setProp(n.object, "cloneIdSeparator", json_string(":"));
  }
  return doc;
}

int fromEnv(const char* name, int otherwise) {
  const char* env = getenv(name);
  return env != nullptr ? atoi(env) : otherwise;
}

// ---- checkDocument -------------------------------------------------------------------------

TEST(CellDiffCheck, TheRepositorysCompleteDocumentsCanBeServed) {
  for (const char* file :
       {"cell-routing.json", "cell-editions.json", "cell-small.json", "cell-web.json"}) {
    EXPECT_EQ(checkDocument(parse(kyrtest::readTestData(file)).get()), "") << file;
  }
  EXPECT_EQ(checkDocument(exampleCell().get()), "");
}

TEST(CellDiffCheck, TheFirstProblemIsNamed) {
  // A cell with a node, a server, a cluster, an application with a module, and the links.
  auto cell = [](const std::string& objects, const std::string& relationships = "{}") {
    return R"({"version": 1, "restVersion": 2, "delta": false, "add": {"objects": [{"type": "cell", "name": "/cell/c", "objects": [)" +
           objects + R"(]}], "relationships": )" + relationships + "}}";
  };
  const std::string node =
      R"({"type": "node", "name": "/node/n1", "objects": [{"type": "server", "name": "/server/s1", "props": {"weight": 1}}]})";
  const std::string app =
      R"({"type": "application", "name": "/application/a", "objects": [{"type": "webModule", "name": "/webModule/m.war"}]})";
  const std::string cluster = R"({"type": "cluster", "name": "/cluster/k"})";
  const std::string cluster2 = R"({"type": "cluster", "name": "/cluster/k2"})";
  const std::string all = node + "," + app + "," + cluster + "," + cluster2;
  struct Row {
    std::string doc;
    std::string problem;  // a part of the line checkDocument gives
  };
  const Row rows[] = {
      {cell(
           all,
           R"({"cluster:server": [{"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n1/server/s1"}]})"),
       ""},
      {"[1, 2]", "not a JSON object"},
      {R"({"delta": false})", "\"add\" is missing"},
      {R"({"add": []})", "\"add\" is an array"},
      {R"({"delta": true, "add": {}})", "a complete document has \"delta\": false"},
      {R"({"add": {}, "set": {}})", "it has \"set\""},
      {R"({"version": "7", "add": {}})", "\"version\" is a string"},
      {R"({"add": {"objects": [3]}})", "is an integer, not an object"},
      {R"({"add": {"objects": "cell"}})", "not an array or an object"},
      {cell(R"({"name": "/node/n1"})"), "/cell/c object /node/n1 has no \"type\""},
      {cell(R"({"type": "planet", "name": "/planet/p"})"), "unknown type \"planet\""},
      {cell(R"({"type": "node"})"), "a node in /cell/c has no \"name\""},
      {cell(R"({"type": "node", "name": "/server/n1"})"), "is not of the form \"/node/<value>\""},
      {cell(R"({"type": "node", "name": "/node/n1/server/s1"})"), "unescaped \"/\""},
      {cell(R"({"type": "node", "name": "/node/"})"), "empty value"},
      {cell(R"({"type": "node", "name": "/node/n\\"})"), "ends with a backslash"},
      {cell(R"({"type": "server", "name": "/server/s1"})"), "a server cannot be under a cell"},
      {cell(
           R"({"type": "node", "name": "/node/n1", "objects": [{"type": "webModule", "name": "/webModule/m"}]})"),
       "a webModule cannot be under a node (only under application)"},
      {cell(
           cluster +
           R"(,{"type": "node", "name": "/node/n1", "objects": [{"type": "cluster", "name": "/cluster/k"}]})"),
       "a cluster belongs at the top level or in the cell, not under a node"},
      {cell(R"({"type": "cell", "name": "/cell/d"})"), "a cell belongs at the top level"},
      {R"({"add": {"objects": [{"type": "cell", "name": "/cell/a"}, {"type": "cell", "name": "/cell/b"}]}})",
       "/cell/b: a second cell"},
      {R"({"add": {"objects": [{"type": "server", "name": "/server/s"}]}})",
       "a server needs a parent (node)"},
      {cell(node + "," + node), "duplicate full name /cell/c/node/n1"},
      {cell(R"({"type": "node", "name": "/node/n1", "props": [1]})"), "\"props\" is an array"},
      {cell(R"({"type": "node", "name": "/node/n1", "props": {"w": 1.5}})"),
       "property w is a real number"},
      {cell(R"({"type": "node", "name": "/node/n1", "props": {"w": 99999999999}})"),
       "outside the integer range"},
      {cell(all, "[]"), "\"relationships\" is an array"},
      {cell(all, R"({"cluster:planet": []})"), "unknown relationship \"cluster:planet\""},
      {cell(all, R"({"cluster:server": {}})"), "relationship \"cluster:server\" is an object"},
      {cell(all, R"({"cluster:server": [{"cluster": "/cell/c/cluster/k"}]})"),
       "has no string \"server\""},
      {cell(
           all,
           R"({"cluster:server": [{"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n1/server/s9"}]})"),
       "names the missing object /cell/c/node/n1/server/s9"},
      {cell(
           all,
           R"({"cluster:server": [{"cluster": "/cell/c/node/n1", "server": "/cell/c/node/n1/server/s1"}]})"),
       "which is a node, not a cluster"},
      {cell(
           all,
           R"({"server:webModule": [{"server": "/cell/c/node/n1/server/s1", "webModule": "/cell/c/application/a/webModule/m.war"},
                                           {"webModule": "/cell/c/application/a/webModule/m.war", "server": "/cell/c/node/n1/server/s1"}]})"),
       "twice"},
      {cell(
           all,
           R"({"cluster:server": [{"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n1/server/s1"},
                                         {"cluster": "/cell/c/cluster/k2", "server": "/cell/c/node/n1/server/s1"}]})"),
       "is linked to two clusters"},
      {cell(
           all,
           R"({"cluster:webModule": [{"cluster": "/cell/c/cluster/k", "webModule": "/cell/c/application/a/webModule/m.war"},
                                            {"cluster": "/cell/c/cluster/k2", "webModule": "/cell/c/application/a/webModule/m.war"}]})"),
       "is linked to two clusters"},
  };
  for (const Row& row : rows) {
    Json doc = parse(row.doc);
    std::string problem = checkDocument(doc.get());
    if (row.problem.empty()) {
      EXPECT_EQ(problem, "") << row.doc;
    } else {
      EXPECT_NE(problem.find(row.problem), std::string::npos)
          << "expected \"" << row.problem << "\" in \"" << problem << "\" for " << row.doc;
      EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
    }
  }
  EXPECT_NE(checkDocument(nullptr), "");
}

// ---- Deltas of a small cell ----------------------------------------------------------------

// Two servers whose names share a prefix (s1, s10) in one cluster, serving one module.
constexpr const char* kSmallCell = R"({"version": 1, "restVersion": 2, "delta": false, "add": {
  "objects": [{"type": "cell", "name": "/cell/c", "props": {"cp.MaxHttpContextPoolSize": "20"},
    "objects": [
      {"type": "node", "name": "/node/n1", "objects": [
        {"type": "server", "name": "/server/s1", "props": {"id": "c1", "state": "STARTED", "weight": 1},
         "objects": [{"type": "transport", "name": "/transport/http",
                      "props": {"protocol": "http", "host": "h1", "port": 9080}},
                     {"type": "serverApplication", "name": "/serverApplication/a", "props": {"state": "STARTED"}}]},
        {"type": "server", "name": "/server/s10", "props": {"id": "c10", "state": "STARTED", "weight": 1},
         "objects": [{"type": "transport", "name": "/transport/http",
                      "props": {"protocol": "http", "host": "h10", "port": 9080}},
                     {"type": "serverApplication", "name": "/serverApplication/a", "props": {"state": "STARTED"}}]}]},
      {"type": "cluster", "name": "/cluster/k", "props": {"cookieNames": "JSESSIONID", "cloneIdSeparator": ":"}},
      {"type": "application", "name": "/application/a", "props": {"state": "STARTED"}, "objects": [
        {"type": "webModule", "name": "/webModule/m.war", "props": {"contextRoot": "/a"},
         "objects": [{"type": "uri", "name": "/uri/\\/*"}]}]},
      {"type": "vHostGroup", "name": "/vHostGroup/g", "objects": [
        {"type": "vHost", "name": "/vHost/any", "props": {"host": "*", "port": 80}}]}]}],
  "relationships": {
    "cluster:server": [{"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n1/server/s1"},
                       {"cluster": "/cell/c/cluster/k", "server": "/cell/c/node/n1/server/s10"}],
    "cluster:webModule": [{"cluster": "/cell/c/cluster/k", "webModule": "/cell/c/application/a/webModule/m.war"}],
    "vHostGroup:webModule": [{"vHostGroup": "/cell/c/vHostGroup/g", "webModule": "/cell/c/application/a/webModule/m.war"}],
    "server:webModule": [{"server": "/cell/c/node/n1/server/s1", "webModule": "/cell/c/application/a/webModule/m.war"},
                         {"server": "/cell/c/node/n1/server/s10", "webModule": "/cell/c/application/a/webModule/m.war"}]}}})";
constexpr const char* kS1 = "/cell/c/node/n1/server/s1";
constexpr const char* kS10 = "/cell/c/node/n1/server/s10";

json_t* objectOf(json_t* doc, const std::string& fullName) {
  return Cell(doc).find(fullName)->object;
}
json_t* propsOf(json_t* doc, const std::string& fullName) {
  return json_object_get(objectOf(doc, fullName), "props");
}
std::string shortName(const std::string& name) {
  return name.rfind("/cell/c/", 0) == 0 ? name.substr(7) : name;
}

// A delta in short: each operation's objects (an entry that deletes children as
// "parent>child>child", a set with its properties) and how many links of each kind it carries.
std::string summary(const json_t* delta) {
  if (delta == nullptr) return "none";
  std::string out;
  for (const char* op : {"del", "add", "set"}) {
    json_t* part = json_object_get(delta, op);
    if (part == nullptr) continue;
    out += std::string(out.empty() ? "" : "; ") + op;
    size_t i, j;
    json_t *e, *c;
    json_array_foreach(json_object_get(part, "objects"), i, e) {
      out += " " + shortName(text(e, "name"));
      if (strcmp(op, "del") == 0) {
        json_array_foreach(json_object_get(e, "objects"), j, c) out += ">" + text(c, "name");
      }
      if (strcmp(op, "set") == 0) out += dump(json_object_get(e, "props"));
    }
    const char* key;
    json_t* links;
    json_object_foreach(json_object_get(part, "relationships"), key, links) {
      out += " " + std::string(key) + "*" + std::to_string(json_array_size(links));
    }
  }
  return out;
}

// The delta, checked against the library: it must bring a handle holding `before` to `after`.
Json checkedDelta(const json_t* before, const json_t* after) {
  EXPECT_EQ(checkDocument(after), "");
  Json d(diffDocuments(before, after));
  if (d == nullptr) return d;
  Library library(dump(before));
  Json copy(json_deep_copy(d.get()));
  int64_t applied = library.applyDelta(copy.get());
  EXPECT_EQ(applied, library.version());
  EXPECT_TRUE(json_equal(normalised(library.stored()).get(),
                         normalised(json_object_get(after, "add")).get()))
      << dump(library.stored()) << "\n--- expected ---\n"
      << dump(json_object_get(after, "add"));
  return d;
}

json_t* https(const char* name = "/transport/https") {
  return make("transport", name, json_pack("{s:s}", "protocol", "https"));
}

// Each row edits the old and the new document (both the small cell to begin with).
TEST(CellDiffDelta, ChangesToASmallCellGiveTheseDeltas) {
  using Docs = std::function<void(json_t * before, json_t * after)>;
  const std::string s1(kS1), s10(kS10);
  const struct {
    const char* what;
    Docs edit;
    std::string delta;
  } rows[] = {
      {"the same objects, properties and links in another order, with null for missing",
       [&](json_t*, json_t* after) {
         json_t* servers = children(objectOf(after, "/cell/c/node/n1"));
         json_array_append(servers, json_array_get(servers, 0));
         json_array_remove(servers, 0);
         setProp(objectOf(after, s1), "maxConnections", json_null());
         json_t* links = Cell(after).relationshipArray("cluster:server");
         json_array_append(links, json_array_get(links, 0));
         json_array_remove(links, 0);
       },
       "none"},
      {"a child of a parent that stays is added by its full name",
       [&](json_t*, json_t* after) {
         json_array_append_new(children(objectOf(after, s1)), https());
       },
       "add /node/n1/server/s1/transport/https"},
      // The library's search for s10's new child would stop at s1, a prefix of s10.
      {"an add that a sibling's name would mislead adds the ancestor again",
       [&](json_t*, json_t* after) {
         json_array_append_new(children(objectOf(after, s10)), https());
       },
       "del /node/n1/server/s10>/transport/http>/serverApplication/a /node/n1/server/s10 "
       "cluster:server*1 server:webModule*1; add /node/n1/server/s10 cluster:server*1 "
       "server:webModule*1"},
      {"a clone ID change adds the server again, other changes are set",
       [&](json_t*, json_t* after) {
         setProp(objectOf(after, s1), "id", json_string("c1b"));
         setProp(objectOf(after, s10), "weight", json_integer(3));
         setProp(objectOf(after, s10), "server.maintenancemode", json_string("affinity"));
       },
       "del /node/n1/server/s1>/transport/http>/serverApplication/a /node/n1/server/s1 "
       "cluster:server*1 server:webModule*1; add /node/n1/server/s1 cluster:server*1 "
       "server:webModule*1; set /node/n1/server/s10{\"server.maintenancemode\":\"affinity\","
       "\"weight\":3}"},
      // The cell's null clears its custom property; a server keeps a weight it had.
      {"removed properties are set to null where that is enough, else added again",
       [&](json_t*, json_t* after) {
         json_object_del(propsOf(after, "/cell/c"), "cp.MaxHttpContextPoolSize");
         json_object_del(propsOf(after, s10), "weight");
         setProp(objectOf(after, s1), "unknown", json_string("x"));
       },
       "del /node/n1/server/s10>/transport/http>/serverApplication/a /node/n1/server/s10 "
       "cluster:server*1 server:webModule*1; add /node/n1/server/s10 cluster:server*1 "
       "server:webModule*1; set /cell/c{\"cp.MaxHttpContextPoolSize\":null} "
       "/node/n1/server/s1{\"unknown\":\"x\"}"},
      {"removing a property that had no effect is a set to null",
       [&](json_t* before, json_t*) { setProp(objectOf(before, s1), "unknown", json_string("x")); },
       "set /node/n1/server/s1{\"unknown\":null}"},
      // The cell skips integers: to the library 20 is no value, and the string's must go.
      {"a cell property that stops being a string is cleared",
       [&](json_t*, json_t* after) {
         setProp(objectOf(after, "/cell/c"), "cp.MaxHttpContextPoolSize", json_integer(20));
       },
       "set /cell/c{\"cp.MaxHttpContextPoolSize\":null}"},
      {"an integer the cell skips changing is no change",
       [&](json_t* before, json_t* after) {
         setProp(objectOf(before, "/cell/c"), "cp.MaxHttpContextPoolSize", json_integer(20));
         setProp(objectOf(after, "/cell/c"), "cp.MaxHttpContextPoolSize", json_integer(30));
       },
       "none"},
      {"a server that gains an application has its module links made again",
       [&](json_t* before, json_t*) { json_array_remove(children(objectOf(before, s1)), 1); },
       "del server:webModule*1; add /node/n1/server/s1/serverApplication/a server:webModule*1"},
      // Requests go to the first endpoint of a protocol; the library appends an added one.
      {"an endpoint appended after one of its protocol is added",
       [&](json_t*, json_t* after) {
         json_t* http2 = https("/transport/http2");
         setProp(http2, "protocol", json_string("http"));
         json_array_append_new(children(objectOf(after, s1)), http2);
       },
       "add /node/n1/server/s1/transport/http2"},
      {"an endpoint before one of its protocol adds the server again",
       [&](json_t*, json_t* after) {
         json_t* http2 = https("/transport/http2");
         setProp(http2, "protocol", json_string("http"));
         json_array_insert_new(children(objectOf(after, s1)), 0, http2);
       },
       "del /node/n1/server/s1>/transport/http>/serverApplication/a /node/n1/server/s1 "
       "cluster:server*1 server:webModule*1; add /node/n1/server/s1 cluster:server*1 "
       "server:webModule*1"},
      // Null does not reach the endpoint's string setter: it would stay on the http list.
      {"an endpoint losing its protocol is added again",
       [&](json_t*, json_t* after) {
         json_object_del(propsOf(after, s1 + "/transport/http"), "protocol");
       },
       "del /node/n1/server/s1/transport/http; add /node/n1/server/s1/transport/http"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Json before = parse(kSmallCell), after = parse(kSmallCell);
    row.edit(before.get(), after.get());
    EXPECT_EQ(summary(checkedDelta(before.get(), after.get()).get()), row.delta);
  }
  Json cell = parse(kSmallCell);
  EXPECT_EQ(diffDocuments(nullptr, cell.get()), nullptr);
}

TEST(CellDiffDelta, AChangeToWhatAffinityPoliciesAreBuiltFromRebuildsTheVersion) {
  // The module's policy was built from the cluster's cookie names at its first request.
  Json before = parse(kSmallCell), after = parse(kSmallCell);
  setProp(objectOf(after.get(), "/cell/c/cluster/k"), "cookieNames", json_string("SID"));
  Json d = checkedDelta(before.get(), after.get());
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(summary(d.get()), "set /cluster/k{\"cookieNames\":\"SID\"} /application/a{}");
  Library library(dump(before.get()));
  EnvHttpContext request;
  request.virtualHost = "www.example.com";
  request.path = "/a/x";
  request.cookies["SID"] = "0000s:c10";
  auto target = [&]() {
    KyrHttpContext* ctx = kyrHttpContextObtain(library.kyr(), &request);
    EXPECT_EQ(kyrHttpContextShouldHandle(ctx), 1);
    EXPECT_NE(kyrHttpContextGetTargetEndpoint(ctx), nullptr);
    std::string server = orEmpty(kyrHttpContextGetTargetEndpointServerName(ctx));
    kyrHttpContextRelease(ctx);
    return server;
  };
  EXPECT_EQ(target(), kS1);  // no affinity yet: the first idle server
  int64_t applied = library.applyDelta(d.get());
  ASSERT_EQ(applied, library.version());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(target(), kS10);  // the SID cookie names s10
  kyr::trPurgeDeathRow();
}

TEST(CellDiffLimits, ARestVersionChangeIsNamed) {
  Json a = parse(R"({"restVersion": 2, "add": {}})");
  Json b = parse(R"({"restVersion": 0, "add": {}})");
  EXPECT_EQ(kyrpublish::deltaLimitation(a.get(), a.get()), "");
  EXPECT_NE(kyrpublish::deltaLimitation(a.get(), b.get()), "");
}

// ---- Random pairs --------------------------------------------------------------------------

// For each seed: a generated cell edited into an old document, then edited three times more,
// each edit giving the new document of a pair. A library given the old document and then each
// delta must hold each new document in its connector (up to the differences `normalised`
// explains) and route every derived request as a library given that document does. Each delta
// is diffed from the publisher's previous document, not from the library's reordered copy of
// it, as a publisher does. KYR_CELLDIFF_SEED and KYR_CELLDIFF_SEEDS choose the seeds.
TEST(CellDiffProperty, DeltasBringTheLibraryToTheNewDocument) {
  constexpr int kSteps = 3;  // pairs per seed: 100 seeds make 300 pairs
  const unsigned base = static_cast<unsigned>(fromEnv("KYR_CELLDIFF_SEED", 20240601));
  const int seeds = fromEnv("KYR_CELLDIFF_SEEDS", 100);
  int deltas = 0, inPlace = 0;
  for (int p = 0; p < seeds; ++p) {
    const unsigned seed = base + static_cast<unsigned>(p);
    SCOPED_TRACE("seed " + std::to_string(seed) + " (KYR_CELLDIFF_SEED=" + std::to_string(seed) +
                 " KYR_CELLDIFF_SEEDS=1 reruns it)");
    std::mt19937 rng(seed);
    int counter = 0;
    Editor editor(rng, counter);
    std::vector<Json> docs;
    docs.push_back(randomCell(rng));
    editor.edit(docs.back().get(), std::uniform_int_distribution<int>(0, 3)(rng));
    for (int step = 0; step < kSteps; ++step) {
      docs.emplace_back(json_deep_copy(docs.back().get()));
      // Each seed's first step makes the next kind of property change, so that a run makes
      // every kind several times.
      if (step == 0) editor.changeProperty(docs.back().get(), p);
      // Half the steps are one edit, so that many deltas change the model in place (one
      // object of a kind that rebuilds the version makes the whole delta rebuild it).
      int edits = rng() % 2 == 0 ? 1 : std::uniform_int_distribution<int>(2, 4)(rng);
      editor.edit(docs.back().get(), edits);
    }
    std::vector<const json_t*> all;
    int rounds = 1;  // as many requests as a module may have servers, and one
    for (const Json& doc : docs) {
      ASSERT_EQ(checkDocument(doc.get()), "") << dump(doc.get());
      all.push_back(doc.get());
      rounds = std::max(rounds, 1 + static_cast<int>(Cell(doc.get()).ofType("server").size()));
    }
    std::vector<Request> requests = requestsFor(all);
    std::set<std::string> headers = ruleHeaders(all);

    Library live(dump(docs[0].get()));
    for (size_t step = 1; step < docs.size(); ++step) {
      const json_t* before = docs[step - 1].get();
      const json_t* after = docs[step].get();
      ASSERT_EQ(kyrpublish::deltaLimitation(before, after), "");
      Json delta(diffDocuments(before, after));
      std::string deltaText = delta != nullptr ? dump(delta.get(), JSON_INDENT(1)) : "(none)";
      if (delta != nullptr) {
        ++deltas;
        // Held, so that a rebuilt version cannot take its address.
        kyr::KyrRoutingInfo* version = kyr::kyrRoutingInfoObtain(live.kyr());
        int64_t applied = live.applyDelta(delta.get());
        inPlace += live.kyr()->routingInfo == version;
        kyr::kyrRoutingInfoRelease(version);
        ASSERT_EQ(applied, live.version()) << deltaText;
      }
      Json stored = normalised(live.stored());
      Json expected = normalised(json_object_get(after, "add"));
      ASSERT_TRUE(json_equal(stored.get(), expected.get()))
          << "step " << step << ": the stored document is not the new document\n"
          << dump(stored.get(), JSON_INDENT(1)) << "\n--- expected ---\n"
          << dump(expected.get(), JSON_INDENT(1)) << "\n--- delta ---\n"
          << deltaText;
      Library fresh(dump(after));
      std::map<std::string, std::string> mine = decisions(live.kyr(), requests, headers, rounds);
      std::map<std::string, std::string> theirs = decisions(fresh.kyr(), requests, headers, rounds);
      ASSERT_TRUE(mine == theirs) << "step " << step << ": routing differs"
                                  << differences(mine, theirs) << "\n--- delta ---\n"
                                  << deltaText << "\n--- old ---\n"
                                  << dump(before, JSON_INDENT(1)) << "\n--- new ---\n"
                                  << dump(after, JSON_INDENT(1));
    }
  }
  // The pairs exercised both ways the library takes a delta: in place and by rebuilding.
  if (seeds >= 50) {
    EXPECT_GT(deltas, seeds * 2);
    EXPECT_GT(inPlace, 0);
    EXPECT_LT(inPlace, deltas);
  }
  std::printf("%d deltas, %d applied in place\n", deltas, inPlace);
}

}  // namespace
