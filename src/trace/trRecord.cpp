// Trace records: creation (from the catalogue or from a message id), registration, parents and
// paths, and the exported getters a host uses inside its print callback.
#include "trace/trRecord.h"

#include <cstdio>
#include <cstdlib>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trGroup.h"
#include "trace/trMgr.h"

namespace kyr {

namespace {

TrRecord* newRecord(TrMgr* mgr, const char* name, int level, int defaultLevel,
                    const char* messageId) {
  auto* rec = static_cast<TrRecord*>(kyrMalloc(sizeof(TrRecord)));
  if (rec == nullptr) return nullptr;
  rec->mgr = mgr;
  rec->name = kyrStrdup(name);
  rec->level = level;
  rec->defaultLevel = defaultLevel;
  rec->refcnt = 1;  // recordMap's reference
  rec->index = mgr->recordCount++;
  rec->messageId = kyrStrdup(messageId);
  return rec;
}

void registerRecord(TrMgr* mgr, TrRecord* rec, const char* key) {
  rec->key = trPathCopy(key);
  if (rec->key == nullptr) return;
  auto* previous = static_cast<TrRecord*>(kyrHashPut(mgr->recordMap, rec->key, rec));
  // A record declared twice under one path loses the map's reference; its groups keep theirs.
  if (previous != nullptr && previous != rec) trRecordDelete(previous);
}

}  // namespace

TrRecord* trRecordCreate(TrGroup* group, const char* name, int level, int defaultLevel) {
  if (group == nullptr || name == nullptr) return nullptr;
  TrRecord* rec =
      newRecord(group->mgr, name, level, defaultLevel == -1 ? level : defaultLevel, "-1");
  if (rec == nullptr) return nullptr;
  trRecordAddParent(rec, group);
  registerRecord(group->mgr, rec, rec->path);
  return rec;
}

TrRecord* trRecordCreateFromMessage(TrMgr* mgr, const char* name, int level,
                                    const char* messageId) {
  if (mgr == nullptr || messageId == nullptr) return nullptr;
  // defaultLevel stays -1: enablement and debug lines fall back to `level`.
  TrRecord* rec = newRecord(mgr, name, level, -1, messageId);
  if (rec != nullptr) registerRecord(mgr, rec, messageId);
  return rec;
}

TrMgr* trRecordGetMgr(TrRecord* rec) { return rec != nullptr ? rec->mgr : nullptr; }

int trRecordGetIndex(TrRecord* rec) { return rec != nullptr ? rec->index : -1; }

void trRecordSetFormat(TrRecord* rec, const char* format) {
  if (rec != nullptr) kyrReplaceCountedStr(&rec->format, format);
}

void trRecordSetMessageId(TrRecord* rec, const char* messageId) {
  if (rec != nullptr) kyrReplaceCountedStr(&rec->messageId, messageId);
}

void trRecordSetPath(TrRecord* rec, const char* path) {
  if (rec == nullptr) return;
  free(rec->path);
  rec->path = trPathCopy(path);
}

void trRecordAddParent(TrRecord* record, TrGroup* parentGroup) {
  if (record == nullptr || parentGroup == nullptr) return;
  kyrListAddTail(parentGroup->records, record);
  ++record->refcnt;
  // The path follows the last parent; under the root (path "") it starts with "." (deliberate:
  // the catalogue's root records are looked up by that path).
  free(record->path);
  record->path = makePath(parentGroup->path, record->name);
}

void trRecordDelete(TrRecord* rec) {
  if (rec == nullptr) return;
  if (--rec->refcnt >= 1) return;
  kyrFree(rec->name);
  free(rec->path);
  free(rec->key);
  kyrFree(rec->format);
  kyrFree(rec->messageId);
  kyrFree(rec);
}

}  // namespace kyr

extern "C" {

TrRecord* trRecordGet(TrMgr* mgr, const char* recordPath) {
  TrRecord* rec = trMgrGetRecord(mgr, recordPath);
  if (rec == nullptr) {
    // Deliberately fatal: record paths are fixed in the code, so a miss is a build defect.
    printf(
        "FATAL INTERNAL ERROR: Invalid record path: '%s'; check trace-cfg.xml for the valid "
        "path.\n",
        recordPath != nullptr ? recordPath : "(null)");
    exit(1);
  }
  return rec;
}

const char* trRecordGetName(TrRecord* rec) { return rec != nullptr ? rec->name : nullptr; }

const char* trRecordGetPath(TrRecord* rec) { return rec != nullptr ? rec->path : nullptr; }

const char* trRecordGetFormat(TrRecord* rec) { return rec != nullptr ? rec->format : nullptr; }

int trRecordGetDefaultLevel(TrRecord* rec) { return rec != nullptr ? rec->defaultLevel : -1; }

}  // extern "C"
