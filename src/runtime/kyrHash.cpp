// KyrHashMap: chained buckets indexed by hash & max, growing by doubling, never shrinking. The
// map, its buckets, elements and iterators use the map's own plain allocation.
#include "runtime/kyrHash.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kyr {
namespace {

constexpr int kInitialMax = 15;

void noDestructor(void* /*val*/) {}

KyrHashEle** bucketOf(const KyrHashMap* hm, int hash) { return &hm->array[hash & hm->max]; }

// The link that points at the entry for key (the bucket slot or the predecessor's `next`), so
// callers can unlink it; points at the chain's terminating null when the key is absent.
KyrHashEle** findLink(const KyrHashMap* hm, const char* key, int hash) {
  KyrHashEle** link = bucketOf(hm, hash);
  while (*link != nullptr && ((*link)->hash != hash || strcmp((*link)->key, key) != 0)) {
    link = &(*link)->next;
  }
  return link;
}

// Moves every entry, in iteration order, to the head of its bucket in an array twice the size,
// so entries that keep sharing a bucket come out reversed (deliberate: dumps show that order).
// Left as it is when the new array cannot be had.
void grow(KyrHashMap* hm) {
  int newMax = hm->max * 2 + 1;
  auto** array = static_cast<KyrHashEle**>(kyrHashMalloc((newMax + 1) * sizeof(KyrHashEle*)));
  if (array == nullptr) return;
  for (int i = 0; i <= hm->max; ++i) {
    for (KyrHashEle* ele = hm->array[i]; ele != nullptr;) {
      KyrHashEle* next = ele->next;
      ele->next = array[ele->hash & newMax];
      array[ele->hash & newMax] = ele;
      ele = next;
    }
  }
  kyrHashFree(hm->array);
  hm->array = array;
  hm->max = newMax;
}

void* removeEntry(KyrHashMap* hm, const char* key, int hash) {
  KyrHashEle** link = findLink(hm, key, hash);
  KyrHashEle* ele = *link;
  if (ele == nullptr) return nullptr;
  *link = ele->next;
  hm->count--;
  void* val = ele->val;
  kyrHashFree(ele);
  return val;
}

// Pointers are shown by their low 32 bits because the dump's line format is fixed at %x.
unsigned hex(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace

void* kyrHashMalloc(size_t size) { return calloc(1, size); }

void kyrHashFree(void* p) { free(p); }

KyrHashMap* kyrHashMapCreate() { return kyrHashMapCreate2(nullptr); }

KyrHashMap* kyrHashMapCreate2(KyrHashDestructorFcn destructor) {
  auto* hm = static_cast<KyrHashMap*>(kyrHashMalloc(sizeof(KyrHashMap)));
  if (hm == nullptr) return nullptr;
  hm->max = kInitialMax;
  hm->destructor = destructor != nullptr ? destructor : noDestructor;
  hm->array = static_cast<KyrHashEle**>(kyrHashMalloc((kInitialMax + 1) * sizeof(KyrHashEle*)));
  if (hm->array == nullptr) {
    kyrHashMapDestroy(hm);
    return nullptr;
  }
  return hm;
}

void kyrHashMapSetDestructor(KyrHashMap* hm, KyrHashDestructorFcn destructor) {
  hm->destructor = destructor;
}

int kyrHashCompute(const char* key) {
  uint32_t h = 0;
  for (const auto* p = reinterpret_cast<const unsigned char*>(key); *p != '\0'; ++p) {
    h = h * 33 + *p;
  }
  return static_cast<int>(h);
}

void* kyrHashGet(const KyrHashMap* hm, const char* key) {
  return kyrHashGet2(hm, key, kyrHashCompute(key));
}

void* kyrHashGet2(const KyrHashMap* hm, const char* key, int hash) {
  KyrHashEle* ele = *findLink(hm, key, hash);
  return ele != nullptr ? ele->val : nullptr;
}

void* kyrHashPut(KyrHashMap* hm, const char* key, void* val) {
  return kyrHashPut2(hm, key, kyrHashCompute(key), val);
}

void* kyrHashPut2(KyrHashMap* hm, const char* key, int hash, void* val) {
  if (val == nullptr) return removeEntry(hm, key, hash);
  if (hm->count > hm->max) grow(hm);
  KyrHashEle** link = findLink(hm, key, hash);
  KyrHashEle* ele = *link;
  if (ele == nullptr) {
    ele = static_cast<KyrHashEle*>(kyrHashMalloc(sizeof(KyrHashEle)));
    if (ele == nullptr) return nullptr;
    *ele = KyrHashEle{nullptr, hash, key, val};
    *link = ele;
    hm->count++;
    return nullptr;
  }
  if (ele->val == val) return nullptr;
  void* old = ele->val;
  ele->key = key;
  ele->val = val;
  return old;
}

void kyrHashMapClean(KyrHashMap* hm) { kyrHashMapClean2(hm, "", hm->destructor); }

void kyrHashMapClean2(KyrHashMap* hm, const char* prefix, KyrHashDestructorFcn destructor) {
  size_t n = strlen(prefix);
  for (int i = 0; i <= hm->max; ++i) {
    for (KyrHashEle** link = &hm->array[i]; *link != nullptr;) {
      KyrHashEle* ele = *link;
      if (strncmp(ele->key, prefix, n) != 0) {
        link = &ele->next;
        continue;
      }
      *link = ele->next;
      if (destructor != nullptr) destructor(ele->val);
      kyrHashFree(ele);
    }
  }
  // Deliberately count keeps its value; it only triggers growth, so the table may grow early.
}

void kyrHashMapDestroy(KyrHashMap* hm) {
  if (hm == nullptr) return;
  if (hm->array != nullptr) kyrHashMapClean(hm);
  kyrHashFree(hm->array);
  kyrHashFree(hm);
}

void kyrHashMapDump(const KyrHashMap* hm, const char* where) {
  printf("KYR: HashMapDump: begin %s; count = %d; max = %d\n", where, hm->count, hm->max);
  KyrHashIterator hi;
  int n = 0;
  for (kyrHashIteratorStart(hm, &hi); kyrHashNext(&hi) != nullptr;) {
    const KyrHashEle* cur = hi.current;
    printf("   (%d) hi.current=%x; hi.next=%x; hi.index=%x\n", ++n, hex(cur), hex(hi.next),
           static_cast<unsigned>(hi.index));
    printf("        current.next=%x; current.hash=%d; current.key=%s; current.val=%x\n",
           hex(cur->next), cur->hash, cur->key, hex(cur->val));
  }
  printf("KYR: HashMapDump: end %s\n", where);
}

KyrHashIterator* kyrHashIteratorCreate(const KyrHashMap* hm) {
  auto* hi = static_cast<KyrHashIterator*>(kyrHashMalloc(sizeof(KyrHashIterator)));
  return hi != nullptr ? kyrHashIteratorStart(hm, hi) : nullptr;
}

KyrHashIterator* kyrHashIteratorStart(const KyrHashMap* hm, KyrHashIterator* hi) {
  *hi = KyrHashIterator{hm, nullptr, nullptr, 0};
  return hi;
}

KyrHashIterator* kyrHashNext(KyrHashIterator* hi) {
  KyrHashEle* ele = hi->next;
  while (ele == nullptr) {
    if (hi->index > hi->hm->max) return nullptr;
    ele = hi->hm->array[hi->index++];
  }
  hi->current = ele;
  hi->next = ele->next;  // taken now so the caller may remove the current entry
  return hi;
}

const char* kyrHashThisKey(const KyrHashIterator* hi) { return hi->current->key; }

void* kyrHashThisVal(const KyrHashIterator* hi) { return hi->current->val; }

void kyrHashIteratorDestroy(KyrHashIterator* hi) { kyrHashFree(hi); }

}  // namespace kyr
