// Turns the catalogue into the manager's tree: initTr runs the parser with the two element
// handlers, which build groups, messages (entries) and records on the manager's `elements`
// stack. Every defect ends the process; there is no partial catalogue.
#include "trace/trCatalogue.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrUtil.h"
#include "trace/kyrSxp.h"
#include "trace/trGroup.h"
#include "trace/trMgr.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"

namespace kyr {

namespace {

// The name the catalogue goes by in parse messages, whatever the stream really is.
constexpr const char* kCatalogueName = "kyr-trace.xml";

[[noreturn]] __attribute__((format(printf, 1, 2))) void fatal(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  exit(1);
}

// The value of the attribute called `name` (ignoring case); the last one wins if repeated.
const char* attribute(KyrList* attributes, const char* name) {
  const char* value = nullptr;
  for (KyrListEle* e = kyrListGetHead(attributes); e != nullptr; e = kyrListGetNext(e)) {
    auto* pair = static_cast<KyrNVPair*>(kyrListEleGetObject(e));
    if (kyrStrCmpIgnoreCase(kyrNvpairGetName(pair), name) == 0) value = kyrNvpairGetValue(pair);
  }
  return value;
}

TrElement* tailElement(TrMgr* mgr) {
  return static_cast<TrElement*>(kyrListEleGetObject(kyrListGetTail(mgr->elements)));
}

// The group an element being opened belongs to: the open element if it is a group.
TrGroup* enclosingGroup(TrMgr* mgr) {
  TrElement* tail = tailElement(mgr);
  if (tail == nullptr || tail->kind != TrElementKind::kGroup) return nullptr;
  return static_cast<TrGroup*>(tail->object);
}

void push(TrMgr* mgr, TrElementKind kind, void* object) {
  auto* element = static_cast<TrElement*>(kyrMalloc(sizeof(TrElement)));
  element->kind = kind;
  element->object = object;
  kyrListAddTail(mgr->elements, element);
}

bool named(const char* name, const char* expected) {
  return kyrStrCmpIgnoreCase(name, expected) == 0;
}

}  // namespace

void trElementDelete(void* element) { kyrFree(element); }

TrMessage* trMessageCreate(const char* name, const char* id, const char* level) {
  if (name == nullptr)
    fatal("FATAL INTERNAL ERROR: message with no 'name' defined in trace-cfg.xml\n");
  // The wording of the missing-id message is deliberately kept as operators know it.
  if (id == nullptr) fatal("FATAL INTERNAL ERROR: message '%s' defined in trace-cfg.xml\n", name);
  if (level == nullptr) {
    fatal("FATAL INTERNAL ERROR: message '%s' has no 'level' field defined in trace-cfg.xml\n",
          name);
  }
  if (trLevelNameToIndex(level) < 0) {
    fatal("FATAL INTERNAL ERROR: invalid level value of '%s' for message '%s' in trace-cfg.xml\n",
          level, name);
  }
  auto* message = static_cast<TrMessage*>(kyrMalloc(sizeof(TrMessage)));
  message->name = kyrStrdup(name);
  message->id = kyrStrdup(id);
  message->level = kyrStrdup(level);
  return message;
}

void trMessageDelete(void* message) {
  auto* m = static_cast<TrMessage*>(message);
  if (m == nullptr) return;
  kyrFree(m->name);
  kyrFree(m->id);
  kyrFree(m->format);
  kyrFree(m->level);
  kyrFree(m);
}

TrGroup* handleGroupStart(TrMgr* mgr, TrGroup* parent, KyrList* attributes) {
  const char* name = attribute(attributes, "name");
  const char* description = attribute(attributes, "description");
  if (name == nullptr) return nullptr;
  // With a parent the group is made unlinked: kyrHandleStartElement links it with
  // trGroupAddParent and hands the creator's reference over.
  TrGroup* group =
      parent != nullptr ? trGroupCreateUnlinked(mgr, parent, name) : trGroupCreate(mgr, name);
  if (group == nullptr) return nullptr;
  if (description != nullptr) trGroupSetDescription(group, description);
  trMgrPutGroup(mgr, group);
  return group;
}

TrMessage* handleMessageStart(TrMgr* mgr, KyrList* attributes) {
  TrMessage* message = trMessageCreate(attribute(attributes, "name"), attribute(attributes, "id"),
                                       attribute(attributes, "level"));
  auto* previous = static_cast<TrMessage*>(kyrHashPut(mgr->messageMap, message->id, message));
  if (previous != nullptr && previous != message) {
    // An id defined again replaces the earlier entry; should that entry still be open, its
    // element becomes inert rather than pointing at freed memory.
    for (KyrListEle* e = kyrListGetHead(mgr->elements); e != nullptr; e = kyrListGetNext(e)) {
      auto* element = static_cast<TrElement*>(kyrListEleGetObject(e));
      if (element->object == previous) element->object = nullptr;
    }
    trMessageDelete(previous);
  }
  return message;
}

TrRecord* handleRecordStart(TrMgr* mgr, KyrList* attributes) {
  const char* name = attribute(attributes, "name");
  const char* level = attribute(attributes, "level");
  const char* defaultLevel = attribute(attributes, "defaultLevel");
  const char* id = attribute(attributes, "id");
  TrMessage* message = nullptr;
  if (id != nullptr) {
    message = static_cast<TrMessage*>(kyrHashGet(mgr->messageMap, id));
    if (message == nullptr) {
      fatal("FATAL INTERNAL ERROR: message id '%s' is not defined in trace-cfg.xml\n", id);
    }
    if (name == nullptr) name = message->name;
    if (level == nullptr) level = message->level;
  }
  if (name == nullptr) fatal("FATAL INTERNAL ERROR: record with no name in trace-cfg.xml\n");
  if (level == nullptr && defaultLevel == nullptr) {
    fatal("FATAL INTERNAL ERROR: record '%s' has no level or defaultLevel in trace-cfg.xml\n",
          name);
  }
  // A record outside any group (or inside a nameless one) belongs to the root.
  TrGroup* group = enclosingGroup(mgr);
  if (group == nullptr) group = mgr->rootGroup;
  TrRecord* rec =
      trRecordCreate(group, name, trLevelNameToIndex(level), trLevelNameToIndex(defaultLevel));
  if (rec != nullptr && message != nullptr) {
    trRecordSetFormat(rec, message->format);
    trRecordSetMessageId(rec, message->id);
  }
  return rec;
}

bool kyrHandleStartElement(const char* name, KyrList* attributes, void* mgrArg) {
  auto* mgr = static_cast<TrMgr*>(mgrArg);
  if (mgr == nullptr) return false;
  if (named(name, "group")) {
    TrGroup* parent = enclosingGroup(mgr);
    TrGroup* group = handleGroupStart(mgr, parent, attributes);
    if (group != nullptr && parent != nullptr) {
      trGroupAddParent(group, parent);
      trGroupDelete(group);  // the parent's list now holds the group; drop the creator's hold
    }
    // Pushed even without a name, so that its end tag pops it and not its parent.
    push(mgr, TrElementKind::kGroup, group);
  } else if (named(name, "entry")) {
    push(mgr, TrElementKind::kEntry, handleMessageStart(mgr, attributes));
  } else if (named(name, "record")) {
    push(mgr, TrElementKind::kRecord, handleRecordStart(mgr, attributes));
  }
  return true;
}

bool kyrHandleEndElement(const char* name, const char* text, void* mgrArg) {
  auto* mgr = static_cast<TrMgr*>(mgrArg);
  if (name == nullptr || mgr == nullptr) return false;
  if (named(name, "group") || named(name, "entry") || named(name, "record")) {
    trElementDelete(kyrListRemoveTail(mgr->elements));
    return true;
  }
  if (!named(name, "text")) return true;
  TrElement* tail = tailElement(mgr);
  if (tail == nullptr || tail->object == nullptr) return true;
  switch (tail->kind) {
    case TrElementKind::kEntry:
      kyrReplaceCountedStr(&static_cast<TrMessage*>(tail->object)->format, text);
      break;
    case TrElementKind::kRecord:
      // A "text" belongs inside an entry; inside a record or group it replaces the path
      // (deliberately kept as it stands; lookups still use the declared path).
      trRecordSetPath(static_cast<TrRecord*>(tail->object), text);
      break;
    case TrElementKind::kGroup:
      trGroupSetPath(static_cast<TrGroup*>(tail->object), text);
      break;
  }
  return true;
}

void initTr(TrMgr* mgr, FILE* file, bool closeTraceXMLFile) {
  if (file == nullptr) return;
  KyrSXParser* parser = kyrSxpCreate(file, closeTraceXMLFile);
  if (parser == nullptr) {
    puts("initTr: Failed to create the KyrSxpParser object");
    exit(1);
  }
  kyrSxpSetFilename(parser, kCatalogueName);
  kyrSxpSetStartFunc(parser, kyrHandleStartElement);
  kyrSxpSetEndFunc(parser, kyrHandleEndElement);
  kyrSxpSetCallbackArg(parser, mgr);
  if (kyrSxpParse(parser) == 0) {
    fflush(stdout);  // the parser's reason first, should both streams go to one place
    fprintf(stderr, "TrMgr.initTr: Failed to parse the file %s\n", kyrSxpGetFilename(parser));
    kyrSxpDestroy(parser);
    exit(2);
  }
  kyrSxpDestroy(parser);
  trSpecDeathRowInit();
}

}  // namespace kyr
