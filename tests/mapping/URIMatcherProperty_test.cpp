// The radix tree against a slow model written straight from the registration and precedence
// rules, on random pattern sets (fixed seeds) and random URIs mostly made from the patterns so
// that they hit. The model walks every registered path that begins the URI, shortest first: the
// tree's node splitting, child arrays and early stops must make no difference.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "mapping/URIMatcher.h"
#include "mappingTestUtil.h"

namespace {

using kyrtest::target;
using kyrtest::text;

struct ModelEntry {
  std::string exact;  // empty: none
  int origin = kyr::ORIGIN_UNSPECIFIED;
  std::string prefix;
  std::vector<std::pair<std::string, std::string>> suffixes;  // in registration order
};

using Tree = std::map<std::string, ModelEntry>;

class Model {
 public:
  void put(const std::string& pattern, const std::string& name) {
    if (pattern.empty() || pattern.find('*') != pattern.rfind('*')) return;
    size_t at = name.find(kyr::DEFAULT_TARGET_NAME);
    if (name.rfind("genApp", 0) != 0) {
      putInternal(real_, pattern, name, kyr::ORIGIN_USER);
    } else if (pattern == "/*" && at != std::string::npos && at > 0) {
      catchAll_ = name;
    } else {
      putInternal(gen_, pattern, name, kyr::ORIGIN_USER);
    }
  }

  std::string match(std::string uri) const {
    if (!uri.empty() && uri[0] != '/') uri.insert(0, "/");
    std::string found = matchTree(gen_, uri);
    if (found.empty()) found = matchTree(real_, uri);
    if (found.empty()) found = catchAll_;
    return found.empty() ? "null" : found;
  }

 private:
  static void putInternal(Tree& tree, std::string p, const std::string& name, int origin) {
    if (p[0] != '/') p.insert(0, "/");
    size_t star = p.find('*');
    if (origin == kyr::ORIGIN_USER) {  // the companions: bare path, trailing slash
      int derived = star == std::string::npos ? kyr::ORIGIN_AUTO_EXACT : kyr::ORIGIN_AUTO;
      if (p.size() >= 2 && p.substr(p.size() - 2) == "/*") {
        putInternal(tree, p.substr(0, p.size() - 1), name, derived);
        if (p.size() > 2) putInternal(tree, p.substr(0, p.size() - 2), name, derived);
      } else if (p.size() > 1 && p.back() == '/') {
        putInternal(tree, p.substr(0, p.size() - 1), name, derived);
      } else if (p.find('.', star == std::string::npos ? 0 : star + 1) == std::string::npos) {
        putInternal(tree, p + "/", name, derived);
      }
    }
    if (star == std::string::npos) {
      ModelEntry& e = tree[p];
      if (e.exact.empty() || origin > e.origin) {
        e.exact = name;
        e.origin = origin;
      }
      return;
    }
    ModelEntry& e = tree[p.substr(0, star)];
    std::string suffix = p.substr(star + 1);
    if (suffix.empty()) {
      if (e.prefix.empty()) e.prefix = name;
      return;
    }
    for (const auto& s : e.suffixes) {
      if (s.first == suffix) return;
    }
    e.suffixes.emplace_back(suffix, name);
  }

  // Exact beats everything; along the registered paths that begin the URI, a fitting suffix
  // (the longest at its path) replaces whatever was found above, a prefix counts where its path
  // has no fitting suffix, and a prefix found last beats a suffix found earlier.
  static std::string matchTree(const Tree& tree, const std::string& uri) {
    std::string prefix;
    std::string suffix;
    for (size_t len = 1; len <= uri.size(); ++len) {
      auto it = tree.find(uri.substr(0, len));
      if (it == tree.end()) continue;
      const ModelEntry& e = it->second;
      if (len == uri.size() && !e.exact.empty()) return e.exact;
      const std::pair<std::string, std::string>* best = nullptr;
      for (const auto& s : e.suffixes) {
        bool fits = uri.size() >= s.first.size() &&
                    uri.compare(uri.size() - s.first.size(), s.first.size(), s.first) == 0;
        if (fits && (best == nullptr || s.first.size() > best->first.size())) best = &s;
      }
      if (best != nullptr) {
        suffix = best->second;
        prefix.clear();
      } else if (!e.prefix.empty()) {
        prefix = e.prefix;
      }
    }
    return !prefix.empty() ? prefix : suffix;
  }

