// KyrList: order and links after each kind of insertion and removal, and exactly when the
// list's destructor runs.
#include "runtime/kyrList.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

using Texts = std::vector<std::string>;

Texts g_destroyed;
const KyrList* g_cleaning = nullptr;
int g_countSeenByDestructor = -1;

void recordDestroyed(void* object) {
  g_destroyed.emplace_back(static_cast<const char*>(object));
  if (g_cleaning != nullptr) g_countSeenByDestructor = g_cleaning->count;
}

class ListTest : public ::testing::Test {
 protected:
  void SetUp() override { g_destroyed.clear(); }
  void TearDown() override { kyrListDestroy(list_); }

  // Objects front to back, checking that the backward links and the null-terminated array
  // agree with the forward links.
  Texts contents() const {
    Texts forward, backward, array;
    for (KyrListEle* e = kyrListGetHead(list_); e != nullptr; e = kyrListGetNext(e))
      forward.emplace_back(static_cast<const char*>(kyrListEleGetObject(e)));
    for (KyrListEle* e = kyrListGetTail(list_); e != nullptr; e = kyrListGetPrev(e))
      backward.insert(backward.begin(), static_cast<const char*>(kyrListEleGetObject(e)));
    void** objects = kyrListCreateArray(list_);
    for (void** p = objects; *p != nullptr; ++p) array.emplace_back(static_cast<const char*>(*p));
    free(objects);
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(forward, array);
    EXPECT_EQ(static_cast<size_t>(kyrListGetCount(list_)), forward.size());
    return forward;
  }

  KyrList* list_ = kyrListCreate(recordDestroyed);
  char a_[2] = "a";
  char b_[2] = "b";
  char c_[2] = "c";
  char x_[2] = "x";
};

TEST_F(ListTest, InsertionsAndRemovalsRelinkWithoutCallingTheDestructor) {
  KyrListEle* b = kyrListAddTail(list_, b_);
  kyrListAddHead(list_, a_);
  kyrListAddTail(list_, c_);
  kyrListInsertBefore(list_, b, x_);
  EXPECT_EQ(contents(), (Texts{"a", "x", "b", "c"}));
  EXPECT_EQ(kyrListRemove(list_, b), b_);
  EXPECT_EQ(contents(), (Texts{"a", "x", "c"}));
  EXPECT_EQ(kyrListRemoveTail(list_), c_);
  kyrListInsertBefore(list_, kyrListGetHead(list_), c_);
  EXPECT_EQ(contents(), (Texts{"c", "a", "x"}));
  EXPECT_EQ(kyrListRemoveHead(list_), c_);
  EXPECT_EQ(kyrListRemoveHead(list_), a_);
  EXPECT_EQ(kyrListRemoveTail(list_), x_);
  EXPECT_TRUE(kyrListIsEmpty(list_));
  EXPECT_EQ(contents(), Texts{});
  EXPECT_EQ(kyrListRemoveHead(list_), nullptr);
  EXPECT_EQ(kyrListRemoveTail(list_), nullptr);
  EXPECT_TRUE(g_destroyed.empty());
}

TEST_F(ListTest, DeleteAndCleanCallTheDestructor) {
  kyrListAddTail(list_, a_);
  kyrListAddTail(list_, b_);
  kyrListDelete(list_, kyrListGetHead(list_));
  kyrListDelete(list_, kyrListGetHead(list_));
  EXPECT_EQ(g_destroyed, (Texts{"a", "b"}));
  // Clean empties the list before destroying, front to back, skipping null objects.
  kyrListAddTail(list_, c_);
  kyrListAddTail(list_, nullptr);
  kyrListAddTail(list_, x_);
  g_cleaning = list_;
  kyrListClean(list_);
  g_cleaning = nullptr;
  EXPECT_EQ(g_destroyed, (Texts{"a", "b", "c", "x"}));
  EXPECT_EQ(g_countSeenByDestructor, 0);
  kyrListAddTail(list_, a_);
  EXPECT_EQ(contents(), Texts{"a"});
}

TEST_F(ListTest, FindMatchesByPointerAndTheStrVariantsByText) {
  kyrListAddTail(list_, a_);
  char otherA[] = "a";
  EXPECT_EQ(kyrListFind(list_, otherA), nullptr);
  EXPECT_EQ(kyrListEleGetObject(kyrListFindStr(list_, otherA)), a_);
  EXPECT_FALSE(kyrListAddUnique(list_, a_));
  EXPECT_TRUE(kyrListAddUnique(list_, otherA));
  EXPECT_EQ(kyrListFindAndRemove(list_, otherA), otherA);
  EXPECT_EQ(kyrListFindAndRemove(list_, otherA), nullptr);
  EXPECT_EQ(contents(), Texts{"a"});
  KyrList* names = kyrListCreate(nullptr);
  kyrListAddTail(names, strdup("a"));
  EXPECT_TRUE(kyrListFindAndRemoveStr(names, "a"));  // a plain copy: ASan would report it kept
  EXPECT_FALSE(kyrListFindAndRemoveStr(names, "a"));
  kyrListDestroy(names);
}

}  // namespace
}  // namespace kyr
