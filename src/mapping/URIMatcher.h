// The URI pattern matcher: servlet-style patterns (exact "/a/b", prefix "/a/*", suffix "*.jsp")
// kept in two radix trees, one for generic applications and one for real ones, plus a catch-all
// target. A virtual host group (VHostMatcher.h) holds one per group; its targets are the request
// mapper's web modules, or plain strings in the self-test.
//
// Requests match without a lock while the routing data may still add patterns (a delta that
// links a module to a group). Puts therefore change a builder copy: a node that matching can
// reach is copied before it changes (only the nodes along the changed paths, once per batch), and
// URIMatcherPublish makes the builder's trees the ones matching walks with one atomic store and
// retires the nodes they replaced onto the version. Everything else about the matcher belongs to
// the control lock that document application holds.
#pragma once

#include "kyrlib.h"
#include "runtime/kyrList.h"
#include "runtime/kyrStringBuffer.h"

namespace kyr {

struct KyrRoutingInfo;

// Which kind of registration set a node's exact target. A higher origin replaces a lower one, so
// a pattern the user wrote takes over a slot that a companion of another pattern filled first.
inline constexpr int ORIGIN_UNSPECIFIED = -1;
inline constexpr int ORIGIN_AUTO = 0;        // companion of a pattern with a "*"
inline constexpr int ORIGIN_AUTO_EXACT = 5;  // companion of an exact pattern
inline constexpr int ORIGIN_USER = 10;

// A generic application's module whose name holds this text and that maps "/*" becomes the
// catch-all target.
inline constexpr const char* DEFAULT_TARGET_NAME = "Default_default_host_HTTP_WC";

struct Node;

struct Suffix {
  Node* node;  // the node it was added to; a copy of the node copies its suffixes too
  char* suffix;
  int suffixLen;
  void* target;
};

// One run of characters of the tree; siblings start with different characters. The fields a
// match reads come first so that they share one cache line; the name is stored right behind
// the node (it only ever shrinks, when the node is split). A node owns its children and its
// suffixes; there is no depth field, the dump counts levels as it walks.
struct Node {
  int nameLen;
  char* name;          // the characters this node adds to its parent's path
  void* exactTarget;   // for a URI that ends exactly here
  void* prefixTarget;  // for URIs that continue below here
  // One plain block so matching walks no list: the children in the order they were added, then
  // the first character of each child's name at the same index.
  Node** children;
  char* childFirstChars;
  int childCount;
  int origin;         // of exactTarget
  Suffix** suffixes;  // null-terminated; null while there are none
  // The matcher's epoch when this node was made or copied. Only a node of the current epoch
  // (which no published tree reaches yet) may change in place.
  unsigned epoch;
};

// What the targets of one matcher are; all registrations of a matcher use the same kind.
enum class URITargetKind { Unknown, String, WebModule };

// The trees and catch-all that matching reads: replaced whole, never changed.
struct URITrees {
  const Node* genAppTree;
  const Node* realAppTree;
  void* catchAllTarget;
};

struct URIMatcher {
  KyrRoutingInfo* ri;
  char* name;
  // The builder's trees: puts change them, copying published nodes first. They share every
  // unchanged node with the published trees and own all of them.
  Node* genAppTree;
  Node* realAppTree;
  void* catchAllTarget;
  const URITrees* published;  // what matching walks; stored and loaded atomically
  unsigned epoch;
  KyrList* replaced;  // published nodes the builder copied since the last publish, for retiring
  bool changed;       // puts since the last publish
  URITargetKind targetKind;
  TrContext* trCtx;
  TrRecord* debugCtl;  // "control.mapper"
  TrRecord* debugReq;  // "http.request.map.url"
};

URIMatcher* URIMatcherCreate(KyrRoutingInfo* ri, const char* name);
void URIMatcherDelete(URIMatcher* matcher);

// Registers a pattern for a target: a web module (the request mapper's WebModule; generic when
// its name holds "/GenericApplication") or, when isTargetWebModule is false, a string (generic
// when it starts with "genApp"). The target is borrowed. Invalid patterns (null, empty, more
// than one "*") are traced and ignored.
void URIMatcherPut(URIMatcher* matcher, const char* patternStr, void* targetObj,
                   bool isTargetWebModule);

// Makes the puts since the last publish visible to matching; a no-op without any. The control
// lock (or sole ownership of the matcher) is required, as for puts.
void URIMatcherPublish(URIMatcher* matcher);

// The target for a URI, or null: the generic tree first, then the real one, then the catch-all,
// as last published. Any thread; no lock. ctx (may be null) only chooses the trace context.
void* URIMatcherMatch(const URIMatcher* matcher, const char* uri, KyrHttpContext* ctx);

// Appends "\ngenAppTree:" and "\nrealAppTree:" with one line per node, depth first, of the
// published trees.
void URIMatcherAddInfo(const URIMatcher* matcher, KyrStringBuffer* sb);

// A context root joined to a URI pattern with exactly one "/" between them; a root that is null
// or "null" (any case) counts as empty. A new counted string.
char* URIMatcherMakePattern(const char* ctxRoot, const char* uri);

// The built-in self-test over fixed pattern rows; prints a PASS or FAIL line per URI (PASS lines
// only when traceLevel is above 0) and the totals on standard output. Returns the failures.
int URIMatcherTest(Kyr* kyr, int traceLevel);

}  // namespace kyr
