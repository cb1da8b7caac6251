// What a web server's request asks, read from its query and body before anything is served:
// the group and server it names, the version it holds and how long it waits (long polls), and
// for a POST which of the three bodies it carries. Every refusal is one line naming the fault.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kyrpublish {

// The query as received: each key with its value, or none for a key without "=".
using QueryArgs = std::vector<std::pair<std::string, std::optional<std::string>>>;

enum class QueryFor { Post, Poll, Apply };

struct RestQuery {
  std::string group;   // "name"; empty only for an apply to a one-file publisher
  std::string server;  // "server"; the library sends it empty when it has no server name
  int64_t vid = 0;     // polls only
  int waitSecs = 0;    // polls only, at most kMaxWaitSecs
};

// A web server asking for a longer wait is answered after this many seconds.
inline constexpr int kMaxWaitSecs = 3600;

// Empty on success, else the reason. Polls need name, server, vid and wait; the POSTs of the
// REST protocol name and server; an apply only an optional name. Any other key, a key given
// twice or a value that is not a number where one is needed is refused.
std::string parseQuery(const QueryArgs& args, QueryFor purpose, RestQuery& query);

enum class PostKind { Init, RouteChange, HealthTrigger };

// Which request a POST body makes: the interest specification (single-quoted, so not JSON, and
// taken as it is), a route change ("addRoutes" and/or "delRoutes", arrays of strings) or a
// health policy trigger ("healthPolicyName", "serverName", "healthPolicyTriggered"). On success
// the parsed body of the last two is in `json` (a new reference).
std::string classifyPost(const std::string& body, PostKind& kind, json_t*& json);

}  // namespace kyrpublish
