// The radix tree against a slow model written straight from the registration and precedence
// rules: random pattern sets (fixed seeds) with string targets, and random URIs, many of them
// made from the registered patterns so that they hit. The model keeps one entry per registered
// path and walks every registered path that begins the URI, shortest first: the tree must agree
// without its node splitting, child arrays and walk stopping making any difference.
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
    bool generic = name.rfind("genApp", 0) == 0;
    if (!generic) {
      putInternal(real_, pattern, name, kyr::ORIGIN_USER);
    } else if (size_t at = name.find(kyr::DEFAULT_TARGET_NAME);
               pattern == "/*" && at != std::string::npos && at > 0) {
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
    if (origin == kyr::ORIGIN_USER) {
      int derived = star == std::string::npos ? kyr::ORIGIN_AUTO_EXACT : kyr::ORIGIN_AUTO;
      if (p.size() >= 2 && p.substr(p.size() - 2) == "/*") {
        putInternal(tree, p.substr(0, p.size() - 1), name, derived);
        if (p.size() > 2) putInternal(tree, p.substr(0, p.size() - 2), name, derived);
      } else if (p.size() > 1 && p.back() == '/') {
        putInternal(tree, p.substr(0, p.size() - 1), name, derived);
      } else if (p.substr(star == std::string::npos ? 0 : star + 1).find('.') ==
                 std::string::npos) {
        putInternal(tree, p + "/", name, derived);
      }
    }
    if (star == std::string::npos) {
      ModelEntry& e = tree[p];
      if (e.exact.empty() || origin > e.origin) {
        e.exact = name;
        e.origin = origin;
      }
    } else if (star + 1 == p.size()) {
      ModelEntry& e = tree[p.substr(0, star)];
      if (e.prefix.empty()) e.prefix = name;
    } else {
      ModelEntry& e = tree[p.substr(0, star)];
      std::string suffix = p.substr(star + 1);
      bool known = false;
      for (const auto& s : e.suffixes) known = known || s.first == suffix;
      if (!known) e.suffixes.emplace_back(suffix, name);
    }
  }

  // Exact beats everything; along the registered paths that begin the URI, a fitting suffix
  // replaces whatever was found above and a prefix counts where its path has no fitting suffix;
  // a prefix found last beats a suffix found earlier.
  static std::string matchTree(const Tree& tree, const std::string& uri) {
    std::string prefix;
    std::string suffix;
    for (size_t len = 1; len <= uri.size(); ++len) {
      auto it = tree.find(uri.substr(0, len));
      if (it == tree.end()) continue;
      const ModelEntry& e = it->second;
      if (len == uri.size() && !e.exact.empty()) return e.exact;
      const std::string* best = nullptr;
      size_t bestLen = 0;
      for (const auto& s : e.suffixes) {
        bool fits = s.first.size() <= uri.size() &&
                    uri.compare(uri.size() - s.first.size(), s.first.size(), s.first) == 0;
        if (fits && (best == nullptr || s.first.size() > bestLen)) {
          best = &s.second;
          bestLen = s.first.size();
        }
      }
      if (best != nullptr) {
        suffix = *best;
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
class Random {
 public:
  explicit Random(uint32_t seed) : engine_(seed) {}
  size_t below(size_t n) { return static_cast<size_t>(engine_() % n); }
  bool chance(size_t percent) { return below(100) < percent; }
  std::string text(size_t maxLen) {
    // Few letters and many slashes and dots, so paths share prefixes and suffixes often.
    static const char kAlphabet[] = "//ab.cj";
    std::string s;
    for (size_t n = below(maxLen + 1); n > 0; --n) s += kAlphabet[below(sizeof kAlphabet - 1)];
    return s;
  }

 private:
  std::mt19937 engine_;
};

std::string randomPattern(Random& r) {
  std::string head = (r.chance(85) ? "/" : "") + r.text(6);
  switch (r.below(10)) {
    case 0:
    case 1:
    case 2:
      return head;  // exact
    case 3:
    case 4:
      return head + "/*";
    case 5:
      return head + "*";
    case 6:
    case 7:
      return head + "*." + r.text(2);
    case 8:
      return "*." + r.text(3);
    default:
      return r.chance(50) ? head + "*" + r.text(2) + "*" : "";  // invalid: ignored by both
  }
}

std::string randomUri(Random& r, const std::vector<std::string>& patterns) {
  if (!patterns.empty() && r.chance(70)) {
    std::string u = patterns[r.below(patterns.size())];
    size_t star = u.find('*');
    if (star != std::string::npos) u.replace(star, 1, r.text(4));
    if (r.chance(30)) u += r.text(3);
    if (r.chance(20) && !u.empty()) u.pop_back();
    return u;
  }
  return (r.chance(90) ? "/" : "") + r.text(10);
}

std::string randomTarget(Random& r, size_t i) {
  if (r.chance(5)) return "genApp_" + std::string(kyr::DEFAULT_TARGET_NAME) + std::to_string(i);
  if (r.chance(15)) return "genApp" + std::to_string(i);
  return "t" + std::to_string(i);
}

class URIMatcherProperty : public kyrtest::MappingTest {};

TEST_F(URIMatcherProperty, TreeAgreesWithTheModelOnRandomPatternsAndUris) {
  int compared = 0;
  int matched = 0;
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    Random r(seed);
    Model model;
    kyr::URIMatcher* matcher = kyr::URIMatcherCreate(&ri_, "property");
    std::vector<std::string> patterns;
    std::vector<std::string> names;  // the targets must outlive the matcher
    size_t count = 1 + r.below(40);
    names.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      patterns.push_back(randomPattern(r));
      names.push_back(randomTarget(r, i));
    }
    for (size_t i = 0; i < count; ++i) {
      std::string pattern = patterns[i];
      if (r.chance(3)) pattern = "/*";  // now and then a catch-all candidate
      model.put(pattern, names[i]);
      kyr::URIMatcherPut(matcher, pattern.c_str(), target(names[i].c_str()), false);
    }
    for (int u = 0; u < 300; ++u) {
      std::string uri = randomUri(r, patterns);
      std::string expected = model.match(uri);
      std::string got = text(kyr::URIMatcherMatch(matcher, uri.c_str(), nullptr));
      ++compared;
      matched += expected != "null" ? 1 : 0;
      ASSERT_EQ(got, expected) << "seed " << seed << ", uri '" << uri << "'";
    }
    kyr::URIMatcherDelete(matcher);
  }
  // The generator must keep hitting patterns, or the comparison says little.
  EXPECT_GT(matched, compared / 3);
}

}  // namespace
