// Per-cluster partition data on the handle, guarded by the handle's partition lock.
#include "core/kyrPartitionData.h"

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"

namespace kyr {
namespace {

// The map borrows its keys, so each entry carries its own copy of the cluster name.
struct PartitionEntry {
  char* clusterName;
  PartitionIDData* data;
};

}  // namespace

PartitionIDData* kyrGetPartitionData(Kyr* kyr, const char* clusterName) {
  if (kyr == nullptr || clusterName == nullptr) return nullptr;
  auto* entry = static_cast<PartitionEntry*>(kyrHashGet(kyr->partitionIDData.map, clusterName));
  return entry != nullptr ? entry->data : nullptr;
}

void kyrSetPartitionData(Kyr* kyr, const char* clusterName, PartitionIDData* data) {
  if (kyr == nullptr || clusterName == nullptr || data == nullptr) return;
  auto* entry = kyrNew<PartitionEntry>(PartitionEntry{kyrStrdup(clusterName), data});
  void* old;
  {
    KyrLockGuard guard(kyr->partitionIDData.lock, "kyrSetPartitionData");
    old = kyrHashPut(kyr->partitionIDData.map, entry->clusterName, entry);
    kyrPublish(kyr->partitionIDData.any, true);
  }
  partitionIDDataDelete(old);
}

bool kyrAnyPartitionData(Kyr* kyr) { return kyrPublished(kyr->partitionIDData.any); }

void kyrLockPartitionData(Kyr* kyr, const char* who) {
  kyrLockObtain(kyr->partitionIDData.lock, who);
}

void kyrUnlockPartitionData(Kyr* kyr) { kyrLockRelease(kyr->partitionIDData.lock); }

void partitionIDDataDelete(void* p) {
  auto* entry = static_cast<PartitionEntry*>(p);
  if (entry == nullptr) return;
  tsPartitionIDDataDelete(entry->data);
  kyrFree(entry->clusterName);
  kyrDelete(entry);
}

}  // namespace kyr
