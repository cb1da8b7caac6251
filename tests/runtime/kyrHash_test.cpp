// KyrHashMap: growth and chain order, put semantics, prefix cleaning and iteration that
// survives removal.
#include "runtime/kyrHash.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kyr {
namespace {

using Keys = std::vector<std::string>;

Keys keysInIterationOrder(const KyrHashMap* hm) {
  Keys keys;
  KyrHashIterator hi;
  for (kyrHashIteratorStart(hm, &hi); kyrHashNext(&hi) != nullptr;)
    keys.emplace_back(kyrHashThisKey(&hi));
  return keys;
}

const char* firstKey(const KyrHashMap* hm) {
  KyrHashIterator hi;
  kyrHashNext(kyrHashIteratorStart(hm, &hi));
  return kyrHashThisKey(&hi);
}

int g_destroyedCount = 0;
void countDestroyed(void* /*val*/) { ++g_destroyedCount; }

class HashMapTest : public ::testing::Test {
 protected:
  void SetUp() override { g_destroyedCount = 0; }
  void TearDown() override { kyrHashMapDestroy(hm_); }
  KyrHashMap* hm_ = kyrHashMapCreate();
  int v1_ = 1;
  int v2_ = 2;
};

TEST_F(HashMapTest, PutReturnsTheOldValueAndNullPutRemovesWithoutTheDestructor) {
  kyrHashMapSetDestructor(hm_, countDestroyed);
  char first[] = "k";
  char second[] = "k";
  EXPECT_EQ(kyrHashPut(hm_, first, &v1_), nullptr);
  EXPECT_EQ(kyrHashPut(hm_, second, &v1_), nullptr);  // the same value changes nothing,
  EXPECT_EQ(firstKey(hm_), first);                    // not even the key
  EXPECT_EQ(kyrHashPut(hm_, second, &v2_), &v1_);     // a new value takes the new key
  EXPECT_EQ(firstKey(hm_), second);
  EXPECT_EQ(kyrHashGet2(hm_, "k", kyrHashCompute("k")), &v2_);
  EXPECT_EQ(kyrHashPut(hm_, "k", nullptr), &v2_);
  EXPECT_EQ(kyrHashGet(hm_, "k"), nullptr);
  EXPECT_EQ(hm_->count, 0);
  EXPECT_EQ(kyrHashPut(hm_, "k", nullptr), nullptr);
  EXPECT_EQ(g_destroyedCount, 0);
}

// With the hash h * 33 + byte, "a" and "A@" share bucket 1 with 16 and with 32 buckets; the
// fillers avoid it.
TEST_F(HashMapTest, GrowsOnAnUpdateThatFindsCountAtSixteenAndReversesSharedChains) {
  kyrHashPut(hm_, "a", &v1_);
  kyrHashPut(hm_, "A@", &v1_);
  EXPECT_EQ(keysInIterationOrder(hm_), (Keys{"a", "A@"}));  // new keys go to the chain's end
  static const char* fillers[] = {"b", "c", "d", "e", "f", "g", "h",
                                  "i", "j", "k", "l", "m", "n", "o"};
  for (const char* key : fillers) kyrHashPut(hm_, key, &v2_);
  kyrHashPut(hm_, "b", nullptr);  // a removal finds count at sixteen but never grows
  kyrHashPut(hm_, "b", &v2_);     // finds fifteen
  EXPECT_EQ(hm_->max, 15);
  kyrHashPut(hm_, "a", &v2_);  // an update, not only an insertion, grows
  EXPECT_EQ(hm_->max, 31);
  EXPECT_EQ(hm_->count, 16);
  Keys order = keysInIterationOrder(hm_);
  EXPECT_EQ(Keys(order.begin(), order.begin() + 2), (Keys{"A@", "a"}));  // the chain reversed
  EXPECT_EQ(kyrHashGet(hm_, "A@"), &v1_);
  for (const char* key : fillers) EXPECT_EQ(kyrHashGet(hm_, key), &v2_) << key;
}

TEST_F(HashMapTest, CleanTwoIsATextPrefixWithOnlyTheGivenDestructorAndKeepsTheCount) {
  kyrHashMapSetDestructor(hm_, countDestroyed);
  kyrHashPut(hm_, "/cell/a/x", &v1_);
  kyrHashPut(hm_, "/cell/ab", &v1_);
  kyrHashPut(hm_, "/cell/b", &v2_);
  kyrHashMapClean2(hm_, "/cell/a", nullptr);
  EXPECT_EQ(g_destroyedCount, 0);
  EXPECT_EQ(keysInIterationOrder(hm_), Keys{"/cell/b"});
  EXPECT_EQ(hm_->count, 3);  // deliberate
  kyrHashMapClean2(hm_, "", countDestroyed);
  EXPECT_EQ(g_destroyedCount, 1);
}

TEST_F(HashMapTest, CleanAndDestroyUseTheMapsDestructor) {
  KyrHashMap* other = kyrHashMapCreate2(countDestroyed);
  kyrHashPut(other, "a", &v1_);
  kyrHashMapClean(other);
  EXPECT_EQ(kyrHashGet(other, "a"), nullptr);
  kyrHashPut(other, "c", &v1_);
  kyrHashMapDestroy(other);
  EXPECT_EQ(g_destroyedCount, 2);
  kyrHashMapDestroy(nullptr);
}

TEST_F(HashMapTest, IterationSurvivesRemovalOfTheCurrentEntry) {
  std::vector<std::string> keys;
  for (int i = 0; i < 40; ++i) keys.push_back("/cell/c1/node/n" + std::to_string(i));
  for (const auto& key : keys) kyrHashPut(hm_, key.c_str(), &v1_);
  size_t visited = 0;
  KyrHashIterator* hi = kyrHashIteratorCreate(hm_);
  for (; kyrHashNext(hi) != nullptr; ++visited) {
    EXPECT_EQ(kyrHashThisVal(hi), &v1_);
    kyrHashPut(hm_, kyrHashThisKey(hi), nullptr);
  }
  kyrHashIteratorDestroy(hi);
  EXPECT_EQ(visited, keys.size());
  EXPECT_EQ(hm_->count, 0);
}

}  // namespace
}  // namespace kyr
