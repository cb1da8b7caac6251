// Partition data of each cluster (which clone ID serves which partition), learned from
// responses and read while choosing targets. It lives on the handle, not on a routing version,
// because it outlives every rebuild of the model.
#pragma once

#include "core/kyr.h"
#include "selection/kyrTargetSelector.h"

namespace kyr {

// Unlocked read: callers that keep the result across other work hold kyrLockPartitionData.
PartitionIDData* kyrGetPartitionData(Kyr* kyr, const char* clusterName);
// Replaces (and deletes) the cluster's entry under the partition lock; takes over `data`.
void kyrSetPartitionData(Kyr* kyr, const char* clusterName, PartitionIDData* data);
// Whether any table was ever stored; without the lock (see KyrPartitionIDData::any).
bool kyrAnyPartitionData(Kyr* kyr);
void kyrLockPartitionData(Kyr* kyr, const char* who);
void kyrUnlockPartitionData(Kyr* kyr);
// The map's value destructor: frees an entry with its data.
void partitionIDDataDelete(void* entry);

}  // namespace kyr
