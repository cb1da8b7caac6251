// The host's endpoint objects, counted, so tests see when the library asks for them and hands
// them back: a second live object for one name means two routing versions did not share, and
// fewer deletes than creates an object never given back (a heap block, so ASan sees it too).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kyrlib.h"
#include "selection/kyrTargetSelector.h"

namespace kyrtest {

struct HostEndpoint {
  std::string name;
};

struct HostEndpoints {
  std::mutex lock;  // routing versions on several threads create and delete concurrently
  std::map<std::string, int> live;      // by endpoint name
  std::vector<std::string> createdFor;  // "host:port" at each creation
  int creates = 0;
  int deletes = 0;
  bool duplicate = false;
  bool refuse = false;  // the host gives no object
};

inline HostEndpoints& hostEndpoints() {
  static HostEndpoints endpoints;
  return endpoints;
}

inline EnvTargetEndpoint* createHostEndpoint(KyrTargetEndpoint* tep) {
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  if (e.refuse) return nullptr;
  const char* host = kyrTargetEndpointGetHostName(tep);
  e.createdFor.push_back(std::string(host != nullptr ? host : "") + ":" +
                         std::to_string(kyrTargetEndpointGetPort(tep)));
  ++e.creates;
  e.duplicate |= ++e.live[tep->name] > 1;
  return reinterpret_cast<EnvTargetEndpoint*>(new HostEndpoint{tep->name});
}

inline int deleteHostEndpoint(EnvTargetEndpoint* object) {
  std::unique_ptr<HostEndpoint> endpoint(reinterpret_cast<HostEndpoint*>(object));
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  ++e.deletes;
  --e.live[endpoint->name];
  return 0;
}

// Starts a new count and has the host's table use these objects.
inline void useHostEndpoints(EnvCallBacks& env) {
  HostEndpoints& e = hostEndpoints();
  std::lock_guard<std::mutex> guard(e.lock);
  e.live.clear();
  e.createdFor.clear();
  e.creates = e.deletes = 0;
  e.duplicate = e.refuse = false;
  env.targetEndpoint.create = createHostEndpoint;
  env.targetEndpoint.KYR_DELETE_MEMBER = deleteHostEndpoint;
}

// An endpoint as the host's callbacks see it, with nothing but a name.
inline KyrTargetEndpoint endpointNamed(const char* name) {
  KyrTargetEndpoint tep{};
  tep.name = const_cast<char*>(name);
  return tep;
}

}  // namespace kyrtest
