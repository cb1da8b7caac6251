// Builds the documents with Jansson so that names and values are always valid JSON.
#include "cellgen/cellDocument.h"

#include <jansson.h>

#include <cstdlib>
#include <vector>

namespace kyrtools {
namespace {

std::string dumpAndRelease(json_t* doc) {
  char* text = json_dumps(doc, JSON_COMPACT);
  std::string s = text;
  free(text);
  json_decref(doc);
  return s;
}

json_t* object(const char* type, const std::string& name) {
  json_t* o = json_object();
  json_object_set_new(o, "type", json_string(type));
  json_object_set_new(o, "name", json_string(name.c_str()));
  return o;
}

json_t* children(json_t* parent) {
  json_t* array = json_array();
  json_object_set_new(parent, "objects", array);
  return array;
}

json_t* transport(const char* protocol, const std::string& host, int port) {
  json_t* t = object("transport", std::string("/transport/") + protocol);
  json_t* props = json_object();
  json_object_set_new(props, "protocol", json_string(protocol));
  json_object_set_new(props, "host", json_string(host.c_str()));
  json_object_set_new(props, "port", json_integer(port));
  json_object_set_new(t, "props", props);
  return t;
}

std::string nodeName(const CellShape& shape, int server) {
  return "/node/n" + std::to_string(server % shape.nodes);
}

json_t* withProp(json_t* object, const char* name, json_t* value) {
  json_t* props = json_object_get(object, "props");
  if (props == nullptr) {
    props = json_object();
    json_object_set_new(object, "props", props);
  }
  json_object_set_new(props, name, value);
  return object;
}

json_t* link(const char* type1, const std::string& name1, const char* type2,
             const std::string& name2) {
  json_t* l = json_object();
  json_object_set_new(l, type1, json_string(name1.c_str()));
  json_object_set_new(l, type2, json_string(name2.c_str()));
  return l;
}

std::string escaped(const std::string& uri) {
  std::string out;
  for (char c : uri) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
}

// Prefix, suffix and exact patterns in realistic proportions.
std::string uriPattern(int k) {
  switch (k % 5) {
    case 0:
      return "/*";
    case 1:
      return "*.jsp";
    case 2:
      return "/static/res" + std::to_string(k) + "/*";
    default:
      return "/api/v1/item" + std::to_string(k);
  }
}

std::string appName(const CellShape& shape, const std::string& edition) {
  return "/cell/" + shape.cell + "/application/" + edition;
}

// The application names of application `app`: its first edition, then any later ones.
std::vector<std::string> editionNames(const CellShape& shape, int app) {
  std::string first = "app" + std::to_string(app);
  if (!shape.secondEditions) return {first};
  return {first, first + "-edition2"};
}

json_t* rule(const std::string& name, const char* expression, const std::string& action) {
  json_t* r = object("rule", "/rule/" + name);
  if (expression != nullptr) withProp(r, "expression", json_string(expression));
  withProp(r, "action", json_string(action.c_str()));
  return r;
}

// The default work class of a first edition, choosing between it and the second.
json_t* editionRules(const std::vector<std::string>& editions) {
  json_t* wc =
      object("webRouteWorkClass", "/webRouteWorkClass/" + editions[0] + "_Default_HTTP_WC");
  json_t* rules = children(wc);
  json_array_append_new(rules, rule("10", "header$X-Beta = 'yes'", "permitsticky:" + editions[1]));
  json_array_append_new(rules, rule("20", "percentage$10", "permit:" + editions[1]));
  json_array_append_new(rules, rule("default", nullptr, "permit:" + editions[0]));
  return wc;
}

}  // namespace

int applicationCount(const CellShape& shape) {
  return shape.applications > 0 ? shape.applications : shape.clusters * shape.appsPerCluster;
}

int clusterOfApplication(const CellShape& shape, int app) {
  return shape.applications > 0 ? app % shape.clusters : app / shape.appsPerCluster;
}

std::string cloneId(int index) { return "clone" + std::to_string(index); }

int modulePort(const CellShape& shape, int app, int module) {
  return 80 + (app * shape.modulesPerApp + module) % shape.vHostGroups;
}

std::string contextRoot(int app, int module) {
  return "/app" + std::to_string(app) + "/mod" + std::to_string(module);
}

std::string mappedPath(int app, int module) { return contextRoot(app, module) + "/api/v1/item3"; }

std::string serverName(const CellShape& shape, int index) {
  return "/cell/" + shape.cell + nodeName(shape, index) + "/server/s" + std::to_string(index);
}

std::string completeDocument(const CellShape& shape) {
  json_t* cell = object("cell", "/cell/" + shape.cell);
  json_t* cellObjects = children(cell);
  std::vector<json_t*> nodeObjects;
  for (int n = 0; n < shape.nodes; ++n) {
    json_t* node = object("node", "/node/n" + std::to_string(n));
    nodeObjects.push_back(children(node));
    json_array_append_new(cellObjects, node);
  }
  json_t* clusterServer = json_array();
  int servers = shape.clusters * shape.serversPerCluster;
  for (int s = 0; s < servers; ++s) {
    int cluster = s / shape.serversPerCluster;
    json_t* server = object("server", "/server/s" + std::to_string(s));
    json_t* props = json_object();
    json_object_set_new(props, "id", json_string(cloneId(s).c_str()));
    json_object_set_new(props, "state", json_string("STARTED"));
    json_object_set_new(props, "type", json_string("APPLICATION_SERVER"));
    json_object_set_new(props, "weight", json_integer(2));
    json_object_set_new(server, "props", props);
    json_t* serverObjects = children(server);
    std::string host = "host" + std::to_string(s) + ".example.com";
    json_array_append_new(serverObjects, transport("http", host, 9080));
    json_array_append_new(serverObjects, transport("https", host, 9443));
    for (int a = 0; a < applicationCount(shape); ++a) {
      if (clusterOfApplication(shape, a) != cluster) continue;
      for (const std::string& name : editionNames(shape, a)) {
        json_t* sapp = object("serverApplication", "/serverApplication/" + name);
        withProp(sapp, "state", json_string("STARTED"));
        json_array_append_new(serverObjects, sapp);
      }
    }
    json_array_append_new(nodeObjects[static_cast<size_t>(s % shape.nodes)], server);

    json_t* link = json_object();
    std::string clusterName = "/cell/" + shape.cell + "/cluster/c" + std::to_string(cluster);
    json_object_set_new(link, "cluster", json_string(clusterName.c_str()));
    json_object_set_new(link, "server", json_string(serverName(shape, s).c_str()));
    json_array_append_new(clusterServer, link);
  }
  for (int c = 0; c < shape.clusters; ++c) {
    json_t* cluster = object("cluster", "/cluster/c" + std::to_string(c));
    json_t* props = json_object();
    json_object_set_new(props, "serverType", json_string("APPLICATION_SERVER"));
    json_object_set_new(cluster, "props", props);
    json_array_append_new(cellObjects, cluster);
  }

  json_t* clusterModule = json_array();
  json_t* groupModule = json_array();
  json_t* serverModule = json_array();
  for (int g = 0; g < shape.vHostGroups; ++g) {
    json_t* group = object("vHostGroup", "/vHostGroup/vhg" + std::to_string(g));
    json_t* alias = object("vHost", "/vHost/any");
    withProp(alias, "host", json_string("*"));
    withProp(alias, "port", json_integer(80 + g));
    json_array_append_new(children(group), alias);
    json_array_append_new(cellObjects, group);
  }
  int moduleCount = 0;
  for (int a = 0; a < applicationCount(shape); ++a) {
    int cluster = clusterOfApplication(shape, a);
    std::string clusterName = "/cell/" + shape.cell + "/cluster/c" + std::to_string(cluster);
    std::vector<std::string> editions = editionNames(shape, a);
    for (size_t e = 0; e < editions.size(); ++e) {
      json_t* app = object("application", "/application/" + editions[e]);
      withProp(app, "state", json_string("STARTED"));
      if (e > 0) withProp(app, "edition", json_string(std::to_string(e + 1).c_str()));
      json_t* appObjects = children(app);
      for (int m = 0; m < shape.modulesPerApp; ++m) {
        json_t* module = object("webModule", "/webModule/mod" + std::to_string(m) + ".war");
        withProp(module, "contextRoot", json_string(contextRoot(a, m).c_str()));
        json_t* uris = children(module);
        for (int k = 0; k < shape.urisPerModule; ++k) {
          json_array_append_new(uris, object("uri", "/uri/" + escaped(uriPattern(k))));
        }
        json_array_append_new(appObjects, module);
        std::string name =
            appName(shape, editions[e]) + "/webModule/mod" + std::to_string(m) + ".war";
        json_array_append_new(clusterModule, link("cluster", clusterName, "webModule", name));
        // Requests reach a later edition through the first edition's rules, not by URL.
        if (e == 0) {
          std::string group = "/cell/" + shape.cell + "/vHostGroup/vhg" +
                              std::to_string(moduleCount++ % shape.vHostGroups);
          json_array_append_new(groupModule, link("vHostGroup", group, "webModule", name));
        }
        for (int s = 0; s < shape.serversPerCluster; ++s) {
          json_array_append_new(
              serverModule, link("server", serverName(shape, cluster * shape.serversPerCluster + s),
                                 "webModule", name));
        }
      }
      if (e == 0 && editions.size() > 1) json_array_append_new(appObjects, editionRules(editions));
      json_array_append_new(cellObjects, app);
    }
  }

  json_t* relationships = json_object();
  json_object_set_new(relationships, "cluster:server", clusterServer);
  json_object_set_new(relationships, "cluster:webModule", clusterModule);
  json_object_set_new(relationships, "vHostGroup:webModule", groupModule);
  json_object_set_new(relationships, "server:webModule", serverModule);
  json_t* add = json_object();
  json_object_set_new(add, "objects", cell);
  json_object_set_new(add, "relationships", relationships);
  json_t* doc = json_object();
  json_object_set_new(doc, "version", json_integer(1));
  json_object_set_new(doc, "restVersion", json_integer(2));
  json_object_set_new(doc, "delta", json_false());
  json_object_set_new(doc, "add", add);
  return dumpAndRelease(doc);
}

std::string serverPropertyDelta(const CellShape& shape, int index, const char* prop,
                                const char* value) {
  json_t* server = object("server", serverName(shape, index));
  json_t* props = json_object();
  json_object_set_new(props, prop, json_string(value));
  json_object_set_new(server, "props", props);
  json_t* set = json_object();
  json_object_set_new(set, "objects", server);
  json_t* doc = json_object();
  json_object_set_new(doc, "version", json_integer(2));
  json_object_set_new(doc, "delta", json_true());
  json_object_set_new(doc, "set", set);
  return dumpAndRelease(doc);
}

}  // namespace kyrtools
