// KyrList: the doubly linked list of object pointers used throughout the library. The list's
// destructor disposes of objects only on delete, remove-object, clean/destroy and on additions
// that fail for lack of memory. Not thread-safe: owners lock around it.
#pragma once

#include <cstdint>

namespace kyr {

using KyrDestructorFcn = void (*)(void* object);

struct KyrListEle {
  void* object;
  KyrListEle* prev;
  KyrListEle* next;
};

struct KyrList {
  KyrDestructorFcn destructor;
  KyrListEle* head;
  KyrListEle* tail;
  int count;
};

// Lists of small numbers (descriptors, process ids) keep each number in its object pointer.
inline void* kyrIntAsObject(int value) {
  return reinterpret_cast<void*>(
      static_cast<intptr_t>(value));  // NOLINT(performance-no-int-to-ptr)
}
inline int kyrObjectAsInt(const void* object) {
  return static_cast<int>(reinterpret_cast<intptr_t>(object));
}

KyrList* kyrListCreate(KyrDestructorFcn destructor);
void kyrListDestroy(KyrList* list);
// The counted variants move the memory counter by one for the list itself.
KyrList* kyrListCreateDbg(KyrDestructorFcn destructor, const char* file = __builtin_FILE(),
                          int line = __builtin_LINE());
void kyrListDestroyDbg(KyrList* list, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE());

KyrListEle* kyrListAddHead(KyrList* list, void* object);
KyrListEle* kyrListAddTail(KyrList* list, void* object);
KyrListEle* kyrListInsertBefore(KyrList* list, KyrListEle* ele, void* object);

int kyrListGetCount(const KyrList* list);
bool kyrListIsEmpty(const KyrList* list);
KyrListEle* kyrListGetHead(const KyrList* list);
KyrListEle* kyrListGetTail(const KyrList* list);
KyrListEle* kyrListGetNext(const KyrListEle* ele);
KyrListEle* kyrListGetPrev(const KyrListEle* ele);
void* kyrListEleGetObject(const KyrListEle* ele);

void* kyrListRemove(KyrList* list, KyrListEle* ele);
void kyrListDelete(KyrList* list, KyrListEle* ele);
KyrListEle* kyrListFind(const KyrList* list, const void* obj);
KyrListEle* kyrListFindStr(const KyrList* list, const char* str);
bool kyrListAddUnique(KyrList* list, void* obj);
bool kyrListAddUniqueStr(KyrList* list, const char* str);
void* kyrListFindAndRemove(KyrList* list, const void* obj);
bool kyrListRemoveObject(KyrList* list, const void* obj);
bool kyrListFindAndRemoveStr(KyrList* list, const char* str);
void* kyrListRemoveHead(KyrList* list);
void* kyrListRemoveTail(KyrList* list);
void kyrListClean(KyrList* list);
// Plain (free) array of the objects in order with a terminating null slot.
void** kyrListCreateArray(const KyrList* list);

}  // namespace kyr
