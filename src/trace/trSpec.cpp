// Trace specifications: parsing "name:LEVEL,..." into one byte per record, reference counting,
// and the process-wide death row that delays freeing a dropped specification by a grace time.
#include "trace/trSpec.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"
#include "trace/trGroup.h"
#include "trace/trMgr.h"

namespace kyr {

namespace {

// Specifications whose count fell below 1, oldest death first. Guarded by g_deathRowLock. Made
// by initTr before any other library thread exists and destroyed only by trDestroy.
KyrList* g_deathRow = nullptr;
KyrLock* g_deathRowLock = nullptr;

void specFree(TrSpec* spec) {
  spec->~TrSpec();
  kyrFree(spec);
}

void setRecordLevel(TrSpec* spec, const TrRecord* rec, unsigned char level) {
  if (rec->index >= 0 && rec->index < spec->levelCount) trSpecLevels(spec)[rec->index] = level;
}

// Walks the live lists rather than the cached child arrays: they are always complete, and
// reading them needs no lock because the tree is read-only once the catalogue is read.
void setGroupLevel(TrSpec* spec, const TrGroup* group, unsigned char level) {
  for (KyrListEle* e = kyrListGetHead(group->records); e != nullptr; e = kyrListGetNext(e)) {
    setRecordLevel(spec, static_cast<TrRecord*>(kyrListEleGetObject(e)), level);
  }
  for (KyrListEle* e = kyrListGetHead(group->groups); e != nullptr; e = kyrListGetNext(e)) {
    setGroupLevel(spec, static_cast<TrGroup*>(kyrListEleGetObject(e)), level);
  }
}

// Applies one item ("name", "name:LEVEL", ":LEVEL" or ""), cutting `item` in place. False, after
// the message on standard output, when the level or the name is unknown.
bool applyItem(TrMgr* mgr, TrSpec* spec, char* item) {
  int level = TR_LEVEL_WARNING;
  if (char* colon = strchr(item, ':'); colon != nullptr) {
    *colon = '\0';
    level = trLevelNameToIndex(colon + 1);
    if (level < 0) {
      printf("INVALID trace spec level name: '%s'\n", colon + 1);
      return false;
    }
  }
  auto byte = static_cast<unsigned char>(level);
  if (*item == '\0') {
    // An empty name means every group, so an empty item (a trailing comma) resets everything
    // to WARNING whatever came before it: deliberate, the empty item is applied like any other.
    KyrHashIterator hi;
    for (kyrHashIteratorStart(mgr->groupMap, &hi); kyrHashNext(&hi) != nullptr;) {
      setGroupLevel(spec, static_cast<TrGroup*>(kyrHashThisVal(&hi)), byte);
    }
    return true;
  }
  if (auto* group = static_cast<TrGroup*>(kyrHashGet(mgr->groupMap, item)); group != nullptr) {
    setGroupLevel(spec, group, byte);
    return true;
  }
  if (auto* rec = static_cast<TrRecord*>(kyrHashGet(mgr->recordMap, item)); rec != nullptr) {
    setRecordLevel(spec, rec, byte);
    return true;
  }
  printf("INVALID trace spec group or record name: '%s'\n", item);
  return false;
}

}  // namespace

void trSpecDeathRowInit() {
  if (g_deathRow != nullptr) return;
  g_deathRowLock = kyrLockCreate("trSpecDeathRowLock");
  g_deathRow = kyrListCreate(nullptr);
}

int trSpecDeathRowCount() {
  if (g_deathRow == nullptr) return 0;
  KyrLockGuard guard(g_deathRowLock, "trSpecDeathRowCount");
  return kyrListGetCount(g_deathRow);
}

void trSpecAddToSpecDeathRow(TrSpec* spec) {
  if (spec == nullptr) return;
  if (g_deathRow == nullptr) {
    // No catalogue was read (or trDestroy ran), so there is no row to wait on.
    specFree(spec);
    return;
  }
  {
    KyrLockGuard guard(g_deathRowLock, "trSpecAddToSpecDeathRow");
    spec->timeOfDeath = kyrGetCurrentTime();
    // A specification released, re-obtained and released again before a sweep took it off is
    // queued once, at its newest death, so that the row stays in order of death and no
    // specification is freed twice.
    kyrListFindAndRemove(g_deathRow, spec);
    kyrListAddTail(g_deathRow, spec);
  }
  trCleanUpDeathRow();
}

void trCleanUpDeathRow() {
  if (g_deathRow == nullptr) return;
  KyrLockGuard guard(g_deathRowLock, "trCleanUpDeathRow");
  while (KyrListEle* ele = kyrListGetHead(g_deathRow)) {
    auto* spec = static_cast<TrSpec*>(kyrListEleGetObject(ele));
    if (spec->refCount.load() >= 1) {
      kyrListRemove(g_deathRow, ele);  // back in use: its holder will release it again
      continue;
    }
    // The row is in order of death, so the first one still within its grace ends the sweep.
    if (kyrTimeElapsedMilliSeconds(spec->timeOfDeath) <= kTrSpecDeathRowTime) break;
    kyrListRemove(g_deathRow, ele);
    specFree(spec);
  }
}

void trPurgeDeathRow() {
  if (g_deathRow == nullptr) return;
  KyrLockGuard guard(g_deathRowLock, "trPurgeDeathRow");
  while (auto* spec = static_cast<TrSpec*>(kyrListRemoveHead(g_deathRow))) {
    // One that was obtained again is still in use; it only leaves the row, as in a sweep.
    if (spec->refCount.load() < 1) specFree(spec);
  }
}

void trKillSpec(TrSpec* spec) {
  if (spec == nullptr) return;
  if (g_deathRow != nullptr) {
    KyrLockGuard guard(g_deathRowLock, "trKillSpec");
    kyrListFindAndRemove(g_deathRow, spec);
  }
  spec->refCount.store(0);
  specFree(spec);
}

void trDestroy() {
  trPurgeDeathRow();
  kyrListDestroy(g_deathRow);
  kyrLockDestroy(g_deathRowLock);
  g_deathRow = nullptr;
  g_deathRowLock = nullptr;
}

}  // namespace kyr

extern "C" {

TrSpec* trSpecCreate(TrMgr* mgr, const char* traceSpec) {
  if (mgr == nullptr) return nullptr;
  int count = mgr->recordCount;
  void* block = kyr::kyrMalloc(sizeof(TrSpec) + static_cast<size_t>(count));
  if (block == nullptr) return nullptr;
  auto* spec = new (block) TrSpec;
  spec->levelCount = count;
  memset(kyr::trSpecLevels(spec), 255, static_cast<size_t>(count));  // everything enabled
  if (traceSpec == nullptr) return spec;

  // Items are cut at every comma, empty ones included, and applied left to right; white space
  // is part of the names and level names.
  char* copy = kyr::kyrStrdup(traceSpec);
  bool ok = true;
  for (char* item = copy; ok;) {
    char* comma = strchr(item, ',');
    if (comma != nullptr) *comma = '\0';
    ok = kyr::applyItem(mgr, spec, item);
    if (comma == nullptr) break;
    item = comma + 1;
  }
  kyr::kyrFree(copy);
  if (!ok) {
    kyr::specFree(spec);
    return nullptr;
  }
  return spec;
}

int trSpecRefObtain(TrSpec* spec) {
  if (spec == nullptr) return -1;
  return ++spec->refCount;
}

int trSpecRefRelease(TrSpec* spec) {
  if (spec == nullptr) return -1;
  int count = --spec->refCount;
  if (count < 1) kyr::trSpecAddToSpecDeathRow(spec);
  return count;
}

}  // extern "C"
