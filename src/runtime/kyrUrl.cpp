// KyrUrl: cuts a private copy of "protocol://host[:port][/path]" in place; only http and https
// may leave the port out.
#include "runtime/kyrUrl.h"

#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// Decimal value of an all-digit text (0 when empty), or -1 when any other character appears.
int parsePort(const char* text) {
  if (text[strspn(text, "0123456789")] != '\0') return -1;
  return static_cast<int>(strtol(text, nullptr, 10));
}

int defaultPort(const char* protocol) {
  if (strcmp(protocol, "http") == 0) return 80;
  if (strcmp(protocol, "https") == 0) return 443;
  return -1;
}

// Cuts host, port text and path out of the text after "://". Each ":" restarts the port text;
// the first "/" ends the scan.
void splitAuthority(KyrUrl* url, char* rest, const char** portText) {
  url->host = rest;
  for (char* p = rest; *p != '\0'; ++p) {
    if (*p == ':') {
      *p = '\0';
      *portText = p + 1;
    } else if (*p == '/') {
      url->path = kyrStrdup(p);
      *p = '\0';
      return;
    }
  }
}

}  // namespace

KyrUrl* kyrUrlCreate(const char* urlArg) {
  if (urlArg == nullptr) return nullptr;
  auto* url = static_cast<KyrUrl*>(kyrMalloc(sizeof(KyrUrl)));
  if (url == nullptr) return nullptr;
  url->url = kyrStrdup(urlArg);
  char* sep = strstr(url->url, "://");
  if (sep == nullptr) {
    kyrUrlDelete(url);
    return nullptr;
  }
  *sep = '\0';
  url->protocol = url->url;
  const char* portText = nullptr;
  splitAuthority(url, sep + 3, &portText);
  if (url->path == nullptr) url->path = kyrStrdup("/");
  url->port = portText != nullptr ? parsePort(portText) : defaultPort(url->protocol);
  if (portText == nullptr && url->port < 0) {
    kyrUrlDelete(url);
    return nullptr;
  }
  return url;
}

const char* kyrUrlGetProtocol(const KyrUrl* url) { return url->protocol; }

const char* kyrUrlGetHost(const KyrUrl* url) { return url->host; }

int kyrUrlGetPort(const KyrUrl* url) { return url->port; }

const char* kyrUrlGetPath(const KyrUrl* url) { return url->path; }

void kyrUrlDelete(KyrUrl* url) {
  if (url == nullptr) return;
  kyrFree(url->url);
  kyrFree(url->path);
  kyrFree(url);
}

}  // namespace kyr
