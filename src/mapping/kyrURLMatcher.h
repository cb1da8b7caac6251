// The URL matcher: all virtual host groups of a routing-information version, and the choice of
// the web module for a request's host, port and URI over every group that accepts the host and
// port (the longest context root wins; between equals the first group, unless its module is a
// generic application's). The request mapper owns it and fills it; target selection looks
// groups up by name.
//
// Web modules are the request mapper's objects (kyrRequestMapper.h); this layer only reads
// their name and context root. The matched group's name goes to the request context.
//
// Requests walk the groups without a lock while the routing data may still add or delete one:
// they read a null-terminated array that every change replaces with one atomic store, and the
// old array and deleted groups are retired onto the version. The list and map belong to the
// control lock that document application holds.
#pragma once

#include <jansson.h>

#include "kyrlib.h"
#include "mapping/VHostMatcher.h"
#include "runtime/kyrHash.h"
#include "runtime/kyrList.h"

namespace kyr {

struct KyrRoutingInfo;
struct WebModule;

struct URLMatcher {
  KyrRoutingInfo* ri;
  KyrHashMap* vhostMatcherMap;      // group name -> VHostMatcher; keys are the groups' own names
  KyrList* vhostMatcherList;        // of VHostMatcher in the order added, owning
  VHostMatcher** vhtMatchersArray;  // null-terminated copy of vhostMatcherList; atomic pointer
  TrContext* trCtx;
  TrRecord* debugCtl;  // "control.mapper"
  TrRecord* debugReq;  // "http.request.map.url"
};

URLMatcher* kyrURLMatcherCreate(KyrRoutingInfo* ri);
// Deletes the matcher with all its groups.
void kyrURLMatcherDestroy(URLMatcher* m);

// Appends the group (the matcher takes it over) and enters it under its name.
void addVHostMatcher(URLMatcher* m, VHostMatcher* vhtm);
// The group of that name, or null, among the published groups: any thread, no lock.
VHostMatcher* getVHostMatcher(const URLMatcher* m, const char* name);
// Removes the group of that name; it is deleted with the version.
void URLMatcherDeleteVHostMatcher(URLMatcher* m, const char* name);
// Makes every group's URI patterns put since the last publish visible to requests.
void URLMatcherPublish(URLMatcher* m);

// The best web module and the group that gave it; both null when no group maps the request.
struct URLMatch {
  WebModule* webModule;
  const VHostMatcher* vhostMatcher;
};
URLMatch findLongestURI(const URLMatcher* m, KyrHttpContext* ctx, const char* host, int port,
                        const char* uri);

// findLongestURI, with the group's name (or null) recorded in the request context.
WebModule* matchLongestURI(const URLMatcher* m, KyrHttpContext* ctx, const char* host, int port,
                           const char* uri);

// Whether the candidate lhsObj should replace the current best rhsObj: a longer context root
// (none counts as empty); on equal lengths only when the current best is a generic
// application's module, so a real application displaces a generic one of the same root.
bool isBetterThan(const URLMatcher* urlMatcher, WebModule* lhsObj, WebModule* rhsObj);

// { "VHostGroups": [ one group object per group in order ] }
json_t* urlMatcherToJSON(const URLMatcher* m);

}  // namespace kyr
