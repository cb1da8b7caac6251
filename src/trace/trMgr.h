// The trace manager: owner of the group tree, the record and message registries, the level names
// and the default context. Groups, records, specifications and contexts live in their own files;
// trCatalogue fills the manager from the catalogue file while trMgrCreate runs.
#pragma once

#include "runtime/kyrHash.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "tr.h"

struct TrMgr {
  TrPrintf printf;              // the host's print callback; while null, messages are dropped
  kyr::KyrList* elements;       // stack of open catalogue elements (TrElement), read time only
  TrGroup* rootGroup;           // named "", path ""; owns the top-level groups
  kyr::KyrHashMap* groupMap;    // group path -> group; keys are owned by the groups
  kyr::KyrHashMap* recordMap;   // record path (or message id) -> record; holds one reference each
  kyr::KyrHashMap* messageMap;  // message id -> TrMessage; owns the messages
  int recordCount;              // records made so far; also the next record's index
  unsigned transactionCount;
  kyr::KyrLock* lock;  // guards the lazily built child arrays of every group
  TrContext* defaultContext;
};

namespace kyr {

inline constexpr int kTrLevelCount = 9;

// "parent.child" as a plain (malloc) text, released with free. Null parts count as empty.
char* makePath(const char* parentName, const char* childName);

// Plain copy of a path text (null for null): paths are plain texts because makePath makes them.
char* trPathCopy(const char* path);

// Registers a group under the text it was declared with (its key).
void trMgrPutGroup(TrMgr* mgr, TrGroup* group);

}  // namespace kyr
