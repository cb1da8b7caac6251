/* minimal_host: the smallest complete kyrlib host. It gives the library a callback table over
 * its own request type, creates the library handle with the trace catalogue, starts it, stops it
 * and destroys it, printing each step. A web-server plug-in does the same around its server's
 * request objects, and adds connector groups before the start so that routing data arrives.
 *
 * Usage: minimal_host [path of kyr-trace.xml]
 */
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "kyrlib.h"
#include "tr.h"

#ifndef KYR_TRACE_CATALOGUE
#define KYR_TRACE_CATALOGUE "/usr/local/share/kyrlib/kyr-trace.xml"
#endif

#define MAX_HEADERS 16

/* The host's own request. The library never looks inside: it passes the pointer back to the
 * callbacks below, which must return strings that stay valid while the request lives. */
struct EnvHttpContext {
  const char* method;
  const char* host;
  int port;
  const char* path;
  int numHeaders;
  struct {
    char name[64];
    char value[256];
  } headers[MAX_HEADERS];
};

static int sameHeaderName(const char* a, const char* b) {
  while (*a != '\0' && tolower((unsigned char)*a) == tolower((unsigned char)*b)) {
    a++;
    b++;
  }
  return *a == '\0' && *b == '\0';
}

static int findHeader(EnvHttpContext* r, const char* name) {
  int i;
  for (i = 0; i < r->numHeaders; i++) {
    if (sameHeaderName(r->headers[i].name, name)) return i;
  }
  return -1;
}

static char* getMethod(EnvHttpContext* r) { return (char*)r->method; }
static char* getVirtualHost(EnvHttpContext* r) { return (char*)r->host; }
static int getPort(EnvHttpContext* r) { return r->port; }
static char* getPath(EnvHttpContext* r) { return (char*)r->path; }
static char* getProtocol(EnvHttpContext* r) {
  (void)r;
  return "http";
}
static char* getProtocolVersion(EnvHttpContext* r) {
  (void)r;
  return "HTTP/1.1";
}
static char* getClientIpAddr(EnvHttpContext* r) {
  (void)r;
  return "127.0.0.1";
}
/* No TLS and no authentication in this toy server. */
static char* notSet(EnvHttpContext* r) {
  (void)r;
  return NULL;
}

static char* getHeaderValue(EnvHttpContext* r, char* name) {
  int i = findHeader(r, name);
  return i < 0 ? NULL : r->headers[i].value;
}

/* The library adds its private headers here before the request is forwarded; NULL removes. */
static int setHeaderValue(EnvHttpContext* r, char* name, char* value) {
  int i = findHeader(r, name);
  if (value == NULL) {
    if (i >= 0) r->headers[i] = r->headers[--r->numHeaders];
    return 0;
  }
  if (i < 0) {
    if (r->numHeaders == MAX_HEADERS) return -1;
    i = r->numHeaders++;
    snprintf(r->headers[i].name, sizeof r->headers[i].name, "%s", name);
  }
  snprintf(r->headers[i].value, sizeof r->headers[i].value, "%s", value);
  return 0;
}

/* A real host returns the named cookie of the request (affinity uses the session cookie). */
static char* getCookieValue(EnvHttpContext* r, char* name) {
  (void)r;
  (void)name;
  return NULL;
}

static void onStateChange(Kyr* kyr, KyrComponentState state, char* reason) {
  (void)kyr;
  /* kyrState2String has no name for DELETED, the state a destroyed handle reports last. */
  printf("state: %s (%s)\n", state == DELETED ? "DELETED" : kyrState2String(state), reason);
}

int main(int argc, char** argv) {
  const char* catalogue = argc > 1 ? argv[1] : KYR_TRACE_CATALOGUE;
  EnvCallBacks env;
  Kyr* kyr;

  setvbuf(stdout, NULL, _IOLBF, 0); /* keep our lines in order with the trace on stderr */

  memset(&env, 0, sizeof env); /* members left NULL are optional or get built-in defaults */
  env.version = KYR_ENV_CALLBACKS_VERSION;
  env.http.request.getMethod = getMethod;
  env.http.request.getVirtualHost = getVirtualHost;
  env.http.request.getVirtualPort = getPort;
  env.http.request.getListeningPort = getPort;
  env.http.request.getPath = getPath;
  env.http.request.getProtocol = getProtocol;
  env.http.request.getProtocolVersion = getProtocolVersion;
  env.http.request.getClientIpAddr = getClientIpAddr;
  env.http.request.getClientCertificate = notSet;
  env.http.request.getSSLCipherSuite = notSet;
  env.http.request.getSSLSessionId = notSet;
  env.http.request.getAuthType = notSet;
  env.http.request.getUserName = notSet;
  env.http.request.getHeaderValue = getHeaderValue;
  env.http.request.setHeaderValue = setHeaderValue;
  env.http.request.getCookieValue = getCookieValue;
  env.stateChange.kyr = onStateChange;
  env.trace.printf = trDefaultPrintf;

  kyr = kyrCreate(&env, NULL, catalogue); /* the table is copied: env may go now */
  if (kyr == NULL) return 1;              /* the reason is on standard error */
  printf("kyrCreate: ok, %s, catalogue %s\n", kyrGetVersion(), catalogue);

  kyrSetProperty(kyr, "webserverName", "cell1_node1_web1");
  printf("kyrSetProperty: server path %s\n", kyrGetServerPath(kyr));

  /* -1: return at once. With connector groups the state moves on as routing data arrives. */
  if (kyrStart(kyr, -1) != 0) return 1;
  printf("kyrStart: 0\n");

  printf("kyrStop: %d\n", kyrStop(kyr));
  kyrDestroy(kyr);
  printf("kyrDestroy: done\n");
  return 0;
}
