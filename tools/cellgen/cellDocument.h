// Generated routing documents of a chosen size, for benchmarks and load tests: a complete
// document of a cell as a publisher would send it, and deltas against it.
#pragma once

#include <string>

namespace kyrtools {

struct CellShape {
  std::string cell = "bench";
  int nodes = 10;
  int clusters = 10;
  int serversPerCluster = 100;  // spread round-robin over the nodes
  int appsPerCluster = 10;      // deployed on every member of the cluster
  int modulesPerApp = 3;
  int urisPerModule = 10;  // a mix of prefix, suffix and exact patterns
  int vHostGroups = 2;     // modules are bound to them in turn
  // Above 0: this many applications in all, given to the clusters in turn, in place of
  // appsPerCluster (so that a cell may have fewer applications than clusters, or any number).
  int applications = 0;
  // Every application also in a second edition ("app<N>-edition2", edition "2") on the same
  // cluster, chosen by edition routing rules of the first: "X-Beta: yes" sticks to edition 2,
  // 10% of other requests go there, the rest stay on the first edition.
  bool secondEditions = false;
};

// Every server has an http and an https transport, a clone id and its server applications;
// clusters are linked to their members, every module to its cluster, a virtual host group and
// the servers its application runs on.
std::string completeDocument(const CellShape& shape);

// Full object name of server `index` (0-based, in generation order).
std::string serverName(const CellShape& shape, int index);
// Context root of module `module` of application `app` (both 0-based over the whole cell), and
// a request path that one of its exact patterns maps.
std::string contextRoot(int app, int module);
std::string mappedPath(int app, int module);

// How many applications the cell has, and the cluster (0-based) that runs application `app`.
int applicationCount(const CellShape& shape);
int clusterOfApplication(const CellShape& shape, int app);
// The clone id of server `index`, and the virtual port that maps module `module` of `app`.
std::string cloneId(int index);
int modulePort(const CellShape& shape, int app, int module);

// A delta that sets one property of one server.
std::string serverPropertyDelta(const CellShape& shape, int index, const char* prop,
                                const char* value);

}  // namespace kyrtools
