// The routing-data reader's row for health policies and the "server:healthPolicy"
// relationship.
#pragma once

#include "core/kyrObjectHandlers.h"

namespace kyr {

extern const ObjectHandler kHealthPolicyRow;

void linkServerHealthPolicy(void* server, void* policy, bool add);

}  // namespace kyr
