// VHost: one host:port alias of a virtual host group, with the host comparison the whole
// mapping layer uses (case-insensitive, same length: "host1." is not "host1"). A group
// (VHostMatcher.h) keeps its aliases that name both a host and a port as VHost objects.
#pragma once

#include <jansson.h>

#include "mapping/URIMatcher.h"

namespace kyr {

struct KyrRoutingInfo;

struct VHost {
  KyrRoutingInfo* ri;
  char* host;              // owned; null or "*" means any host
  int port;                // -1 means any port
  URIMatcher* uriMatcher;  // only when created with one; named host + ":" + port
  char* key;               // the host in lower case; "*" when the host is null
};

// Null and "*" stand for any host wherever a host is given.
bool isAnyHostText(const char* host);

// Both non-null, equal length, and equal character by character without regard to case.
bool compareHostsIgnoreCase(const char* a, const char* b);

VHost* VHostCreate(KyrRoutingInfo* ri, const char* hostSpec, int portSpec,
                   bool createURIMatcherObject);
VHost* VHostCreateWithURIMatcher(KyrRoutingInfo* ri, const char* host, int port);
void vHostDelete(VHost* vht);

// Counted lower-case copy of the host; "*" for null.
char* createKey(const char* host);
void makeKey(VHost* vht);  // (re)computes vht->key from its host
const char* getKey(const VHost* vht);
const char* getHost(const VHost* vht);
int getPort(const VHost* vht);
URIMatcher* getVhostUriMatcher(const VHost* vht);
bool isAnyHost(const VHost* vht);
bool isAnyPort(const VHost* vht);

// A request host of null or "*" never matches a specific alias host.
bool matchHost(const VHost* vht, const char* host);
bool matchPort(const VHost* vht, int port);
bool match(const VHost* vht, const char* host, int port);
// Same alias: an any-host alias equals only a null or "*" host; ports must be exactly equal.
bool equals(const VHost* vht, const char* host, int port);
// Orders aliases by port: -1, 0 or 1.
int compare(const VHost* a, const VHost* b);

// The alias's own URI matcher's answer when the alias accepts host and port, else null.
void* matchAndgetURIMatcher(const VHost* vht, const char* host, int port, const char* uri);

char* intoch(int port);  // counted decimal text
// { "host": host ("*" for any), "port": port as decimal text }
json_t* vhostToJSON(const VHost* vh);
json_t* vhostEntryToJSON(const char* host, int port);

}  // namespace kyr
