// Tables with columns as wide as their widest cell, and the histories one entry a line.
#include "statusTable.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace kyrpublish {
namespace {

using Row = std::vector<std::string>;

std::string text(json_t* value) {
  if (json_is_string(value)) return json_string_value(value);
  if (value == nullptr || json_is_null(value)) return "-";
  char* dumped = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
  std::string result = dumped != nullptr ? dumped : "?";
  free(dumped);
  return result;
}

void printTable(std::ostream& out, const std::vector<Row>& rows) {
  std::vector<size_t> widths;
  for (const Row& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const Row& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out << line << "\n";
  }
}

// Rows of the named members of each object of an array, under a header row.
std::vector<Row> rowsOf(json_t* array, const Row& header, const std::vector<const char*>& keys) {
  std::vector<Row> rows{header};
  size_t i;
  json_t* entry;
  json_array_foreach(array, i, entry) {
    Row row;
    for (const char* key : keys) row.push_back(text(json_object_get(entry, key)));
    rows.push_back(row);
  }
  return rows;
}

void printHistory(std::ostream& out, const char* title, json_t* history,
                  const std::vector<const char*>& keys) {
  out << "\n" << title << ": " << text(json_object_get(history, "received")) << " received\n";
  size_t i;
  json_t* entry;
  json_array_foreach(json_object_get(history, "latest"), i, entry) {
    std::string line = "  " + text(json_object_get(entry, "time")) + "  " +
                       text(json_object_get(entry, "group")) + "  " +
                       text(json_object_get(entry, "server"));
    for (const char* key : keys) {
      json_t* value = json_object_get(entry, key);
      // A route list can be long: the count, and the JSON form has them all.
      if (json_is_array(value)) {
        line += std::string("  ") + key + "=" + std::to_string(json_array_size(value));
      } else if (value != nullptr) {
        line += std::string("  ") + key + "=" + text(value);
      }
    }
    out << line << "\n";
  }
}

}  // namespace

void printStatusTable(std::ostream& out, json_t* status) {
  json_t* groups = json_object_get(status, "groups");
  printTable(out, rowsOf(groups, {"group", "version", "deltas", "waiting", "last change", "file"},
                         {"name", "version", "deltasKept", "pollsWaiting", "lastChange", "file"}));
  size_t i;
  json_t* group;
  json_array_foreach(groups, i, group) {
    json_t* problem = json_object_get(group, "problem");
    if (json_is_string(problem)) {
      out << "  " << text(json_object_get(group, "name"))
          << ": last edit refused: " << json_string_value(problem) << "\n";
    }
  }
  out << "\n";
  printTable(out, rowsOf(json_object_get(status, "webServers"),
                         {"web server", "group", "address", "vid", "waiting", "last poll"},
                         {"server", "group", "address", "vid", "pollsWaiting", "lastPoll"}));
  printHistory(out, "route changes", json_object_get(status, "routeChanges"),
               {"addRoutes", "delRoutes"});
  printHistory(out, "health policy triggers", json_object_get(status, "healthTriggers"),
               {"healthPolicyName", "serverName", "healthPolicyTriggered"});
}

}  // namespace kyrpublish
