// The handle's custom properties. A property may be set twice over: by the web server (the host)
// and by the cell in the routing data. The web-server value wins; both are remembered so that
// clearing the web-server value brings the cell value back.
#include "core/kyrHandleProperties.h"

#include <cstdlib>
#include <cstring>

#include "connector/kyrConnectorGroup.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrPublish.h"
#include "runtime/kyrStringBuffer.h"
#include "runtime/kyrUtil.h"
#include "trace/trWrite.h"

namespace kyr {
namespace {

// The property table in the order names are matched (the interest specification sent to
// publishers lists the same names).
constexpr const char* kWebserverName = "webserverName";
constexpr const char* kMaxHttpContextPoolSize = "MaxHttpContextPoolSize";
constexpr const char* kMaxSecondsToWaitDuringAtomicRollout = "MaxSecondsToWaitDuringAtomicRollout";
constexpr const char* kDefaultRequestTraceSpec = "DefaultRequestTraceSpec";
constexpr const char* kDisablePrivateHeaders = "disablePrivateHeaders";
constexpr const char* kMaxElapsedTimePerRequestInSeconds = "MaxElapsedTimePerRequestInSeconds";
constexpr const char* kPpid = "ppid";
constexpr const char* kEnableEndpointSelectionBasedOnMatchedVHost =
    "enableEndpointSelectionBasedOnMatchedVHost";

constexpr const char* kPropertyTable[] = {
    kWebserverName,
    kMaxHttpContextPoolSize,
    kMaxSecondsToWaitDuringAtomicRollout,
    kDefaultRequestTraceSpec,
    kDisablePrivateHeaders,
    kMaxElapsedTimePerRequestInSeconds,
    kPpid,
    kEnableEndpointSelectionBasedOnMatchedVHost,
    nullptr,
};

// The table's own name string for a name, matched with or without regard to case.
const char* tableName(const char* name, bool ignoreCase) {
  if (name == nullptr) return nullptr;
  for (const char* const* entry = kPropertyTable; *entry != nullptr; ++entry) {
    const char* known = *entry;
    if ((ignoreCase ? kyrStrCmpIgnoreCase(name, known) : strcmp(name, known)) == 0) return known;
  }
  return nullptr;
}

bool isTableName(const char* key) {
  for (const char* const* entry = kPropertyTable; *entry != nullptr; ++entry) {
    if (key == *entry) return true;
  }
  return false;
}

void setDefaultRequestTraceSpec(Kyr* kyr, TrSpec* spec) {
  TrSpec* old;
  {
    KyrLockGuard guard(kyr->trSpecLock, "kyrSetProperty-customPropDefaultRequestTraceSpec");
    old = kyr->customPropDefaultRequestTraceSpec;
    // Atomic: requests look at it without the lock to see whether it is set.
    kyrPublish(kyr->customPropDefaultRequestTraceSpec, spec);
  }
  trSpecRefRelease(old);
  if (spec != nullptr) {
    trLog(kyr->trCtx, kyr->defaultReqTraceSpecSet);
  } else if (old != nullptr) {
    trLog(kyr->trCtx, kyr->defaultReqTraceSpecReset);
  }
}

// Keys of serverProps are the table's own strings, or copies for names outside the table (the
// map borrows its keys, so the copy must outlive the entry and goes with it).
void putServerProp(Kyr* kyr, const char* known, const char* name, const char* value) {
  char* ownedKey = nullptr;
  if (known == nullptr) {
    KyrHashIterator hi;
    kyrHashIteratorStart(kyr->serverProps, &hi);
    while (kyrHashNext(&hi) != nullptr) {
      if (strcmp(kyrHashThisKey(&hi), name) == 0) {
        ownedKey = const_cast<char*>(kyrHashThisKey(&hi));
        break;
      }
    }
    if (ownedKey == nullptr) {
      if (value == nullptr) return;  // clearing a name that was never stored
      ownedKey = kyrStrdup(name);
    }
  }
  const char* key = known != nullptr ? known : ownedKey;
  free(kyrHashPut(kyr->serverProps, key, value != nullptr ? strdup(value) : nullptr));
  if (value == nullptr) kyrFree(ownedKey);
}

// Each group's REST query names the local server.
void updateRestURIs(Kyr* kyr) {
  for (KyrListEle* e = kyrListGetHead(kyr->connectorGroupList); e != nullptr;
       e = kyrListGetNext(e)) {
    kyrConnectorGroupUpdateRestURI(static_cast<KyrConnectorGroup*>(kyrListEleGetObject(e)));
  }
}

// Applies one property to the handle's fields. This is the setter behind `props`: it runs
// inside kyrPropertySet, which keeps the value once the name is known here.
const char* applyProperty(Kyr* kyr, const char* name, const char* value) {
  trDebug(kyr->trCtx, kyr->processRec, "kyrSetProperty name='%s', value='%s'\n", kyrNullText(name),
          kyrNullText(value));
  const char* known = tableName(name, true);
  if (known == kWebserverName) {
    kyrSetServerName(kyr, value);
  } else if (known == kMaxHttpContextPoolSize) {
    kyr->maxHttpContextPoolSize = value != nullptr ? atoi(value) : -1;
  } else if (known == kMaxSecondsToWaitDuringAtomicRollout) {
    kyr->maxSecondsToWaitDuringAtomicRollout = value != nullptr ? atoi(value) : 3;
  } else if (known == kDefaultRequestTraceSpec) {
    TrSpec* spec = nullptr;
    if (value != nullptr && *value != '\0') {
      spec = trSpecCreate(kyr->trMgr, value);
      if (spec == nullptr) return nullptr;  // keep the previous specification
    }
    setDefaultRequestTraceSpec(kyr, spec);
  } else if (known == kDisablePrivateHeaders) {
    kyr->privateHeadersDisabled = value != nullptr && kyrStrCmpIgnoreCase(value, "true") == 0;
  } else if (known == kMaxElapsedTimePerRequestInSeconds) {
    KyrTime millis = value != nullptr ? static_cast<KyrTime>(atoi(value)) * 1000 : 0;
    kyr->maxElapsedTimePerRequestInMillis = millis != 0 ? millis : static_cast<KyrTime>(-1);
  } else if (known == kPpid) {
    kyrSetPPID(kyr, value);
  }
  // enableEndpointSelectionBasedOnMatchedVHost is known but read from `props` by endpoint
  // selection itself.
  return known;
}

// Names outside the table (the affinity defaults "HttpSessionAffinityPolicyDescriptor",
// "TarnwickSessionCookieName", "HttpSessionCookies", read by target selection) are kept by
// `props` as given, not copied, and the map borrows its keys. So the handle hands it one plain
// block holding the value followed by the name: the value is the block's start and the key
// lies inside it, so freeing the value, as the handle does when it goes, frees the key too.
void putUnknownProperty(Kyr* kyr, const char* name, const char* value) {
  char* block = nullptr;
  const char* key = name;
  if (value != nullptr) {
    size_t valueSize = strlen(value) + 1;
    size_t nameSize = strlen(name) + 1;
    block = static_cast<char*>(malloc(valueSize + nameSize));
    memcpy(block, value, valueSize);
    memcpy(block + valueSize, name, nameSize);
    key = block + valueSize;
  }
  // The entry takes the new key with the new value, so the old block is no longer referenced.
  char* old = const_cast<char*>(kyrPropertyGet(kyr->props, name));
  kyrPropertySet(kyr->props, key, block, false);
  free(old);
}

}  // namespace

const char* const* kyrHandlePropertyNames() { return kPropertyTable; }

const char* kyrSetPropertyFcn(void* kyr, const char* name, const char* value) {
  return applyProperty(static_cast<Kyr*>(kyr), name, value);
}

void serverPropsDestroy(Kyr* kyr) {
  if (kyr->serverProps == nullptr) return;
  KyrHashIterator hi;
  kyrHashIteratorStart(kyr->serverProps, &hi);
  while (kyrHashNext(&hi) != nullptr) {
    if (!isTableName(kyrHashThisKey(&hi))) kyrFree(const_cast<char*>(kyrHashThisKey(&hi)));
  }
  kyrHashMapDestroy(kyr->serverProps);
}

void kyrCellSetPropStr(Kyr* kyr, const char* cellName, const char* name, const char* value) {
  if (cellName == nullptr || kyr->cellPath == nullptr || strcmp(cellName, kyr->cellPath) != 0) {
    return;
  }
  if (kyrStartsWith(name, "cp.")) name += 3;
  const char* known = tableName(name, false);
  if (known == nullptr) {
    trDebug(kyr->trCtx, kyr->processRec,
            "kyrCellSetPropStr: %s is not a supported custom property, ignoring it...", name);
    return;
  }
  free(kyrHashPut(kyr->defaultProps, known, value != nullptr ? strdup(value) : nullptr));
  if (kyrHashGet(kyr->serverProps, known) == nullptr) {
    kyrSetProperty(kyr, known, value);
  } else {
    trDebug(kyr->trCtx, kyr->processRec,
            "kyrCellSetPropStr: %s custom property is set at the web server level", known);
  }
}

}  // namespace kyr

