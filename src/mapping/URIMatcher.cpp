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
#include "runtime/kyrPublish.h"
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

// Child arrays hold the pointers and, behind them, the first character of each child's name.
Node** allocChildren(int count) {
  size_t n = static_cast<size_t>(count);
  return static_cast<Node**>(malloc(n * sizeof(Node*) + n + 1));
}

Node* nodeCreate(std::string_view name, unsigned epoch) {
  // One counted block: the node, then its name (kyrMalloc zero-fills, so it is terminated).
  auto* node = new (kyrMalloc(sizeof(Node) + name.size() + 1)) Node();
  node->name = reinterpret_cast<char*>(node + 1);
  memcpy(node->name, name.data(), name.size());
  node->nameLen = static_cast<int>(name.size());
  node->origin = ORIGIN_UNSPECIFIED;
  node->epoch = epoch;
  return node;
}

Suffix* suffixCreate(Node* node, const char* text, void* target) {
  auto* suffix = kyrNew<Suffix>();
  suffix->node = node;
  suffix->suffix = kyrStrdup(text);
  suffix->suffixLen = static_cast<int>(strlen(text));
  suffix->target = target;
  return suffix;
}

// The node alone: its block, its child array and its suffixes, not the children.
void nodeFreeShallow(void* object) {
  auto* node = static_cast<Node*>(object);
  for (Suffix** s = node->suffixes; s != nullptr && *s != nullptr; ++s) {
    kyrFree((*s)->suffix);
    kyrDelete(*s);
  }
  free(node->suffixes);
  free(node->children);
  kyrFree(node);
}

void nodeFreeDeep(Node* node) {
  for (int i = 0; i < node->childCount; ++i) nodeFreeDeep(node->children[i]);
  nodeFreeShallow(node);
}

size_t nodeBytes(const Node* node) {
  return sizeof(Node) + static_cast<size_t>(node->nameLen) + 1 +
         static_cast<size_t>(node->childCount) * (sizeof(Node*) + 1);
}

// A copy that shares the children but has arrays and suffixes of its own.
Node* nodeCopy(const Node* node, unsigned epoch) {
  Node* copy = nodeCreate(std::string_view(node->name, node->nameLen), epoch);
  copy->exactTarget = node->exactTarget;
  copy->prefixTarget = node->prefixTarget;
  copy->origin = node->origin;
  copy->childCount = node->childCount;
  if (node->childCount > 0) {
    copy->children = allocChildren(node->childCount);
    copy->childFirstChars = reinterpret_cast<char*>(copy->children + copy->childCount);
    memcpy(copy->children, node->children, static_cast<size_t>(node->childCount) * sizeof(Node*));
    memcpy(copy->childFirstChars, node->childFirstChars, static_cast<size_t>(node->childCount));
  }
  if (node->suffixes != nullptr) {
    size_t count = 0;
    while (node->suffixes[count] != nullptr) ++count;
    copy->suffixes = static_cast<Suffix**>(calloc(count + 1, sizeof(Suffix*)));
    for (size_t i = 0; i < count; ++i) {
      const Suffix* s = node->suffixes[i];
      copy->suffixes[i] = suffixCreate(copy, s->suffix, s->target);
    }
  }
  return copy;
}

// The builder's own version of a node: itself when made in this epoch, else a copy, with the
// original kept for retiring at the next publish.
Node* own(URIMatcher* matcher, Node* node) {
  if (node->epoch == matcher->epoch) return node;
  Node* copy = nodeCopy(node, matcher->epoch);
  kyrListAddTail(matcher->replaced, node);
  return copy;
}

Node* ownChild(URIMatcher* matcher, Node* parent, int index) {
  Node* child = own(matcher, parent->children[index]);
  parent->children[index] = child;
  return child;
}

// Appends a child to a node of the current epoch, whose arrays are its own.
void addChild(Node* parent, Node* child) {
  Node** children = allocChildren(parent->childCount + 1);
  char* firstChars = reinterpret_cast<char*>(children + parent->childCount + 1);
  size_t count = static_cast<size_t>(parent->childCount);
  if (count > 0) {
    memcpy(children, parent->children, count * sizeof(Node*));
    memcpy(firstChars, parent->childFirstChars, count);
  }
  children[count] = child;
  firstChars[count] = child->name[0];
  free(parent->children);
  parent->children = children;
  parent->childFirstChars = firstChars;
  ++parent->childCount;
}

