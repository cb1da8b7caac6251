// Keeping a connector's stored complete document current under deltas: the objects a delta
// adds, changes or deletes and the relationships it adds or removes are mirrored into the
// stored tree, so the next rebuild of the model starts from what the publisher now has.
#pragma once

#include <jansson.h>

#include "tr.h"

namespace kyr {

// Where diagnostics go while one document is applied.
struct StoredDocumentTrace {
  TrContext* ctx;
  TrRecord* rec;
};

// `operation` is the "add" member of the stored document; names are full object names.
void deltaObjectsAdd(json_t* operation, const char* fullName, json_t* object,
                     const StoredDocumentTrace& trace);
void deltaObjectsSet(json_t* operation, const char* fullName, const char* propName,
                     json_t* propValue, const StoredDocumentTrace& trace);
void deltaObjectsDelete(json_t* operation, const char* fullName, const StoredDocumentTrace& trace);
// A relationship element holds the two full names under the two type names.
void deltaRelAdd(json_t* operation, const char* relationship, json_t* element, const char* name1,
                 const char* name2, const StoredDocumentTrace& trace);
void deltaRelDelete(json_t* operation, const char* relationship, json_t* element);

}  // namespace kyr
