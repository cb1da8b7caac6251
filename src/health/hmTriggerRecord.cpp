// Building and checking trigger records. A record from a client process is outside input to
// the server process: nothing in it is trusted until checked.
#include "health/hmTriggerRecord.h"

#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// size, flag and padding, then the offsets of the policy, server, group and URL texts.
constexpr size_t kHeaderSize = 24;
constexpr size_t kFlagAt = 4;
constexpr size_t kOffsetsAt = 8;

int32_t wordAt(const char* record, size_t at) {
  int32_t word;
  memcpy(&word, record + at, sizeof word);
  return word;
}

void putWord(char* record, size_t at, size_t value) {
  auto word = static_cast<int32_t>(value);
  memcpy(record + at, &word, sizeof word);
}

}  // namespace

char* hmTriggerRecordCreate(const HealthTrigger& trigger) {
  const char* texts[] = {trigger.policyName, trigger.serverName, trigger.groupName,
                         trigger.connectorURL};
  size_t size = kHeaderSize;
  for (const char* text : texts) size += strlen(text != nullptr ? text : "") + 1;
  auto* record = static_cast<char*>(kyrMalloc(size));  // zero-filled, padding included
  putWord(record, 0, size);
  record[kFlagAt] = trigger.triggered ? 1 : 0;
  size_t at = kHeaderSize;
  for (size_t i = 0; i < 4; ++i) {
    putWord(record, kOffsetsAt + 4 * i, at);
    const char* text = texts[i] != nullptr ? texts[i] : "";
    size_t length = strlen(text) + 1;
    memcpy(record + at, text, length);
    at += length;
  }
  return record;
}

int32_t hmTriggerRecordSize(const char* record) { return wordAt(record, 0); }

bool hmTriggerRecordRead(const char* record, size_t length, HealthTrigger* trigger) {
  if (record == nullptr || length < kHeaderSize) return false;
  if (wordAt(record, 0) != static_cast<int32_t>(length)) return false;
  const char* texts[4];
  for (size_t i = 0; i < 4; ++i) {
    int32_t at = wordAt(record, kOffsetsAt + 4 * i);
    if (at < static_cast<int32_t>(kHeaderSize) || static_cast<size_t>(at) >= length) return false;
    if (memchr(record + at, '\0', length - static_cast<size_t>(at)) == nullptr) return false;
    texts[i] = record + at;
  }
  *trigger = HealthTrigger{record[kFlagAt] != 0, texts[0], texts[1], texts[2], texts[3]};
  return true;
}

}  // namespace kyr
