// Trace groups: creation with their dotted paths, extra parents, the cached child arrays, and
// reference-counted deletion that releases the subtree.
#include "trace/trGroup.h"

#include <cstdlib>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/trMgr.h"
#include "trace/trRecord.h"

namespace kyr {

namespace {

void groupListRelease(void* group) { trGroupDelete(static_cast<TrGroup*>(group)); }
void recordListRelease(void* record) { trRecordDelete(static_cast<TrRecord*>(record)); }

TrGroup* newGroup(TrMgr* mgr, const char* name, char* path) {
  auto* group = static_cast<TrGroup*>(kyrMalloc(sizeof(TrGroup)));
  if (group == nullptr) {
    free(path);
    return nullptr;
  }
  group->mgr = mgr;
  group->name = kyrStrdup(name);
  group->path = path;
  group->key = trPathCopy(path);
  group->groups = kyrListCreate(groupListRelease);
  group->records = kyrListCreate(recordListRelease);
  group->refcnt = 1;
  trMgrPutGroup(mgr, group);
  return group;
}

}  // namespace

TrGroup* trGroupCreateRoot(TrMgr* mgr) { return newGroup(mgr, "", trPathCopy("")); }

TrGroup* trGroupCreateUnlinked(TrMgr* mgr, TrGroup* parentGroup, const char* name) {
  if (mgr == nullptr || name == nullptr) return nullptr;
  // Children of the root carry their bare name: there is no leading "." on group paths.
  bool underRoot = parentGroup == nullptr || parentGroup == mgr->rootGroup;
  char* path = underRoot ? trPathCopy(name) : makePath(parentGroup->path, name);
  return newGroup(mgr, name, path);
}

TrGroup* trGroupCreate(TrMgr* mgr, const char* name) {
  TrGroup* group = trGroupCreateUnlinked(mgr, nullptr, name);
  if (group != nullptr) kyrListAddTail(mgr->rootGroup->groups, group);
  return group;
}

TrGroup* trGroupCreateChild(TrGroup* parentGroup, const char* childGroupName) {
  if (parentGroup == nullptr) return nullptr;
  TrGroup* group = trGroupCreateUnlinked(parentGroup->mgr, parentGroup, childGroupName);
  if (group != nullptr) kyrListAddTail(parentGroup->groups, group);
  return group;
}

TrGroup* trGroupGet(TrMgr* mgr, const char* groupPath) { return trMgrGetGroup(mgr, groupPath); }

TrGroup* trGroupGetRoot(TrMgr* mgr) { return mgr != nullptr ? mgr->rootGroup : nullptr; }

void trGroupAddParent(TrGroup* childGroup, TrGroup* parentGroup) {
  if (childGroup == nullptr || parentGroup == nullptr) return;
  kyrListAddTail(parentGroup->groups, childGroup);
  ++childGroup->refcnt;
}

TrGroup** trGroupGetChildGroups(TrGroup* group) {
  if (group == nullptr) return nullptr;
  KyrLockGuard guard(group->mgr->lock, "trGroupGetChildGroups");
  if (group->groupsArray == nullptr) {
    group->groupsArray = reinterpret_cast<TrGroup**>(kyrListCreateArray(group->groups));
  }
  return group->groupsArray;
}

TrRecord** trGroupGetChildRecords(TrGroup* group) {
  if (group == nullptr) return nullptr;
  KyrLockGuard guard(group->mgr->lock, "trGroupGetChildRecords");
  if (group->recordsArray == nullptr) {
    group->recordsArray = reinterpret_cast<TrRecord**>(kyrListCreateArray(group->records));
  }
  return group->recordsArray;
}

void trGroupSetDescription(TrGroup* group, const char* description) {
  if (group != nullptr) kyrReplaceCountedStr(&group->description, description);
}

void trGroupSetPath(TrGroup* group, const char* path) {
  if (group == nullptr) return;
  free(group->path);
  group->path = trPathCopy(path);
}

void trGroupDelete(TrGroup* grp) {
  if (grp == nullptr) return;
  if (--grp->refcnt >= 1) return;
  kyrFree(grp->name);
  free(grp->path);
  free(grp->key);
  kyrFree(grp->description);
  free(grp->groupsArray);
  free(grp->recordsArray);
  kyrListDestroy(grp->groups);
  kyrListDestroy(grp->records);
  kyrFree(grp);
}

}  // namespace kyr
