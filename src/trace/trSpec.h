// Trace specifications: one maximum level per record, parsed from "name:LEVEL,..." texts,
// reference counted, and freed only after a grace time on the process-wide death row so that a
// thread still reading a dropped specification never touches freed memory.
#pragma once

#include <atomic>

#include "runtime/kyrTime.h"
#include "tr.h"
#include "trace/trRecord.h"

// Allocated as one counted block: this header, then `levelCount` unsigned bytes (the maximum
// enabled level of the record with that index). ISO C++ has no flexible array member, so the
// bytes are addressed just past the header (trSpecLevels).
struct TrSpec {
  // Atomic so that threads obtaining and releasing references concurrently do not race; the
  // design needs no more than that, because the death-row grace time covers stale readers.
  std::atomic<int> refCount{1};
  kyr::KyrTime timeOfDeath{0};  // guarded by the death-row lock
  int levelCount{0};            // the manager's recordCount when the trace specification was made
};

namespace kyr {

inline constexpr KyrTime kTrSpecDeathRowTime = 2000;  // milliseconds of grace

inline unsigned char* trSpecLevels(TrSpec* spec) {
  return reinterpret_cast<unsigned char*>(spec + 1);
}

// The record's byte, or 0 when either is null or the record is newer than the trace specification.
inline int trSpecGetMaxLevel(TrSpec* spec, const TrRecord* record) {
  if (spec == nullptr || record == nullptr) return 0;
  if (record->index < 0 || record->index >= spec->levelCount) return 0;
  return trSpecLevels(spec)[record->index];
}

// Creates the death row and its lock unless they exist; runs before other library threads.
void trSpecDeathRowInit();
// Entries currently waiting on the row (for tests and state reports).
int trSpecDeathRowCount();
void trSpecAddToSpecDeathRow(TrSpec* spec);
void trCleanUpDeathRow();
void trPurgeDeathRow();
// Frees a specification at once, whatever its count; only for one no other thread can see.
void trKillSpec(TrSpec* spec);
// Purges the row, then destroys the row and its lock.
void trDestroy();

}  // namespace kyr
