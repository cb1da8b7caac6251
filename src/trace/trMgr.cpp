// The trace manager's lifecycle and lookups, the level names, and the path helper shared by
// groups and records. Reading the catalogue is trCatalogue's job; trMgrCreate only drives it.
#include "trace/trMgr.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trCatalogue.h"
#include "trace/trContext.h"
#include "trace/trGroup.h"
#include "trace/trRecord.h"

namespace kyr {

namespace {

const char* const kLevelNames[kTrLevelCount] = {"OFF",     "EMERG",  "ALERT", "CRITICAL", "ERROR",
                                                "WARNING", "NOTICE", "INFO",  "DEBUG"};

void recordMapRelease(void* record) { trRecordDelete(static_cast<TrRecord*>(record)); }

}  // namespace

char* makePath(const char* parentName, const char* childName) {
  if (parentName == nullptr) parentName = "";
  if (childName == nullptr) childName = "";
  int length = snprintf(nullptr, 0, "%s.%s", parentName, childName);
  auto* path = static_cast<char*>(malloc(static_cast<size_t>(length) + 1));
  if (path != nullptr)
    snprintf(path, static_cast<size_t>(length) + 1, "%s.%s", parentName, childName);
  return path;
}

char* trPathCopy(const char* path) { return path != nullptr ? strdup(path) : nullptr; }

void trMgrPutGroup(TrMgr* mgr, TrGroup* group) {
  if (mgr == nullptr || group == nullptr || group->key == nullptr) return;
  // A second group declared with the same path takes the name over; the first stays in its
  // parent's tree, which owns it.
  kyrHashPut(mgr->groupMap, group->key, group);
}

}  // namespace kyr

extern "C" {

TrMgr* trMgrCreate(FILE* fp, int closeTraceFile) {
  auto* mgr = static_cast<TrMgr*>(kyr::kyrMalloc(sizeof(TrMgr)));
  if (mgr == nullptr) return nullptr;
  mgr->printf = nullptr;
  mgr->elements = kyr::kyrListCreate(kyr::trElementDelete);
  mgr->groupMap = kyr::kyrHashMapCreate();
  mgr->recordMap = kyr::kyrHashMapCreate2(kyr::recordMapRelease);
  mgr->messageMap = kyr::kyrHashMapCreate2(kyr::trMessageDelete);
  mgr->recordCount = 0;
  mgr->transactionCount = 0;
  mgr->lock = kyr::kyrLockCreate("TrMgr.lock");
  mgr->rootGroup = kyr::trGroupCreateRoot(mgr);

  kyr::initTr(mgr, fp, closeTraceFile != 0);

  // Made after the catalogue: specifications size their level tables by the record count.
  mgr->defaultContext = trContextCreate(mgr);
  trContextSetSpec(mgr->defaultContext, trSpecCreate(mgr, ":NOTICE"));
  return mgr;
}

void trMgrDelete(TrMgr* mgr) {
  if (mgr == nullptr) return;
  trContextDelete(mgr->defaultContext);
  // The maps go first so that no key outlives the group or record that owns its text.
  kyr::kyrHashMapDestroy(mgr->groupMap);
  kyr::kyrHashMapDestroy(mgr->recordMap);  // drops the map's reference on every record
  kyr::trGroupDelete(mgr->rootGroup);      // releases the tree, and with it the last references
  kyr::kyrHashMapDestroy(mgr->messageMap);
  kyr::kyrListDestroy(mgr->elements);
  kyr::kyrLockDestroy(mgr->lock);
  kyr::kyrFree(mgr);
}

TrContext* trMgrGetDefaultContext(TrMgr* mgr) {
  return mgr != nullptr ? mgr->defaultContext : nullptr;
}

TrGroup* trMgrGetGroup(TrMgr* mgr, const char* path) {
  if (mgr == nullptr || path == nullptr) return nullptr;
  return static_cast<TrGroup*>(kyr::kyrHashGet(mgr->groupMap, path));
}

TrRecord* trMgrGetRecord(TrMgr* mgr, const char* path) {
  if (mgr == nullptr || path == nullptr) return nullptr;
  return static_cast<TrRecord*>(kyr::kyrHashGet(mgr->recordMap, path));
}

void trMgrSetPrintf(TrMgr* mgr, TrPrintf fcn) {
  if (mgr != nullptr) mgr->printf = fcn;
}

int trLevelNameToIndex(const char* levelName) {
  if (levelName == nullptr) return -1;
  for (int i = 0; i < kyr::kTrLevelCount; ++i) {
    if (kyr::kyrStrCmpIgnoreCase(levelName, kyr::kLevelNames[i]) == 0) return i;
  }
  return -1;
}

const char* trLevelIndexToName(int index) {
  if (index < 0 || index >= kyr::kTrLevelCount) return nullptr;
  return kyr::kLevelNames[index];
}

}  // extern "C"
