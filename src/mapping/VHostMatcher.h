// VHostMatcher: one virtual host group of the cell. It holds the group's host:port aliases in
// three shapes (any host on a port, a host on any port, a host on a port) and one URI matcher
// with the URI patterns of every web module bound to the group. The URL matcher
// (kyrURLMatcher.h) asks each group whether it accepts a request's host and port, then asks its
// URI matcher for the module.
//
// Requests test aliases without a lock while the routing data may still add or remove them, so
// the test reads an immutable snapshot (VHostAliases) that every change replaces with one
// atomic store; the old snapshot and deleted aliases are retired onto the version. Everything
// else belongs to the control lock that document application holds.
#pragma once

#include <jansson.h>

#include <string>
#include <vector>

#include "mapping/URIMatcher.h"
#include "mapping/vHost.h"
#include "runtime/kyrList.h"
#include "runtime/kyrStringBuffer.h"

namespace kyr {

struct KyrRoutingInfo;

// What the host:port test of a group reads.
struct VHostAliases {
  bool any;
  bool hasHost;
  std::string firstHost;  // the first any-port host, when hasHost
  std::vector<int> ports;
  std::vector<const VHost*> vhosts;  // the specific aliases
};

struct VHostMatcher {
  KyrRoutingInfo* ri;
  KyrList* vhostList;              // of VHost with a specific host and a specific port, owning
  char* name;                      // the group name
  bool any;                        // every host on every port
  std::vector<std::string> hosts;  // accepted on any port, in the order added (copies)
  std::vector<int> ports;          // accepted for any host, in the order added
  const VHostAliases* aliases;     // the fields above as requests see them; atomic pointer
  URIMatcher* uriMatcher;          // named after the group
  TrContext* trCtx;
  TrRecord* debugCtl;  // "control.mapper"
  TrRecord* debugReq;  // "http.request.map.url"
};

VHostMatcher* createVHostMatcher(KyrRoutingInfo* ri, const char* name);
// Frees the group, its aliases and its URI matcher.
void deleteVHostMatcher(VHostMatcher* vhtm);

// Adds an alias; host null or "*" means any host, port -1 any port. Returns the new VHost when
// a specific host:port alias was stored, else null (the alias was folded into `any`, `hosts`
// or `ports`, or was already covered). A wider alias prunes the specific ones it covers.
VHost* putVHost(VHostMatcher* vhtm, const char* host, int port);
// Removes that alias from the group; it is deleted with the version.
void delVHost(VHostMatcher* vhtm, VHost* vh);

// The builder's tests, for the routing data. Deliberately consults only the first any-port host: a
// second one neither accepts a request nor suppresses an alias through this test. Request matching
// depends on it.
bool containsHost(const VHostMatcher* vhtm, const char* host);
bool containsPort(const VHostMatcher* vhtm, int port);
void pruneByHost(VHostMatcher* vhtm, const char* host);
void pruneByPort(VHostMatcher* vhtm, int port);

// Does the group accept this host and port: `any`, a port entry, the first any-port host, or a
// specific alias, as last published. matchVHost traces the test (ctx, may be null, chooses the
// trace context); vhostAccepts is the same test without trace, for callers that know tracing is
// off. Any thread; no lock.
bool matchVHost(const VHostMatcher* vhtm, const char* host, int port, KyrHttpContext* ctx);
bool vhostAccepts(const VHostMatcher* vhtm, const char* host, int port);
void* matchVHostURI(const VHostMatcher* vhtm, const char* uri, KyrHttpContext* ctx);

const char* getVHostMatcherName(const VHostMatcher* vhtm);
KyrRoutingInfo* vhostMatcherGetRoutingInfo(const VHostMatcher* vhtm);
URIMatcher* getURIMatcher(const VHostMatcher* vhtm);

void addInfoVHostMatcher(const VHostMatcher* vhtm, KyrStringBuffer* sb);
// { "VHostGroup": name, "VHosts": [ {host, port} per specific alias, then {"*", port} per
// any-host port ] }; any-port hosts and `any` are not part of it.
json_t* vhostMatcherToJSON(const VHostMatcher* vhtm);

}  // namespace kyr
