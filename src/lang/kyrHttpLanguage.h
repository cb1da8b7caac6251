// The language request rules are written in: the common operands, the operands that read the
// request being routed through the host's callbacks (uri, queryparm, uid, gids, header,
// cookie, HTTPMethod, clienthost, client and server addresses, port, protocol, virtual host and
// port), then the common operators. Rules are evaluated with the request context as object.
#pragma once

#include "lang/kyrLanguage.h"

namespace kyr {

Language* langCreateHttpLanguage(TrContext* trCtx, TrRecord* trRec);
void langRegisterHttpOperands(Language* lang);
void langRegisterHttpOperators(Language* lang);

// The value of parameter `parmName` in a query string, found by plain substring search (so
// "id" is found inside "userid=7"); a counted copy, or null.
char* getQueryParm(const char* queryString, const char* parmName);

}  // namespace kyr
