// The URI pattern matcher's trees: registration with companion patterns and node splitting,
// matching with its precedence (exact, then the deepest prefix or suffix along the URI's path),
// the text dump and the joining of context roots to patterns. The self-test is URIMatcherTest.cpp.
#include "mapping/URIMatcher.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "core/kyrRoutingInfo.h"
#include "mapping/kyrRequestMapper.h"
#include "mapping/mapTrace.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {

namespace {

// Turns on printf tracing of every registration and match step while working on the tree.
constexpr bool DEBUG_URI_INTERNAL = false;

template <class... Args>
void debugInternal(const char* fmt, Args... args) {
  if constexpr (DEBUG_URI_INTERNAL) printf(fmt, args...);
}

enum class PatternKind { Exact, Prefix, Suffix };

void nodeFree(void* object);
void suffixFree(void* object);

Node* nodeCreate(std::string_view name, int depth) {
  // One counted block: the node, then its name (kyrMalloc zero-fills, so it is terminated).
  auto* node = new (kyrMalloc(sizeof(Node) + name.size() + 1)) Node();
  node->depth = depth;
  node->name = reinterpret_cast<char*>(node + 1);
  memcpy(node->name, name.data(), name.size());
  node->nameLen = static_cast<int>(name.size());
  node->origin = ORIGIN_UNSPECIFIED;
  node->childList = kyrListCreate(nodeFree);
  node->suffixList = kyrListCreate(suffixFree);
  return node;
}

void nodeFree(void* object) {
  auto* node = static_cast<Node*>(object);
  kyrListDestroy(node->childList);
  kyrListDestroy(node->suffixList);
  free(node->children);
  free(node->suffixes);
  kyrFree(node);
}

void suffixFree(void* object) {
  auto* suffix = static_cast<Suffix*>(object);
  kyrFree(suffix->suffix);
  kyrDelete(suffix);
}

void rebuildChildren(Node* node) {
  free(node->children);
  size_t count = static_cast<size_t>(kyrListGetCount(node->childList));
  node->children = static_cast<Node**>(malloc(count * sizeof(Node*) + count));
  node->childFirstChars = reinterpret_cast<char*>(node->children + count);
  node->childCount = static_cast<int>(count);
  int i = 0;
  for (KyrListEle* ele = kyrListGetHead(node->childList); ele != nullptr;
       ele = kyrListGetNext(ele), ++i) {
    node->children[i] = static_cast<Node*>(kyrListEleGetObject(ele));
    node->childFirstChars[i] = node->children[i]->name[0];
  }
}

void rebuildSuffixes(Node* node) {
  free(node->suffixes);
  node->suffixes = reinterpret_cast<Suffix**>(kyrListCreateArray(node->suffixList));
}

void setDepth(Node* node, int depth) {
  node->depth = depth;
  for (int i = 0; i < node->childCount; ++i) setDepth(node->children[i], depth + 1);
}

// Equal leading characters of a node's name and the path from offset.
int getMatchLen(const Node* node, std::string_view path, size_t offset) {
  int len = 0;
  while (len < node->nameLen && offset + len < path.size() &&
         node->name[len] == path[offset + len]) {
    ++len;
  }
  return len;
}

// child shares its first `common` characters with the path: a new node of those characters
// takes its place under parent and holds the child, renamed to the rest, below it.
Node* splitNode(Node* parent, Node* child, int common) {
  kyrListFindAndRemove(parent->childList, child);
  Node* mid = nodeCreate(std::string_view(child->name, common), parent->depth + 1);
  kyrListAddTail(parent->childList, mid);
  child->nameLen -= common;
  memmove(child->name, child->name + common, static_cast<size_t>(child->nameLen) + 1);
  kyrListAddTail(mid->childList, child);
  setDepth(child, mid->depth + 1);
  rebuildChildren(parent);
  rebuildChildren(mid);
  debugInternal("URIMatcher: split '%s' + '%s'\n", mid->name, child->name);
  return mid;
}

// The node whose path from the root is exactly `path`, created (splitting as needed) if absent.
Node* nodeForPath(Node* tree, std::string_view path) {
  Node* current = tree;
  size_t offset = 0;
  bool descend = true;
  while (descend) {
    descend = false;
    for (int i = 0; i < current->childCount; ++i) {
      Node* child = current->children[i];
      int len = getMatchLen(child, path, offset);
      if (len == 0) continue;
      offset += len;
      if (len == child->nameLen) {
        current = child;
        descend = true;
      } else {
        current = splitNode(current, child, len);
      }
      break;
    }
  }
  if (offset < path.size()) {
    Node* leaf = nodeCreate(path.substr(offset), current->depth + 1);
    kyrListAddTail(current->childList, leaf);
    rebuildChildren(current);
    current = leaf;
  }
  return current;
}

// Two user patterns for one URI: the first stays. A companion gives way to a user pattern.
void putExactTarget(Node* node, void* target, int origin) {
  if (node->exactTarget == nullptr || origin > node->origin) {
    node->exactTarget = target;
    node->origin = origin;
  }
}

void addSuffix(Node* node, const std::string& suffixText, void* target) {
  for (Suffix** s = node->suffixes; s != nullptr && *s != nullptr; ++s) {
    if (suffixText == (*s)->suffix) {
      if ((*s)->target == nullptr) (*s)->target = target;
      return;
    }
  }
  auto* suffix = kyrNew<Suffix>();
  suffix->node = node;
  suffix->suffix = kyrStrdup(suffixText.c_str());
  suffix->suffixLen = static_cast<int>(suffixText.size());
  suffix->target = target;
  kyrListAddTail(node->suffixList, suffix);
  rebuildSuffixes(node);
}

void putPatternInternal(URIMatcher* matcher, Node* tree, std::string pattern, void* target,
                        int origin);

// What a user pattern also registers, so that "/a/*" answers "/a" and "/a/", and "/a" answers
// "/a/". The companions carry a lower origin and make no companions of their own.
void putCompanions(URIMatcher* matcher, Node* tree, const std::string& pattern, size_t star,
                   void* target) {
  int derived = star == std::string::npos ? ORIGIN_AUTO_EXACT : ORIGIN_AUTO;
  size_t len = pattern.size();
  if (len >= 2 && pattern.compare(len - 2, 2, "/*") == 0) {
    putPatternInternal(matcher, tree, pattern.substr(0, len - 1), target, derived);
    if (len > 2) putPatternInternal(matcher, tree, pattern.substr(0, len - 2), target, derived);
  } else if (len > 1 && pattern.back() == '/') {
    putPatternInternal(matcher, tree, pattern.substr(0, len - 1), target, derived);
  } else {
    size_t tail = star == std::string::npos ? 0 : star + 1;
    if (pattern.find('.', tail) == std::string::npos) {
      putPatternInternal(matcher, tree, pattern + "/", target, derived);
    }
  }
}

void putPatternInternal(URIMatcher* matcher, Node* tree, std::string pattern, void* target,
                        int origin) {
  if (!pattern.empty() && pattern[0] != '/') pattern.insert(0, 1, '/');
  debugInternal("URIMatcher: put '%s' origin=%d\n", pattern.c_str(), origin);
  size_t star = pattern.find('*');
  if (origin == ORIGIN_USER) putCompanions(matcher, tree, pattern, star, target);

  PatternKind kind = PatternKind::Exact;
  std::string_view path = pattern;
  std::string suffix;
  if (star != std::string::npos) {
    path = path.substr(0, star);
    if (star + 1 == pattern.size()) {
      kind = PatternKind::Prefix;
    } else {
      kind = PatternKind::Suffix;
      suffix = pattern.substr(star + 1);
    }
  }

  Node* node = nodeForPath(tree, path);
  if (kind == PatternKind::Suffix) {
    addSuffix(node, suffix, target);
  } else if (target != nullptr && kind == PatternKind::Exact) {
    putExactTarget(node, target, origin);
  } else if (target != nullptr) {
    if (node->prefixTarget == nullptr) node->prefixTarget = target;  // the first one stays
  } else {
    trDebug(matcher->trCtx, matcher->debugCtl,
            "putPatternInternal: Illegal State : NOT_EXACT_PREFIX_SUFFIX.\n");
  }
}

// Non-null, non-empty, and at most one "*".
bool validate(const char* pattern) {
  if (pattern == nullptr || *pattern == '\0') return false;
  return strchr(pattern, '*') == strrchr(pattern, '*');
}

// The longest of the node's suffixes that the URI ends with; the earlier one on equal length.
const Suffix* longestSuffix(const Node* node, std::string_view uri) {
  const Suffix* best = nullptr;
  for (Suffix** s = node->suffixes; s != nullptr && *s != nullptr; ++s) {
    const Suffix* cand = *s;
    if (static_cast<size_t>(cand->suffixLen) > uri.size()) continue;
    if (best != nullptr && cand->suffixLen <= best->suffixLen) continue;
    if (memcmp(uri.data() + uri.size() - cand->suffixLen, cand->suffix, cand->suffixLen) == 0) {
      best = cand;
    }
  }
  return best;
}

// Follows the URI down one tree. Children start with different characters, so at most one can
// continue the URI; when it continues only part of the way the walk stops there (no looking
// at siblings). Along the way a matching suffix replaces whatever was found above, and a prefix
// counts where the same node has no matching suffix.
void* matchPattern(const Node* tree, std::string_view uri) {
  const Node* node = tree;
  size_t offset = 0;
  void* prefixCandidate = nullptr;
  void* suffixCandidate = nullptr;
  while (offset < uri.size()) {
    int i = 0;
    while (i < node->childCount && node->childFirstChars[i] != uri[offset]) ++i;
    if (i == node->childCount) break;
    const Node* child = node->children[i];
    if (getMatchLen(child, uri, offset) < child->nameLen) break;
    offset += child->nameLen;
    debugInternal("URIMatcher: match reached '%s' at %zu\n", child->name, offset);
    if (child->exactTarget != nullptr && offset == uri.size()) return child->exactTarget;
    if (const Suffix* suffix = longestSuffix(child, uri)) {
      suffixCandidate = suffix->target;
      prefixCandidate = nullptr;
    } else if (child->prefixTarget != nullptr) {
      prefixCandidate = child->prefixTarget;
    }
    node = child;
  }
  return prefixCandidate != nullptr ? prefixCandidate : suffixCandidate;
}

const char* targetText(const URIMatcher* matcher, void* target) {
  const char* text = static_cast<const char*>(target);
  if (target != nullptr && matcher->targetKind == URITargetKind::WebModule) {
    text = wmGetName(static_cast<WebModule*>(target));
  }
  return text != nullptr ? text : "null";
}

void addNodeInfo(const URIMatcher* matcher, const Node* node, KyrStringBuffer* sb) {
  for (int i = 0; i < node->childCount; ++i) {
    const Node* child = node->children[i];
    std::string line = "\n" + std::string(2 * static_cast<size_t>(child->depth), ' ');
    line += "chars='" + std::string(child->name) + "'";
    if (child->exactTarget != nullptr) {
      line += " exact=" + std::string(targetText(matcher, child->exactTarget));
    }
    if (child->prefixTarget != nullptr) {
      line += " prefix=" + std::string(targetText(matcher, child->prefixTarget));
    }
    if (child->suffixes != nullptr && child->suffixes[0] != nullptr) {
      line += " suffixes=(";
      for (Suffix** s = child->suffixes; *s != nullptr; ++s) {
        if (s != child->suffixes) line += ",";
        line += std::string((*s)->suffix) + "->" + targetText(matcher, (*s)->target);
      }
      line += ")";
    }
    sbAdd(sb, line.c_str());
    addNodeInfo(matcher, child, sb);
  }
}

}  // namespace

