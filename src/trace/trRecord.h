// Trace records: the leaves of the manager's tree, one per message or debug point. A record's
// index is its byte in every trace specification; its levels decide when it is written.
#pragma once

#include "tr.h"

struct TrRecord {
  TrMgr* mgr;
  char* name;        // counted copy
  char* path;        // plain text: path of the last parent + "." + name; null for message records
  char* key;         // plain copy of the text recordMap knows it by; never replaced
  char* format;      // counted copy or null
  int level;         // the level it is written with (-1: none, see defaultLevel)
  int defaultLevel;  // the level a specification must allow; -1 means "use level"
  int refcnt;        // one for recordMap, one per parent group
  int index;         // position of this record's byte in every specification
  char* messageId;   // counted copy; "-1" for records not made from a message
};

namespace kyr {

// defaultLevel -1 means the same as level. Registered under the path of `group`.
TrRecord* trRecordCreate(TrGroup* group, const char* name, int level, int defaultLevel);
// A record with no group and no path, registered under messageId.
TrRecord* trRecordCreateFromMessage(TrMgr* mgr, const char* name, int level, const char* messageId);
TrMgr* trRecordGetMgr(TrRecord* rec);
int trRecordGetIndex(TrRecord* rec);
void trRecordSetFormat(TrRecord* rec, const char* format);
void trRecordSetMessageId(TrRecord* rec, const char* messageId);
// Replaces the path text (plain copy, or null); the recordMap key stays as declared.
void trRecordSetPath(TrRecord* rec, const char* path);
// Appends the record to the group's records, adds a reference, and takes the group's path.
void trRecordAddParent(TrRecord* record, TrGroup* parentGroup);
// Drops one reference; the last one frees the record.
void trRecordDelete(TrRecord* rec);

// The level a specification must allow for trContextLogEnabled.
inline int trRecordThreshold(const TrRecord* rec) {
  return rec->defaultLevel >= 0 ? rec->defaultLevel : rec->level;
}

}  // namespace kyr
