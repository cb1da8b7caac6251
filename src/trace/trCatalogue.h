// The trace manager's side of the catalogue: initTr drives the parser over the catalogue stream
// and the element handlers turn groups, entries and records into the manager's tree. Every
// defect of the catalogue ends the process.
#pragma once

#include <cstdio>

#include "runtime/kyrList.h"
#include "tr.h"

// One catalogue entry (a reusable message), kept in the manager's messageMap under its id.
struct TrMessage {
  char* name;  // counted copies, all of them
  char* id;
  char* format;  // the entry's text; null until its "text" element ends
  char* level;   // the level name as written
};

namespace kyr {

// What an open catalogue element on the manager's `elements` stack is.
enum class TrElementKind { kGroup, kEntry, kRecord };

struct TrElement {
  TrElementKind kind;
  void* object;  // TrGroup, TrMessage or TrRecord; null for a group declared without a name
};

void trElementDelete(void* element);  // a KyrList element destructor

// Reads the catalogue from file (closing it if asked) and then makes the trace-specification death
// row. Nothing happens without a stream. Exits with 1 if no parser can be made, 2 on a syntax
// error; the handlers exit with 1 on missing names, ids or levels.
void initTr(TrMgr* mgr, FILE* file, bool closeTraceXMLFile);

bool kyrHandleStartElement(const char* name, KyrList* attributes, void* mgr);
bool kyrHandleEndElement(const char* name, const char* text, void* mgr);

TrGroup* handleGroupStart(TrMgr* mgr, TrGroup* parent, KyrList* attributes);
TrMessage* handleMessageStart(TrMgr* mgr, KyrList* attributes);
TrRecord* handleRecordStart(TrMgr* mgr, KyrList* attributes);

// Exits with status 1 (after a message on standard output) when a field is missing or the level
// is not a level name.
TrMessage* trMessageCreate(const char* name, const char* id, const char* level);
void trMessageDelete(void* message);  // a KyrHashMap value destructor

}  // namespace kyr
