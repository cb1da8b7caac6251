// KyrUrl: splits "protocol://host[:port][/path]" as the connectors need it.
#pragma once

namespace kyr {

struct KyrUrl {
  char* url;       // private copy, cut in place
  char* protocol;  // points into url
  char* host;      // points into url
  int port;        // -1 when the port text is not all digits
  char* path;      // own copy; "/" when the URL has none
};

KyrUrl* kyrUrlCreate(const char* urlArg);
const char* kyrUrlGetProtocol(const KyrUrl* url);
const char* kyrUrlGetHost(const KyrUrl* url);
int kyrUrlGetPort(const KyrUrl* url);
const char* kyrUrlGetPath(const KyrUrl* url);
void kyrUrlDelete(KyrUrl* url);

}  // namespace kyr