using namespace kyr;

extern "C" {

// Every property, known or not, goes through `props` so that what the host set can be read
// back by name: known names as a copy under the table's spelling, others as they are given.
const char* kyrSetProperty(Kyr* kyr, const char* name, const char* value) {
  if (name == nullptr) return applyProperty(kyr, name, value);  // logged, refused
  const char* known = tableName(name, true);
  if (known == nullptr) {
    putUnknownProperty(kyr, name, value);
    return nullptr;
  }
  // The table's spelling, so that clearing in another case finds the stored value.
  return kyrPropertySet(kyr->props, known, value, true) < 0 ? nullptr : known;
}

Boolean kyrSetServerCustomProperty(Kyr* kyr, const char* name, const char* value) {
  if (kyr == nullptr || name == nullptr) return false;
  trDebug(kyr->trCtx, kyr->processRec, "kyrSetServerCustomProperty name='%s', value='%s'\n", name,
          kyrNullText(value));
  if (kyrStartsWith(name, "cp.vq.")) name += 6;
  const char* known = tableName(name, true);
  const char* effective = value;
  if (value == nullptr && known != nullptr) {
    effective = static_cast<const char*>(kyrHashGet(kyr->defaultProps, known));
  }
  bool recognised = kyrSetProperty(kyr, name, effective) != nullptr;
  putServerProp(kyr, known, name, value);
  return recognised;
}

void kyrSetServerName(Kyr* kyr, const char* name) {
  kyrReplaceStr(&kyr->serverName, name);
  // "cell_node_server": further parts are ignored.
  char** parts = name != nullptr ? kyrStrSplit(name, "_") : nullptr;
  if (parts != nullptr && parts[0] != nullptr) {
    KyrStringBuffer* sb = sbCreate(64);
    sbAdd(sbAdd(sb, "/cell/"), parts[0]);
    kyrReplaceStr(&kyr->cellPath, sbStr(sb));
    if (parts[1] != nullptr) {
      sbAdd(sbAdd(sb, "/node/"), parts[1]);
      if (parts[2] != nullptr) sbAdd(sbAdd(sb, "/server/"), parts[2]);
    }
    kyrReplaceStr(&kyr->serverPath, sbStr(sb));
    sbDelete(sb);
  } else {
    kyrReplaceStr(&kyr->serverPath, "");
  }
  kyrFreeStrSplitArray(parts);
  trDebug(kyr->trCtx, kyr->processRec, "updateServerPath cellPath='%s', serverPath='%s'\n",
          kyrNullText(kyr->cellPath), kyrNullText(kyr->serverPath));
  updateRestURIs(kyr);
}

void kyrSetPPID(Kyr* kyr, const char* ppid) {
  kyrReplaceStr(&kyr->ppid, ppid);
  updateRestURIs(kyr);
}

// Every proxy is deliberately trusted: the list is accepted and not kept.
void kyrSetTrustedProxies(Kyr*, const char*) {}

Boolean kyrIsTrustedProxy(Kyr* kyr, const char* ipAddr) {
  return kyr != nullptr && ipAddr != nullptr;
}

}  // extern "C"