URIMatcher* URIMatcherCreate(KyrRoutingInfo* ri, const char* name) {
  auto* matcher = kyrNew<URIMatcher>();
  matcher->ri = ri;
  matcher->name = kyrStrdup(name != nullptr ? name : "");
  matcher->genAppTree = nodeCreate("", 0);
  matcher->realAppTree = nodeCreate("", 0);
  TrMgr* mgr = ri->kyr->trMgr;
  matcher->trCtx = trMgrGetDefaultContext(mgr);
  matcher->debugCtl = trRecordGet(mgr, "control.mapper");
  matcher->debugReq = trRecordGet(mgr, "http.request.map.url");
  return matcher;
}

void URIMatcherDelete(URIMatcher* matcher) {
  if (matcher == nullptr) return;
  nodeFree(matcher->genAppTree);
  nodeFree(matcher->realAppTree);
  kyrFree(matcher->name);
  kyrDelete(matcher);
}

void URIMatcherPut(URIMatcher* matcher, const char* patternStr, void* targetObj,
                   bool isTargetWebModule) {
  if (!validate(patternStr)) {
    trDebug(matcher->trCtx, matcher->debugCtl, "put: Invalid pattern String:%s has been ignored.\n",
            patternStr != nullptr ? patternStr : "null");
    return;
  }
  URITargetKind kind = isTargetWebModule ? URITargetKind::WebModule : URITargetKind::String;
  assert(matcher->targetKind == URITargetKind::Unknown || matcher->targetKind == kind);
  matcher->targetKind = kind;

  const char* name = nullptr;
  bool generic = false;
  if (targetObj != nullptr && isTargetWebModule) {
    name = wmGetName(static_cast<WebModule*>(targetObj));
    generic = name != nullptr && strstr(name, "/GenericApplication") != nullptr;
  } else if (targetObj != nullptr) {
    name = static_cast<const char*>(targetObj);
    generic = kyrStartsWith(name, "genApp");
  }
  trDebug(matcher->trCtx, matcher->debugCtl, "put: %s: pattern=%s target=%s generic=%d\n",
          matcher->name, patternStr, name != nullptr ? name : "null", generic ? 1 : 0);

  if (!generic) {
    putPatternInternal(matcher, matcher->realAppTree, patternStr, targetObj, ORIGIN_USER);
  } else if (strcmp(patternStr, "/*") == 0 && kyrIndexOfString(name, DEFAULT_TARGET_NAME) > 0) {
    trDebug(matcher->trCtx, matcher->debugCtl, "put: Destined for catchAllTarget.\n");
    matcher->catchAllTarget = targetObj;
  } else {
    putPatternInternal(matcher, matcher->genAppTree, patternStr, targetObj, ORIGIN_USER);
  }
}

