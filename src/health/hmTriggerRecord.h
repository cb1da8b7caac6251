// The record that carries one trigger or untrigger of a health policy for a server from the
// process that measured it to the one that tells the publisher: one block, its size first,
// then a flag and the offsets of four terminated texts that follow from byte 24.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kyr {

struct HealthTrigger {
  bool triggered;
  const char* policyName;
  const char* serverName;
  const char* groupName;
  const char* connectorURL;
};

// A new counted block; its size is its first word.
char* hmTriggerRecordCreate(const HealthTrigger& trigger);
int32_t hmTriggerRecordSize(const char* record);
// Reads a record that arrived from another process: false unless its size is the length
// received and every offset points at a text that ends inside it. The texts point into it.
bool hmTriggerRecordRead(const char* record, size_t length, HealthTrigger* trigger);

}  // namespace kyr