  Tree gen_;
  Tree real_;
  std::string catchAll_;
};

// Deterministic on every platform: the engine's output is fixed by the standard, and the
// reduction is plain modulo (the standard distributions are not portable).
class Generator {
 public:
  explicit Generator(uint32_t seed) : engine_(seed) {}
  size_t below(size_t n) { return static_cast<size_t>(engine_() % n); }
  bool chance(size_t percent) { return below(100) < percent; }

  std::string pattern() {
    std::string head = (chance(85) ? "/" : "") + text(6);
    size_t kind = below(10);
    if (kind < 3) return head;                            // exact
    if (kind < 5) return head + "/*";                     // prefix
    if (kind < 6) return head + "*";                      // prefix not on a slash
    if (kind < 8) return head + "*." + text(2);           // suffix under a path
    if (kind < 9) return "*." + text(3);                  // suffix anywhere
    return chance(50) ? head + "*" + text(2) + "*" : "";  // invalid: both ignore it
  }
  std::string uri(const std::vector<std::string>& patterns) {
    if (chance(30)) return (chance(90) ? "/" : "") + text(10);
    std::string u = patterns[below(patterns.size())];
    if (size_t star = u.find('*'); star != std::string::npos) u.replace(star, 1, text(4));
    if (chance(30)) u += text(3);
    if (chance(20) && !u.empty()) u.pop_back();
    return u;
  }
  std::string target(size_t i) {
    if (chance(5)) return "genApp_" + std::string(kyr::DEFAULT_TARGET_NAME) + std::to_string(i);
    return (chance(15) ? "genApp" : "t") + std::to_string(i);
  }

 private:
  // Few letters and many slashes and dots, so paths share prefixes and suffixes often.
  std::string text(size_t maxLen) {
    static const char kAlphabet[] = "//ab.cj";
    std::string s;
    for (size_t n = below(maxLen + 1); n > 0; --n) s += kAlphabet[below(sizeof kAlphabet - 1)];
    return s;
  }

  std::mt19937 engine_;
};

class URIMatcherProperty : public kyrtest::MappingTest {};

TEST_F(URIMatcherProperty, TreeAgreesWithTheModelOnRandomPatternsAndUris) {
  int compared = 0;
  int matched = 0;
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    Generator g(seed);
    Model model;
    kyr::URIMatcher* matcher = kyr::URIMatcherCreate(&ri_, "property");
    std::vector<std::string> patterns;
    std::vector<std::string> names;  // the targets must outlive the matcher
    for (size_t i = 0, count = 1 + g.below(40); i < count; ++i) {
      patterns.push_back(g.pattern());
      names.push_back(g.target(i));
    }
    for (size_t i = 0; i < patterns.size(); ++i) {
      std::string pattern = g.chance(3) ? "/*" : patterns[i];  // now and then a catch-all
      model.put(pattern, names[i]);
      kyr::URIMatcherPut(matcher, pattern.c_str(), target(names[i].c_str()), false);
    }
    kyr::URIMatcherPublish(matcher);
    for (int u = 0; u < 300; ++u, ++compared) {
      std::string uri = g.uri(patterns);
      std::string expected = model.match(uri);
      matched += expected != "null" ? 1 : 0;
      ASSERT_EQ(text(kyr::URIMatcherMatch(matcher, uri.c_str(), nullptr)), expected)
          << "seed " << seed << ", uri '" << uri << "'";
    }
    kyr::URIMatcherDelete(matcher);
  }
  // The generator must keep hitting patterns, or the comparison says little.
  EXPECT_GT(matched, compared / 3);
}

}  // namespace
