// The interest specification, built as a tree of object types and written out piece by piece.
#include "connector/kyrInterestSpec.h"

#include <string>
#include <vector>

#include "connector/kyrConnectorGroup.h"
#include "core/kyrHandleProperties.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct Interest {
  const char* type;
  std::string cond;                // the publisher's filter; empty for none
  std::vector<std::string> props;  // the property names wanted; none: every property
  std::vector<Interest> objects;   // the types wanted below this one
};

// The server types whose servers are cluster members, besides the application server.
constexpr const char* kMemberTypes[] = {
    "TOMCAT_SERVER", "KOVCE_SERVER",  "JBOSS_SERVER",      "PHP_SERVER",     "WEBLOGIC_SERVER",
    "APACHE_SERVER", "KOVAPP_SERVER", "CUSTOMHTTP_SERVER", "BRAMBLE_SERVER",
};

// What a member server's object sets in the target model.
constexpr const char* kServerProps[] = {
    "id",
    "state",
    "server.maintenancemode",
    "sessionAffinityCookies",
    "type",
    "weight",
    "connectTimeout",
    "ioTimeout",
    "wsIoTimeout",
    "wsIdleTimeout",
    "maxConnections",
    "cloneSeparatorChange",
    "waitForContinue",
    "extendedHandshake",
};

std::string quoted(const std::string& text) { return "'" + text + "'"; }

// "propStr$type in ('A','B')": the quotes are the publisher's, so they are escaped in the text.
std::string typeIn(const char* property, std::vector<std::string> types) {
  std::string cond = std::string("propStr$") + property + " in (";
  for (size_t i = 0; i < types.size(); ++i) cond += (i > 0 ? "," : "") + quoted(types[i]);
  return cond + ")";
}

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\'') out += '\\';
    out += c;
  }
  return out;
}

// The handle's property names with a prefix: the custom properties a cell or this web server
// may carry.
std::vector<std::string> customProps(const char* prefix) {
  std::vector<std::string> names;
  for (const char* const* name = kyrHandlePropertyNames(); *name != nullptr; ++name) {
    names.push_back(std::string(prefix) + *name);
  }
  return names;
}

void write(const Interest& interest, std::string* out) {
  *out += "{'type': " + quoted(interest.type);
  if (!interest.cond.empty()) *out += ", 'cond': " + quoted(escaped(interest.cond));
  if (!interest.props.empty()) {
    *out += ", 'props': [";
    for (size_t i = 0; i < interest.props.size(); ++i) {
      *out += (i > 0 ? ", " : "") + quoted(interest.props[i]);
    }
    *out += "]";
  }
  if (!interest.objects.empty()) {
    *out += ", 'objects': [";
    for (size_t i = 0; i < interest.objects.size(); ++i) {
      if (i > 0) *out += ", ";
      write(interest.objects[i], out);
    }
    *out += "]";
  }
  *out += "}";
}

std::vector<Interest> interestTree(bool adminTraffic) {
  std::vector<std::string> clusterTypes = {"APPLICATION_SERVER"};
  clusterTypes.insert(clusterTypes.end(), std::begin(kMemberTypes), std::end(kMemberTypes));
  if (adminTraffic) clusterTypes.push_back("DEPLOYMENT_MANAGER");
  std::vector<std::string> serverTypes = {"APPLICATION_SERVER", "DEPLOYMENT_MANAGER", "NODE_AGENT"};
  serverTypes.insert(serverTypes.end(), std::begin(kMemberTypes), std::end(kMemberTypes));
  Interest transport{
      "transport",
      "propStr$protocol in ('http','https') or name='YKAGENT_PORT'",
      {"protocol", "host", "port", "isActive", "namedEndpoint", "channelPersistentTimeout"},
      {}};
  return {
      {"cell", "", customProps("cp."), {}},
      {"application", "", {"edition", "root", "sessionAffinityCookies", "state"}, {}},
      {"webModule",
       "",
       {"routingEnabled", "contextRoot", "protocolMap", "fileServingEnabled"},
       {{"uri", "parentType = 'webModule'", {}, {}}}},
      {"webRouteWorkClass",
       "",
       {},
       {{"rule", "parentType = 'webRouteWorkClass'", {"expression", "action"}, {}}}},
      {"vHostGroup", "", {}, {{"vHost", "", {"host", "port"}, {}}}},
      {"healthPolicy", "", {"type", "threshold"}, {}},
      {"cluster",
       typeIn("serverType", clusterTypes),
       {"cloneIdSeparator", "cookieNames", "serverType", "learnCloneIds", "appEditionRolloutState",
        "ioTimeoutRetry"},
       {}},
      {"node",
       "",
       {"cp.node.maintenancemode"},
       {{"server", typeIn("type", {"WEB_SERVER"}), customProps("cp.vq."), {}},
        {"server",
         typeIn("type", serverTypes),
         {std::begin(kServerProps), std::end(kServerProps)},
         {transport, {"serverApplication", "", {"state"}, {}}}}}},
      {"ruleSet", "", {}, {{"rule", "parentType = 'ruleSet'", {"expression", "action"}, {}}}},
  };
}

}  // namespace

char* kyrGetInterestSpec(KyrConnectorGroup* cg) {
  std::string out = "{'interests': {'objects': [";
  std::vector<Interest> tree = interestTree(cg->enableAdminTraffic);
  for (size_t i = 0; i < tree.size(); ++i) {
    if (i > 0) out += ", ";
    write(tree[i], &out);
  }
  out += "], 'relationships': [";
  const char* pairs[][2] = {{"webModule", "vHostGroup"},
                            {"webModule", "cluster"},
                            {"webModule", "server"},
                            {"cluster", "server"},
                            {"healthPolicy", "server"}};
  for (size_t i = 0; i < std::size(pairs); ++i) {
    out += std::string(i > 0 ? ", " : "") + "{'types': [" + quoted(pairs[i][0]) + ", " +
           quoted(pairs[i][1]) + "]}";
  }
  out += "]}}";
  return kyrStrdup(out.c_str());
}

}  // namespace kyr
