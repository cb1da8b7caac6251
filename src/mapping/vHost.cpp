// VHost: one host:port alias, its tests and its JSON form.
#include "mapping/vHost.h"

#include <cstring>
#include <string>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"

namespace kyr {

bool isAnyHostText(const char* host) { return host == nullptr || strcmp(host, "*") == 0; }

namespace {

// Host names are ASCII: fold only a-z, whatever locale the host process runs in.
char upperAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool compareHostsIgnoreCase(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return false;
  for (; *a != '\0' && *b != '\0'; ++a, ++b) {
    if (*a != *b && upperAscii(*a) != upperAscii(*b)) return false;
  }
  return *a == *b;  // both ended: same length
}

VHost* VHostCreate(KyrRoutingInfo* ri, const char* hostSpec, int portSpec,
                   bool createURIMatcherObject) {
  auto* vht = kyrNew<VHost>();
  vht->ri = ri;
  vht->host = hostSpec != nullptr ? kyrStrdup(hostSpec) : nullptr;
  vht->port = portSpec;
  makeKey(vht);
  if (createURIMatcherObject) {
    std::string name =
        std::string(hostSpec != nullptr ? hostSpec : "*") + ":" + std::to_string(portSpec);
    vht->uriMatcher = URIMatcherCreate(ri, name.c_str());
  }
  return vht;
}

VHost* VHostCreateWithURIMatcher(KyrRoutingInfo* ri, const char* host, int port) {
  return VHostCreate(ri, host, port, true);
}

void vHostDelete(VHost* vht) {
  if (vht == nullptr) return;
  URIMatcherDelete(vht->uriMatcher);
  kyrFree(vht->host);
  kyrFree(vht->key);
  kyrDelete(vht);
}

char* createKey(const char* host) {
  if (host == nullptr) return kyrStrdup("*");
  char* key = kyrStrdup(host);
  for (char* c = key; *c != '\0'; ++c) *c = lowerAscii(*c);
  return key;
}

void makeKey(VHost* vht) {
  kyrFree(vht->key);
  vht->key = createKey(vht->host);
}

const char* getKey(const VHost* vht) { return vht->key; }
const char* getHost(const VHost* vht) { return vht->host; }
int getPort(const VHost* vht) { return vht->port; }
URIMatcher* getVhostUriMatcher(const VHost* vht) { return vht->uriMatcher; }
bool isAnyHost(const VHost* vht) { return isAnyHostText(vht->host); }
bool isAnyPort(const VHost* vht) { return vht->port == -1; }

bool matchHost(const VHost* vht, const char* host) {
  if (host == nullptr || strcmp(host, "*") == 0) return false;
  return compareHostsIgnoreCase(vht->host, host);
}

bool matchPort(const VHost* vht, int port) { return isAnyPort(vht) || vht->port == port; }

bool match(const VHost* vht, const char* host, int port) {
  return (isAnyHost(vht) || matchHost(vht, host)) && matchPort(vht, port);
}

bool equals(const VHost* vht, const char* host, int port) {
  bool sameHost = isAnyHost(vht) ? isAnyHostText(host) : matchHost(vht, host);
  return sameHost && vht->port == port;
}

int compare(const VHost* a, const VHost* b) {
  if (a->port == b->port) return 0;
  return a->port < b->port ? -1 : 1;
}

void* matchAndgetURIMatcher(const VHost* vht, const char* host, int port, const char* uri) {
  if (vht->uriMatcher == nullptr || !match(vht, host, port)) return nullptr;
  return URIMatcherMatch(vht->uriMatcher, uri, nullptr);
}

char* intoch(int port) { return kyrToString(port); }

json_t* vhostEntryToJSON(const char* host, int port) {
  json_t* json = json_object();
  json_object_set_new(json, "host", json_string(isAnyHostText(host) ? "*" : host));
  char* portText = intoch(port);
  json_object_set_new(json, "port", json_string(portText));
  kyrFree(portText);
  return json;
}

json_t* vhostToJSON(const VHost* vh) { return vhostEntryToJSON(vh->host, vh->port); }

}  // namespace kyr
