// Text and JSON forms of kyrroute's reports.
#include "report.h"

#include <jansson.h>

#include <cstdlib>
#include <iomanip>
#include <map>
#include <string>

namespace kyrroute {
namespace {

std::string actionText(const Decision& d) {
  switch (d.action) {
    case PERMIT:
      return d.sticky ? "permit (sticky)" : "permit";
    case REJECT:
      return "reject " + std::to_string(d.errorCode) +
             (d.errorMsg.empty() ? "" : " (" + d.errorMsg + ")");
    case REDIRECT:
      return "redirect " + d.redirectURL;
    case SUSPEND:
      return "suspend";
    default:
      return "none";
  }
}

std::string endpointText(const Decision& d) {
  return d.protocol + "://" + d.host + ":" + std::to_string(d.port);
}

std::string joined(const HeaderList& list, const char* separator) {
  std::string text;
  for (const auto& [name, value] : list) {
    if (!text.empty()) text += ", ";
    text += name + separator + value;
  }
  return text;
}

json_t* pairsToJSON(const HeaderList& list) {
  json_t* array = json_array();
  for (const auto& [name, value] : list) {
    json_array_append_new(array,
                          json_pack("{s:s, s:s}", "name", name.c_str(), "value", value.c_str()));
  }
  return array;
}

json_t* decisionToJSON(const Decision& d) {
  json_t* o = json_pack("{s:s, s:i, s:s}", "request", d.request.c_str(), "mapping", d.mapping,
                        "action", actionText(d).c_str());
  if (!d.module.empty()) json_object_set_new(o, "module", json_string(d.module.c_str()));
  if (!d.application.empty())
    json_object_set_new(o, "application", json_string(d.application.c_str()));
  if (d.action == PERMIT) json_object_set_new(o, "edition", json_string(d.edition.c_str()));
  if (d.action == REJECT) json_object_set_new(o, "errorCode", json_integer(d.errorCode));
  if (d.routed) {
    json_object_set_new(o, "server", json_string(d.server.c_str()));
    json_object_set_new(o, "cloneId", json_string(d.cloneId.c_str()));
    json_object_set_new(o, "endpoint",
                        json_pack("{s:s, s:s, s:i}", "protocol", d.protocol.c_str(), "host",
                                  d.host.c_str(), "port", d.port));
  }
  json_object_set_new(o, "headersSet", pairsToJSON(d.headersSet));
  json_object_set_new(o, "cookiesSet", pairsToJSON(d.cookiesSet));
  return o;
}

void printJSON(std::ostream& out, json_t* json) {
  char* text = json_dumps(json, JSON_INDENT(2));
  out << text << "\n";
  free(text);
  json_decref(json);
}

std::string outcome(const Decision& d) { return d.routed ? d.server : actionText(d); }

}  // namespace

void printDecisions(std::ostream& out, const std::vector<Decision>& decisions, bool json) {
  if (json) {
    json_t* array = json_array();
    for (const Decision& d : decisions) json_array_append_new(array, decisionToJSON(d));
    printJSON(out, array);
    return;
  }
  for (const Decision& d : decisions) printDecision(out, d, false);
}

void printDecision(std::ostream& out, const Decision& d, bool json) {
  if (json) {
    json_t* o = decisionToJSON(d);
    char* text = json_dumps(o, JSON_COMPACT);
    out << text << "\n";
    free(text);
    json_decref(o);
    return;
  }
  out << d.request << "\n";
  if (!d.module.empty()) {
    out << "  module    " << d.module << " (application " << d.application;
    if (!d.edition.empty()) out << ", edition " << d.edition;
    out << ")\n";
  }
  out << "  decision  " << actionText(d) << "\n";
  if (d.routed) {
    out << "  server    " << d.server << " (clone " << (d.cloneId.empty() ? "-" : d.cloneId)
        << ")\n  endpoint  " << endpointText(d) << "\n";
  }
  if (!d.headersSet.empty()) out << "  headers   " << joined(d.headersSet, ": ") << "\n";
  if (!d.cookiesSet.empty()) out << "  cookies   " << joined(d.cookiesSet, "=") << "\n";
}

void printDistribution(std::ostream& out, const std::vector<Decision>& decisions, bool json) {
  std::map<std::string, int> counts;
  for (const Decision& d : decisions) counts[outcome(d)]++;
  if (json) {
    json_t* o = json_object();
    for (const auto& [what, count] : counts)
      json_object_set_new(o, what.c_str(), json_integer(count));
    printJSON(out, o);
    return;
  }
  out << "distribution over " << decisions.size() << " requests:\n";
  for (const auto& [what, count] : counts) {
    out << "  " << std::setw(6) << count << "  " << std::setw(5) << std::fixed
        << std::setprecision(1) << 100.0 * count / static_cast<double>(decisions.size()) << "%  "
        << what << "\n";
  }
}

void printDiagnostics(std::ostream& out, const std::vector<Diagnostic>& diagnostics, bool json) {
  if (json) {
    json_t* array = json_array();
    for (const Diagnostic& d : diagnostics) {
      json_array_append_new(array, json_pack("{s:s, s:s}", "document", d.document.c_str(),
                                             "diagnostic", d.text.c_str()));
    }
    printJSON(out, array);
    return;
  }
  if (diagnostics.empty()) out << "no problems found\n";
  for (const Diagnostic& d : diagnostics) out << d.document << ": " << d.text << "\n";
}

}  // namespace kyrroute
