// KyrList: doubly linked list of object pointers. Elements and the list itself use plain
// allocation; the counted variants live with the memory counter in kyrLibUtil.
#include "runtime/kyrList.h"

#include <cstdlib>
#include <cstring>

namespace kyr {
namespace {

void dispose(const KyrList* list, void* object) {
  if (list->destructor != nullptr && object != nullptr) list->destructor(object);
}

// Links a new element before `before`, or at the tail when `before` is null. When the element
// cannot be allocated the list disposes of the object, so callers never leak it.
KyrListEle* linkBefore(KyrList* list, KyrListEle* before, void* object) {
  auto* ele = static_cast<KyrListEle*>(calloc(1, sizeof(KyrListEle)));
  if (ele == nullptr) {
    dispose(list, object);
    return nullptr;
  }
  ele->object = object;
  ele->next = before;
  ele->prev = before != nullptr ? before->prev : list->tail;
  (ele->prev != nullptr ? ele->prev->next : list->head) = ele;
  (before != nullptr ? before->prev : list->tail) = ele;
  list->count++;
  return ele;
}

bool sameText(const void* object, const char* str) {
  return object != nullptr && strcmp(static_cast<const char*>(object), str) == 0;
}

}  // namespace

KyrList* kyrListCreate(KyrDestructorFcn destructor) {
  auto* list = static_cast<KyrList*>(calloc(1, sizeof(KyrList)));
  if (list != nullptr) list->destructor = destructor;
  return list;
}

void kyrListDestroy(KyrList* list) {
  if (list == nullptr) return;
  kyrListClean(list);
  free(list);
}

KyrListEle* kyrListAddHead(KyrList* list, void* object) {
  return linkBefore(list, list->head, object);
}

KyrListEle* kyrListAddTail(KyrList* list, void* object) {
  return linkBefore(list, nullptr, object);
}

KyrListEle* kyrListInsertBefore(KyrList* list, KyrListEle* ele, void* object) {
  return linkBefore(list, ele, object);
}

int kyrListGetCount(const KyrList* list) { return list->count; }

bool kyrListIsEmpty(const KyrList* list) { return list->head == nullptr; }

KyrListEle* kyrListGetHead(const KyrList* list) { return list != nullptr ? list->head : nullptr; }

KyrListEle* kyrListGetTail(const KyrList* list) { return list->tail; }

KyrListEle* kyrListGetNext(const KyrListEle* ele) { return ele->next; }

KyrListEle* kyrListGetPrev(const KyrListEle* ele) { return ele->prev; }

void* kyrListEleGetObject(const KyrListEle* ele) { return ele != nullptr ? ele->object : nullptr; }

void* kyrListRemove(KyrList* list, KyrListEle* ele) {
  if (list->head == nullptr || ele == nullptr) return nullptr;
  (ele->prev != nullptr ? ele->prev->next : list->head) = ele->next;
  (ele->next != nullptr ? ele->next->prev : list->tail) = ele->prev;
  list->count--;
  void* object = ele->object;
  free(ele);
  return object;
}

void kyrListDelete(KyrList* list, KyrListEle* ele) { dispose(list, kyrListRemove(list, ele)); }

KyrListEle* kyrListFind(const KyrList* list, const void* obj) {
  for (KyrListEle* ele = list->head; ele != nullptr; ele = ele->next) {
    if (ele->object == obj) return ele;
  }
  return nullptr;
}

KyrListEle* kyrListFindStr(const KyrList* list, const char* str) {
  for (KyrListEle* ele = list->head; ele != nullptr; ele = ele->next) {
    if (sameText(ele->object, str)) return ele;
  }
  return nullptr;
}

bool kyrListAddUnique(KyrList* list, void* obj) {
  return kyrListFind(list, obj) == nullptr && kyrListAddTail(list, obj) != nullptr;
}

bool kyrListAddUniqueStr(KyrList* list, const char* str) {
  if (kyrListFindStr(list, str) != nullptr) return false;
  char* copy = strdup(str);
  return copy != nullptr && kyrListAddTail(list, copy) != nullptr;
}

void* kyrListFindAndRemove(KyrList* list, const void* obj) {
  return kyrListRemove(list, kyrListFind(list, obj));
}

bool kyrListRemoveObject(KyrList* list, const void* obj) {
  KyrListEle* ele = kyrListFind(list, obj);
  if (ele == nullptr) return false;
  kyrListDelete(list, ele);
  return true;
}

bool kyrListFindAndRemoveStr(KyrList* list, const char* str) {
  KyrListEle* ele = kyrListFindStr(list, str);
  if (ele == nullptr) return false;
  free(kyrListRemove(list, ele));  // deliberately not the destructor: the text is a plain copy
  return true;
}

void* kyrListRemoveHead(KyrList* list) { return kyrListRemove(list, list->head); }

void* kyrListRemoveTail(KyrList* list) { return kyrListRemove(list, list->tail); }

void kyrListClean(KyrList* list) {
  // Detach first so a destructor that looks at the list sees it already empty.
  KyrListEle* ele = list->head;
  list->head = list->tail = nullptr;
  list->count = 0;
  while (ele != nullptr) {
    KyrListEle* next = ele->next;
    dispose(list, ele->object);
    free(ele);
    ele = next;
  }
}

void** kyrListCreateArray(const KyrList* list) {
  auto** array =
      static_cast<void**>(malloc((static_cast<size_t>(list->count) + 1) * sizeof(void*)));
  if (array == nullptr) return nullptr;
  size_t i = 0;
  for (KyrListEle* ele = list->head; ele != nullptr; ele = ele->next) array[i++] = ele->object;
  array[i] = nullptr;
  return array;
}

}  // namespace kyr
