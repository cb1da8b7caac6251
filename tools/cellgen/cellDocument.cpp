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

}  // namespace

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
    json_object_set_new(props, "id", json_string(("clone" + std::to_string(s)).c_str()));
    json_object_set_new(props, "state", json_string("STARTED"));
    json_object_set_new(props, "type", json_string("APPLICATION_SERVER"));
    json_object_set_new(props, "weight", json_integer(2));
    json_object_set_new(server, "props", props);
    json_t* serverObjects = children(server);
    std::string host = "host" + std::to_string(s) + ".example.com";
    json_array_append_new(serverObjects, transport("http", host, 9080));
    json_array_append_new(serverObjects, transport("https", host, 9443));
    for (int a = 0; a < shape.appsPerServer; ++a) {
      json_t* sapp = object("serverApplication", "/serverApplication/app" +
                                                     std::to_string(cluster * shape.appsPerServer + a));
      json_t* sappProps = json_object();
      json_object_set_new(sappProps, "state", json_string("STARTED"));
      json_object_set_new(sapp, "props", sappProps);
      json_array_append_new(serverObjects, sapp);
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

  json_t* relationships = json_object();
  json_object_set_new(relationships, "cluster:server", clusterServer);
  json_t* add = json_object();
  json_object_set_new(add, "objects", cell);
  json_object_set_new(add, "relationships", relationships);
  json_t* doc = json_object();
  json_object_set_new(doc, "version", json_integer(1));
  json_object_set_new(doc, "restVersion", json_integer(1));
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
