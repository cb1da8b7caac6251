// The virtual host groups and aliases of the request mapper, as the routing data builds them:
// a group joins the URL matcher, an alias record collects its host and port and then becomes an
// alias of its group. Aliases may be pruned by wider ones later, so a record checks that its
// alias still exists before removing it.
#include <cstring>

#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {

void vHostEntryFree(void* p) {
  auto* vh = static_cast<VHostEntry*>(p);
  kyrFree(vh->host);
  kyrDelete(vh);
}

void rmDeleteVHostMatcher(RequestMapper* rm, VHostMatcher* vhostMatcher) {
  for (KyrListEle* e = kyrListGetHead(rm->vHostEntries); e != nullptr; e = kyrListGetNext(e)) {
    auto* vh = static_cast<VHostEntry*>(kyrListEleGetObject(e));
    if (vh->group == vhostMatcher) vh->group = nullptr;
  }
  if (getVHostMatcher(rm->matcher, getVHostMatcherName(vhostMatcher)) == vhostMatcher) {
    URLMatcherDeleteVHostMatcher(rm->matcher, getVHostMatcherName(vhostMatcher));
  } else {
    deleteVHostMatcher(vhostMatcher);
  }
}

VHostEntry* rmVHostEntryCreate(RequestMapper* rm, VHostMatcher* group) {
  auto* vh = kyrNew<VHostEntry>();
  vh->rm = rm;
  vh->group = group;
  vh->host = kyrStrdup("*");
  vh->port = -1;
  kyrListAddTail(rm->vHostEntries, vh);
  return vh;
}

bool rmVHostEntrySetPropStr(VHostEntry* vh, const char* name, const char* value) {
  if (strcmp(name, "host") != 0 || value == nullptr) return false;
  kyrFree(vh->host);
  vh->host = kyrStrdup(value);
  return true;
}

bool rmVHostEntrySetPropInt(VHostEntry* vh, const char* name, int value) {
  if (strcmp(name, "port") != 0) return false;
  vh->port = value;
  return true;
}

void rmVHostEntryInit(VHostEntry* vh) {
  if (vh->group != nullptr) vh->entry = putVHost(vh->group, vh->host, vh->port);
}

void kyrVHostDelete(VHostEntry* vh) {
  if (vh->group != nullptr && vh->entry != nullptr &&
      kyrListFind(vh->group->vhostList, vh->entry) != nullptr) {
    delVHost(vh->group, vh->entry);
  }
  kyrListDelete(vh->rm->vHostEntries, kyrListFind(vh->rm->vHostEntries, vh));
}

}  // namespace kyr
