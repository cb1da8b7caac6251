// KyrHashMap: string-keyed chained hash map with borrowed keys (the key text must outlive its
// entry). The hash, growth, chain order and cleaning rules are relied on by dumps and by the
// routing model's prefix deletes. Not thread-safe: owners lock around it.
#pragma once

#include <cstddef>

namespace kyr {

using KyrHashDestructorFcn = void (*)(void* val);

struct KyrHashEle {
  KyrHashEle* next;
  int hash;
  const char* key;
  void* val;
};

struct KyrHashMap {
  KyrHashEle** array;
  int count;
  int max;  // bucket mask: the array has max + 1 slots
  KyrHashDestructorFcn destructor;
};

// Reads the map only, so it works on a const map; entries may still be removed through the
// owner's pointer while iterating, the current one included.
struct KyrHashIterator {
  const KyrHashMap* hm;
  KyrHashEle* current;
  KyrHashEle* next;
  int index;  // next bucket to visit
};

void* kyrHashMalloc(size_t size);
void kyrHashFree(void* p);

KyrHashMap* kyrHashMapCreate();
KyrHashMap* kyrHashMapCreate2(KyrHashDestructorFcn destructor);
void kyrHashMapSetDestructor(KyrHashMap* hm, KyrHashDestructorFcn destructor);
int kyrHashCompute(const char* key);
void* kyrHashGet(const KyrHashMap* hm, const char* key);
void* kyrHashGet2(const KyrHashMap* hm, const char* key, int hash);
void* kyrHashPut(KyrHashMap* hm, const char* key, void* val);
void* kyrHashPut2(KyrHashMap* hm, const char* key, int hash, void* val);
void kyrHashMapClean(KyrHashMap* hm);
void kyrHashMapClean2(KyrHashMap* hm, const char* prefix, KyrHashDestructorFcn destructor);
void kyrHashMapDestroy(KyrHashMap* hm);
void kyrHashMapDump(const KyrHashMap* hm, const char* where);

KyrHashIterator* kyrHashIteratorCreate(const KyrHashMap* hm);
KyrHashIterator* kyrHashIteratorStart(const KyrHashMap* hm, KyrHashIterator* hi);
KyrHashIterator* kyrHashNext(KyrHashIterator* hi);
const char* kyrHashThisKey(const KyrHashIterator* hi);
void* kyrHashThisVal(const KyrHashIterator* hi);
void kyrHashIteratorDestroy(KyrHashIterator* hi);

}  // namespace kyr