void* URIMatcherMatch(const URIMatcher* matcher, const char* uri, KyrHttpContext* ctx) {
  if (uri == nullptr) return nullptr;
  std::string withSlash;  // only for the rare URI that does not begin with "/"
  std::string_view view = uri;
  if (!view.empty() && view[0] != '/') {
    withSlash = std::string("/") + uri;
    view = withSlash;
  }
  void* target = matchPattern(matcher->genAppTree, view);
  if (target == nullptr) target = matchPattern(matcher->realAppTree, view);
  if (target == nullptr) target = matcher->catchAllTarget;
  trDebug(requestTrContext(ctx, matcher->trCtx), matcher->debugReq,
          "URIMatcherMatch: %s: uri=%s target=%s\n", matcher->name, uri,
          targetText(matcher, target));
  return target;
}

void URIMatcherAddInfo(const URIMatcher* matcher, KyrStringBuffer* sb) {
  sbAdd(sb, "\ngenAppTree:");
  addNodeInfo(matcher, matcher->genAppTree, sb);
  sbAdd(sb, "\nrealAppTree:");
  addNodeInfo(matcher, matcher->realAppTree, sb);
}

char* URIMatcherMakePattern(const char* ctxRoot, const char* uri) {
  bool noRoot = ctxRoot == nullptr || kyrStrCmpIgnoreCase(ctxRoot, "null") == 0;
  std::string pattern = noRoot ? "" : ctxRoot;
  const char* rest = uri != nullptr ? uri : "";
  if (!pattern.empty() && pattern.back() == '/') {
    if (*rest == '/') ++rest;
  } else if (*rest != '/') {
    pattern += '/';
  }
  pattern += rest;
  return kyrStrdup(pattern.c_str());
}

}  // namespace kyr
