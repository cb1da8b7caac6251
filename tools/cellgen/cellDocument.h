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
  int appsPerServer = 2;        // server applications on every member of a cluster
};

// Every server has an http and an https transport, a clone id and its server applications;
// clusters are linked to their members.
std::string completeDocument(const CellShape& shape);

// Full object name of server `index` (0-based, in generation order).
std::string serverName(const CellShape& shape, int index);

// A delta that sets one property of one server.
std::string serverPropertyDelta(const CellShape& shape, int index, const char* prop,
                                const char* value);

}  // namespace kyrtools
