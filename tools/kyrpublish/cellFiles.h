// Where the routing documents come from: --cell names one complete document, served to every
// connector group, or a directory with one <group>.json per group. Either way the publisher
// watches one directory and maps the names of files changing there to the groups they feed.
#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <vector>

namespace kyrpublish {

// The group name that stands for every group when --cell is one file.
inline constexpr const char* kAnyGroup = "*";

class CellFiles {
 public:
  // Empty optional and `error` set when the path is neither a readable file nor a directory.
  static std::optional<CellFiles> open(const std::string& path, std::string& error);

  bool oneFile() const { return !file_.empty(); }
  const std::string& directory() const { return directory_; }
  // The group a file of the directory feeds, if it feeds one ("x.json" feeds x; hidden files,
  // editors' backups and anything not ending in .json feed none).
  std::optional<std::string> groupOf(const std::string& fileName) const;
  std::string pathOf(const std::string& group) const;
  // The groups the directory holds now (kAnyGroup alone for one file), sorted.
  std::vector<std::string> groups() const;

 private:
  std::string directory_;
  std::string file_;  // empty for a directory of groups
};

// Reads, parses and checks one document; null and `error` naming the problem when it cannot
// be served.
json_t* loadDocument(const std::string& path, std::string& error);

}  // namespace kyrpublish
