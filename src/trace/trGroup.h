// Trace groups: the inner nodes of the manager's tree. A group names a set of records (and child
// groups) that one trace specification item can switch together.
#pragma once

#include "runtime/kyrList.h"
#include "tr.h"

struct TrGroup {
  TrMgr* mgr;
  char* name;               // counted copy
  char* path;               // plain text; a catalogue "text" element may replace it (or null it)
  char* key;                // plain copy of the path groupMap knows it by; never replaced
  char* description;        // counted copy or null
  kyr::KyrList* groups;     // child groups; each element holds one reference (trGroupDelete)
  TrGroup** groupsArray;    // built on first request and then kept; guarded by mgr->lock
  kyr::KyrList* records;    // records; each element holds one reference (trRecordDelete)
  TrRecord** recordsArray;  // as groupsArray
  int refcnt;               // one per parent list holding the group (the root: the manager)
};

namespace kyr {

// The manager's root group: name "" and path "", registered under "".
TrGroup* trGroupCreateRoot(TrMgr* mgr);
// A child of the root; the root's list holds the new group's reference.
TrGroup* trGroupCreate(TrMgr* mgr, const char* name);
// A child of parentGroup, whose list holds the new group's reference.
TrGroup* trGroupCreateChild(TrGroup* parentGroup, const char* childGroupName);
// A group with the path it would have under parentGroup (null: the root), registered but linked
// to no parent: the caller holds its only reference until it hands it to a parent.
TrGroup* trGroupCreateUnlinked(TrMgr* mgr, TrGroup* parentGroup, const char* name);

TrGroup* trGroupGet(TrMgr* mgr, const char* groupPath);
TrGroup* trGroupGetRoot(TrMgr* mgr);
// Appends childGroup to another parent's children and adds a reference; the path stays.
void trGroupAddParent(TrGroup* childGroup, TrGroup* parentGroup);
// Null-terminated arrays of the children as they were at the first call (deliberately cached:
// children added later do not appear). Owned by the group.
TrGroup** trGroupGetChildGroups(TrGroup* group);
TrRecord** trGroupGetChildRecords(TrGroup* group);
void trGroupSetDescription(TrGroup* group, const char* description);
// Replaces the path text (plain copy, or null); the groupMap key stays as declared.
void trGroupSetPath(TrGroup* group, const char* path);
// Drops one reference; the last one frees the group and releases its children.
void trGroupDelete(TrGroup* grp);

}  // namespace kyr