void removeChild(Node* parent, int index) {
  int count = parent->childCount - 1;
  Node** children = count > 0 ? allocChildren(count) : nullptr;
  char* firstChars = children != nullptr ? reinterpret_cast<char*>(children + count) : nullptr;
  for (int from = 0, to = 0; from <= count; ++from) {
    if (from == index) continue;
    children[to] = parent->children[from];
    firstChars[to++] = parent->childFirstChars[from];
  }
  free(parent->children);
  parent->children = children;
  parent->childFirstChars = firstChars;
  parent->childCount = count;
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

// The child at index (of the builder's own parent, and itself the builder's own) shares its
// first `common` characters with the path: a new node of those characters takes its place at
// the end of the parent's children and holds the child, renamed to the rest, below it.
Node* splitNode(URIMatcher* matcher, Node* parent, int index, int common) {
  Node* child = parent->children[index];
  removeChild(parent, index);
  Node* mid = nodeCreate(std::string_view(child->name, common), matcher->epoch);
  child->nameLen -= common;
  memmove(child->name, child->name + common, static_cast<size_t>(child->nameLen) + 1);
  addChild(mid, child);
  addChild(parent, mid);
  debugInternal("URIMatcher: split '%s' + '%s'\n", mid->name, child->name);
  return mid;
}

// The builder's node whose path from the root is exactly `path`, created (splitting as needed)
// if absent. Every node on the way becomes the builder's own.
Node* nodeForPath(URIMatcher* matcher, Node* tree, std::string_view path) {
  Node* current = tree;
  size_t offset = 0;
  bool descend = true;
  while (descend) {
    descend = false;
    for (int i = 0; i < current->childCount; ++i) {
      int len = getMatchLen(current->children[i], path, offset);
      if (len == 0) continue;
      offset += len;
      Node* child = ownChild(matcher, current, i);
      if (len == child->nameLen) {
        current = child;
        descend = true;
      } else {
        current = splitNode(matcher, current, i, len);
      }
      break;
    }
  }
  if (offset < path.size()) {
    Node* leaf = nodeCreate(path.substr(offset), matcher->epoch);
    addChild(current, leaf);
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
  size_t count = 0;
  for (Suffix** s = node->suffixes; s != nullptr && *s != nullptr; ++s, ++count) {
    if (suffixText == (*s)->suffix) {
      if ((*s)->target == nullptr) (*s)->target = target;
      return;
    }
  }
  auto** suffixes = static_cast<Suffix**>(calloc(count + 2, sizeof(Suffix*)));
  if (count > 0) memcpy(suffixes, node->suffixes, count * sizeof(Suffix*));
  suffixes[count] = suffixCreate(node, suffixText.c_str(), target);
  free(node->suffixes);
  node->suffixes = suffixes;
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

  Node* node = nodeForPath(matcher, tree, path);
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
  if (target != nullptr && kyrPublished(matcher->targetKind) == URITargetKind::WebModule) {
    text = wmGetName(static_cast<WebModule*>(target));
  }
  return text != nullptr ? text : "null";
}

void addNodeInfo(const URIMatcher* matcher, const Node* node, size_t depth, KyrStringBuffer* sb) {
  for (int i = 0; i < node->childCount; ++i) {
    const Node* child = node->children[i];
    std::string line = "\n";
    line.append(2 * (depth + 1), ' ').append("chars='").append(child->name).append("'");
    if (child->exactTarget != nullptr) {
      line.append(" exact=").append(targetText(matcher, child->exactTarget));
    }
    if (child->prefixTarget != nullptr) {
      line.append(" prefix=").append(targetText(matcher, child->prefixTarget));
    }
    if (child->suffixes != nullptr && child->suffixes[0] != nullptr) {
      line.append(" suffixes=(");
      for (Suffix** s = child->suffixes; *s != nullptr; ++s) {
        if (s != child->suffixes) line.append(",");
        line.append((*s)->suffix).append("->").append(targetText(matcher, (*s)->target));
      }
      line.append(")");
    }
    sbAdd(sb, line.c_str());
    addNodeInfo(matcher, child, depth + 1, sb);
  }
}

void uriTreesFree(void* trees) { kyrDelete(static_cast<URITrees*>(trees)); }

void replacedNodesFree(void* list) { kyrListDestroy(static_cast<KyrList*>(list)); }

}  // namespace

URIMatcher* URIMatcherCreate(KyrRoutingInfo* ri, const char* name) {
  auto* matcher = kyrNew<URIMatcher>();
  matcher->ri = ri;
  matcher->name = kyrStrdup(name != nullptr ? name : "");
  matcher->epoch = 1;
  matcher->genAppTree = nodeCreate("", matcher->epoch);
  matcher->realAppTree = nodeCreate("", matcher->epoch);
  matcher->replaced = kyrListCreate(nodeFreeShallow);
  matcher->changed = true;
  URIMatcherPublish(matcher);
  TrMgr* mgr = ri->kyr->trMgr;
  matcher->trCtx = trMgrGetDefaultContext(mgr);
  matcher->debugCtl = trRecordGet(mgr, "control.mapper");
  matcher->debugReq = trRecordGet(mgr, "http.request.map.url");
  return matcher;
}

void URIMatcherDelete(URIMatcher* matcher) {
  if (matcher == nullptr) return;
  // The builder's trees reach every node the published ones do except those replaced since.
  nodeFreeDeep(matcher->genAppTree);
  nodeFreeDeep(matcher->realAppTree);
  kyrListDestroy(matcher->replaced);
  kyrDelete(const_cast<URITrees*>(matcher->published));
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
  // Request threads read it for their trace text; it is set once, by the first put.
  if (matcher->targetKind != kind) kyrPublish(matcher->targetKind, kind);

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

  matcher->changed = true;
  if (!generic) {
    matcher->realAppTree = own(matcher, matcher->realAppTree);
    putPatternInternal(matcher, matcher->realAppTree, patternStr, targetObj, ORIGIN_USER);
  } else if (strcmp(patternStr, "/*") == 0 && kyrIndexOfString(name, DEFAULT_TARGET_NAME) > 0) {
    trDebug(matcher->trCtx, matcher->debugCtl, "put: Destined for catchAllTarget.\n");
    matcher->catchAllTarget = targetObj;
  } else {
    matcher->genAppTree = own(matcher, matcher->genAppTree);
    putPatternInternal(matcher, matcher->genAppTree, patternStr, targetObj, ORIGIN_USER);
  }
}

void URIMatcherPublish(URIMatcher* matcher) {
  if (!matcher->changed) return;
  auto* trees = kyrNew<URITrees>();
  *trees = URITrees{matcher->genAppTree, matcher->realAppTree, matcher->catchAllTarget};
  const URITrees* old = kyrPublishExchange(matcher->published, static_cast<const URITrees*>(trees));
  // Requests that loaded the old trees may still walk them: what only they reach goes with the
  // version.
  size_t bytes = sizeof(URITrees);
  for (KyrListEle* e = kyrListGetHead(matcher->replaced); e != nullptr; e = kyrListGetNext(e)) {
    bytes += nodeBytes(static_cast<const Node*>(kyrListEleGetObject(e)));
  }
  kyrRoutingInfoRetire(matcher->ri, const_cast<URITrees*>(old), uriTreesFree, bytes);
  if (kyrListIsEmpty(matcher->replaced)) {
    kyrListDestroy(matcher->replaced);
  } else {
    kyrRoutingInfoRetire(matcher->ri, matcher->replaced, replacedNodesFree, 0);
  }
  matcher->replaced = kyrListCreate(nodeFreeShallow);
  ++matcher->epoch;
  matcher->changed = false;
}

void* URIMatcherMatch(const URIMatcher* matcher, const char* uri, KyrHttpContext* ctx) {
  if (uri == nullptr) return nullptr;
  std::string withSlash;  // only for the rare URI that does not begin with "/"
  std::string_view view = uri;
  if (!view.empty() && view[0] != '/') {
    withSlash = std::string("/") + uri;
    view = withSlash;
  }
  const URITrees* trees = kyrPublished(matcher->published);
  void* target = matchPattern(trees->genAppTree, view);
  if (target == nullptr) target = matchPattern(trees->realAppTree, view);
  if (target == nullptr) target = trees->catchAllTarget;
  trDebug(requestTrContext(ctx, matcher->trCtx), matcher->debugReq,
          "URIMatcherMatch: %s: uri=%s target=%s\n", matcher->name, uri,
          targetText(matcher, target));
  return target;
}

void URIMatcherAddInfo(const URIMatcher* matcher, KyrStringBuffer* sb) {
  const URITrees* trees = kyrPublished(matcher->published);
  sbAdd(sb, "\ngenAppTree:");
  addNodeInfo(matcher, trees->genAppTree, 0, sb);
  sbAdd(sb, "\nrealAppTree:");
  addNodeInfo(matcher, trees->realAppTree, 0, sb);
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
