// Per-cluster partition data on the handle, guarded by the handle's partition lock.
#include "core/kyrPartitionData.h"

namespace kyr {

PartitionIDData* kyrGetPartitionData(Kyr* kyr, const char* clusterName) {
  if (kyr == nullptr || clusterName == nullptr) return nullptr;
  return static_cast<PartitionIDData*>(kyrHashGet(kyr->partitionIDData.map, clusterName));
}

void kyrSetPartitionData(Kyr* kyr, const char* clusterName, PartitionIDData* data) {
  if (kyr == nullptr || clusterName == nullptr || data == nullptr) return;
  void* old;
  {
    KyrLockGuard guard(kyr->partitionIDData.lock, "kyrSetPartitionData");
    old = kyrHashPut(kyr->partitionIDData.map, clusterName, data);
  }
  partitionIDDataDelete(old);
}

void kyrLockPartitionData(Kyr* kyr, const char* who) {
  kyrLockObtain(kyr->partitionIDData.lock, who);
}

void kyrUnlockPartitionData(Kyr* kyr) { kyrLockRelease(kyr->partitionIDData.lock); }

void partitionIDDataDelete(void* data) {
  if (data != nullptr) tsPartitionIDDataDelete(static_cast<PartitionIDData*>(data));
}

}  // namespace kyr
