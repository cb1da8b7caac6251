// Query keys and body shapes of the REST protocol, checked strictly: a publisher that takes a
// misspelt key silently would hide a web server's fault until its routing went wrong.
#include "restRequest.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

namespace kyrpublish {
namespace {

bool toInteger(const std::string& text, long long& value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  value = strtoll(text.c_str(), &end, 10);
  return errno == 0 && *end == '\0';
}

// The interest specification is a JSON-like text in single quotes; its outer object names
// "interests" in either quoting.
bool isInterestSpecification(const std::string& body) {
  size_t first = body.find_first_not_of(" \t\r\n");
  return first != std::string::npos && body[first] == '{' &&
         (body.find("'interests'") != std::string::npos ||
          body.find("\"interests\"") != std::string::npos);
}

std::string checkRoutes(json_t* body, const char* key) {
  json_t* routes = json_object_get(body, key);
  if (routes == nullptr) return "";
  size_t i;
  json_t* route;
  if (!json_is_array(routes)) return std::string("\"") + key + "\" is not an array";
  json_array_foreach(routes, i, route) {
    if (!json_is_string(route)) return std::string("\"") + key + "\" holds a non-string";
  }
  return "";
}

std::string checkTrigger(json_t* body) {
  if (!json_is_string(json_object_get(body, "healthPolicyName"))) {
    return "\"healthPolicyName\" is not a string";
  }
  if (!json_is_string(json_object_get(body, "serverName"))) return "\"serverName\" is not a string";
  if (!json_is_boolean(json_object_get(body, "healthPolicyTriggered"))) {
    return "\"healthPolicyTriggered\" is not true or false";
  }
  return "";
}

}  // namespace

std::string parseQuery(const QueryArgs& args, QueryFor purpose, RestQuery& query) {
  std::map<std::string, std::string> values;
  for (const auto& [key, value] : args) {
    bool known = key == "name" || (purpose != QueryFor::Apply && key == "server") ||
                 (purpose == QueryFor::Poll && (key == "vid" || key == "wait"));
    if (!known) return "unknown query key '" + key + "'";
    if (!value) return "query key '" + key + "' has no value";
    if (!values.emplace(key, *value).second) return "query key '" + key + "' given twice";
  }
  auto need = [&](const char* key) { return values.count(key) == 0; };
  if (purpose != QueryFor::Apply) {
    for (const char* key : {"name", "server"}) {
      if (need(key)) return std::string("query key '") + key + "' is missing";
    }
    query.server = values["server"];
  }
  if (values.count("name") != 0) {
    query.group = values["name"];
    if (query.group.empty()) return "query key 'name' is empty";
  }
  if (purpose != QueryFor::Poll) return "";
  long long vid, wait;
  if (need("vid") || need("wait")) return "a long poll needs both 'vid' and 'wait'";
  if (!toInteger(values["vid"], vid)) return "vid '" + values["vid"] + "' is not an integer";
  if (!toInteger(values["wait"], wait) || wait < 0) {
    return "wait '" + values["wait"] + "' is not a number of seconds";
  }
  query.vid = vid;
  query.waitSecs = static_cast<int>(wait < kMaxWaitSecs ? wait : kMaxWaitSecs);
  return "";
}

std::string classifyPost(const std::string& body, PostKind& kind, json_t*& json) {
  json = nullptr;
  if (body.empty()) return "empty body";
  json_error_t error;
  json_t* parsed = json_loadb(body.data(), body.size(), 0, &error);
  if (parsed == nullptr) {
    if (isInterestSpecification(body)) {
      kind = PostKind::Init;
      return "";
    }
    return std::string("body is not JSON: ") + error.text;
  }
  std::string problem;
  if (!json_is_object(parsed)) {
    problem = "body is not a JSON object";
  } else if (json_object_get(parsed, "addRoutes") != nullptr ||
             json_object_get(parsed, "delRoutes") != nullptr) {
    kind = PostKind::RouteChange;
    problem = checkRoutes(parsed, "addRoutes");
    if (problem.empty()) problem = checkRoutes(parsed, "delRoutes");
  } else if (json_object_get(parsed, "healthPolicyName") != nullptr) {
    kind = PostKind::HealthTrigger;
    problem = checkTrigger(parsed);
  } else if (json_object_get(parsed, "interests") != nullptr) {
    // An interest specification a client wrote as strict JSON.
    kind = PostKind::Init;
  } else {
    problem = "body is neither an interest specification, a route change nor a health trigger";
  }
  if (!problem.empty() || kind == PostKind::Init) {
    json_decref(parsed);
    return problem;
  }
  json = parsed;
  return "";
}

}  // namespace kyrpublish
