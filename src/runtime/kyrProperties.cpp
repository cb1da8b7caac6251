// KyrProperties: the owner's setter callback validates a name and supplies the canonical key;
// validated values are kept as plain copies, unvalidated ones as the caller's own pointers.
#include "runtime/kyrProperties.h"

#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {

KyrProperties* kyrPropertiesCreate(KyrSetPropertyFcn setPropertyFcn, void* passback) {
  auto* props = static_cast<KyrProperties*>(kyrMalloc(sizeof(KyrProperties)));
  if (props == nullptr) return nullptr;
  props->map = kyrHashMapCreate();
  if (props->map == nullptr) {
    kyrFree(props);
    return nullptr;
  }
  props->lock = kyrLockCreate("KyrProperties.lock");
  props->setPropertyFcn = setPropertyFcn;
  props->passback = passback;
  return props;
}

// Values are deliberately not released here; owners that stored copies release them first.
void kyrPropertiesDelete(KyrProperties* props) {
  if (props == nullptr) return;
  kyrHashMapDestroy(props->map);
  kyrLockDestroy(props->lock);
  kyrFree(props);
}

void kyrPropertiesDeleteWithCopies(KyrProperties* props) {
  if (props == nullptr) return;
  kyrHashMapSetDestructor(props->map, free);
  kyrPropertiesDelete(props);
}

const char* kyrPropertyGet(KyrProperties* props, const char* propName) {
  KyrLockGuard guard(props->lock, "kyrPropertyGet");
  return static_cast<const char*>(kyrHashGet(props->map, propName));
}

bool kyrPropertyCopy(KyrProperties* props, const char* propName, std::string* value) {
  KyrLockGuard guard(props->lock, "kyrPropertyCopy");
  const auto* text = static_cast<const char*>(kyrHashGet(props->map, propName));
  if (text == nullptr) return false;
  *value = text;
  return true;
}

int kyrPropertySet(KyrProperties* props, const char* propName, const char* propValue,
                   bool validate) {
  const char* key = props->setPropertyFcn(props->passback, propName, propValue);
  // An unvalidated set is only for names the owner does not know.
  if (validate != (key != nullptr)) return -1;
  void* old;
  {
    KyrLockGuard guard(props->lock, "kyrPropertySet");
    if (validate && propValue != nullptr) {
      old = kyrHashPut(props->map, key, strdup(propValue));
    } else {
      // Kept as the caller's pointer; the map never writes through it.
      old = kyrHashPut(props->map, propName, const_cast<char*>(propValue));
    }
  }
  if (propValue == nullptr && old == nullptr) return 1;
  if (validate) free(old);
  return 0;
}

}  // namespace kyr
