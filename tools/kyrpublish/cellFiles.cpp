// The cell's files: which directory to watch, which file feeds which group, and loading one
// document with every check it must pass before a web server may see it.
#include "cellFiles.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

#include "cellDiff.h"

namespace kyrpublish {

std::optional<CellFiles> CellFiles::open(const std::string& path, std::string& error) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    error = "cannot read " + path;
    return std::nullopt;
  }
  CellFiles files;
  if (S_ISDIR(st.st_mode)) {
    files.directory_ = path;
    return files;
  }
  if (!S_ISREG(st.st_mode)) {
    error = path + " is neither a file nor a directory";
    return std::nullopt;
  }
  size_t slash = path.rfind('/');
  files.directory_ = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  files.file_ = slash == std::string::npos ? path : path.substr(slash + 1);
  return files;
}

std::optional<std::string> CellFiles::groupOf(const std::string& fileName) const {
  if (oneFile()) {
    if (fileName == file_) return std::string(kAnyGroup);
    return std::nullopt;
  }
  static const std::string kSuffix = ".json";
  if (fileName.size() <= kSuffix.size() || fileName[0] == '.' ||
      fileName.compare(fileName.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
    return std::nullopt;
  }
  return fileName.substr(0, fileName.size() - kSuffix.size());
}

std::string CellFiles::pathOf(const std::string& group) const {
  return directory_ + "/" + (oneFile() ? file_ : group + ".json");
}

std::vector<std::string> CellFiles::groups() const {
  if (oneFile()) return {kAnyGroup};
  std::vector<std::string> groups;
  DIR* dir = opendir(directory_.c_str());
  if (dir == nullptr) return groups;
  while (dirent* entry = readdir(dir)) {
    if (auto group = groupOf(entry->d_name)) groups.push_back(*group);
  }
  closedir(dir);
  std::sort(groups.begin(), groups.end());
  return groups;
}

json_t* loadDocument(const std::string& path, std::string& error) {
  json_error_t parseError;
  json_t* document = json_load_file(path.c_str(), 0, &parseError);
  if (document == nullptr) {
    error = path + ": " +
            (parseError.line > 0 ? "line " + std::to_string(parseError.line) + ": " : "") +
            parseError.text;
    return nullptr;
  }
  std::string problem = checkDocument(document);
  if (!problem.empty()) {
    error = path + ": " + problem;
    json_decref(document);
    return nullptr;
  }
  return document;
}

}  // namespace kyrpublish
