/* Hosts are written in C: this file includes the public headers in strict C99 with every
 * warning an error, pins the values that hosts compile into their binaries, and calls a few
 * functions through the shared library so that the declarations provably link as C. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "kyrlib.h"
#include "tr.h"

/* C99 has no static_assert: a negative array size fails the compile instead. */
#define KYR_STATIC_ASSERT(name, condition) typedef char name[(condition) ? 1 : -1]

KYR_STATIC_ASSERT(table_version_is_19358, KYR_ENV_CALLBACKS_VERSION == 19358);
KYR_STATIC_ASSERT(invalid_is_minus_one, INVALID == -1);
KYR_STATIC_ASSERT(stopped_is_5, STOPPED == 5);
KYR_STATIC_ASSERT(deleted_is_6, DELETED == 6);
KYR_STATIC_ASSERT(null_map_mode_is_3, NullMapMode == 3);
KYR_STATIC_ASSERT(client_process_is_2, KYR_CLIENT_PROCESS == 2);
KYR_STATIC_ASSERT(permit_is_4, PERMIT == 4);
KYR_STATIC_ASSERT(bramble_server_is_5, KYRSERVERTYPE_BRAMBLE_SERVER == 5);
KYR_STATIC_ASSERT(free_is_22, FREE == 22);
KYR_STATIC_ASSERT(debug_level_is_8, TR_LEVEL_DEBUG == 8);
/* The table starts with its version so that any layout can be checked before it is read. */
KYR_STATIC_ASSERT(version_comes_first, offsetof(EnvCallBacks, version) == 0);

/* A host's own request type completes the library's opaque declaration. */
struct EnvHttpContext {
  const char* path;
};

static char* getPath(EnvHttpContext* ctx) { return (char*)ctx->path; }

static void onStateChange(Kyr* kyr, KyrComponentState state, char* reason) {
  (void)kyr;
  (void)state;
  (void)reason;
}

static int check(int ok, const char* what) {
  if (!ok) fprintf(stderr, "c99_headers: %s\n", what);
  return ok ? 0 : 1;
}

int main(void) {
  EnvCallBacks env;
  EnvHttpContext request;
  int failures = 0;

  memset(&env, 0, sizeof env);
  env.version = KYR_ENV_CALLBACKS_VERSION;
  env.http.request.getPath = getPath;
  env.stateChange.kyr = onStateChange;
  env.targetEndpoint.delete = NULL; /* the member a C++ compiler sees as delete_ */
  env.trace.printf = trDefaultPrintf;
  request.path = "/";

  failures += check(env.http.request.getPath(&request)[0] == '/', "callback table unusable");
  failures += check(kyrGetVersion() != NULL, "kyrGetVersion returned NULL");
  failures += check(strcmp(kyrState2String(PARTIAL_START), "PARTIAL START") == 0,
                    "kyrState2String(PARTIAL_START)");
  failures += check(trLevelNameToIndex("debug") == TR_LEVEL_DEBUG, "trLevelNameToIndex");
  /* Not a complete table: refused with a message on standard error, nothing created. */
  failures += check(kyrCreate(&env, NULL, NULL) == NULL, "incomplete table accepted");
  return failures == 0 ? 0 : 1;
}
