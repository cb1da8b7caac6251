// Counted allocation and the memory counter, also from several threads (for ThreadSanitizer).
#include "runtime/kyrLibUtil.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "runtime/kyrList.h"

namespace kyr {
namespace {

struct Tracked {
  explicit Tracked(int v) : value(v) {}
  int value;
};

TEST(KyrLibUtil, EveryCountedBlockMovesTheCounterByOne) {
  int before = kyrGetMemCount();
  auto* block = static_cast<unsigned char*>(kyrMalloc(64));
  for (int i = 0; i < 64; ++i) ASSERT_EQ(block[i], 0) << i;  // zero-filled
  char* cut = kyrStrndup("abcdef", 3);
  char* whole = kyrStrndup("ab", 10);
  EXPECT_STREQ(cut, "abc");
  EXPECT_STREQ(whole, "ab");
  auto* obj = kyrNew<Tracked>(7);
  EXPECT_EQ(obj->value, 7);
  KyrList* list = kyrListCreateDbg(nullptr);  // the list alone: its elements are not counted
  kyrListAddTail(list, obj);
  EXPECT_EQ(kyrGetMemCount(), before + 5);
  kyrListDestroyDbg(list);
  kyrDelete(obj);
  for (void* p : {static_cast<void*>(block), static_cast<void*>(cut), static_cast<void*>(whole)})
    kyrFree(p);
  EXPECT_EQ(kyrGetMemCount(), before);
}

// Each thread runs `work` on its own vector of blocks; returns after all have finished.
template <class Fn>
void onThreads(std::vector<std::vector<void*>>& blocks, Fn work) {
  std::vector<std::thread> threads;
  for (auto& mine : blocks) threads.emplace_back([&mine, &work] { work(mine); });
  for (auto& t : threads) t.join();
}

TEST(RuntimeConcurrency, MemoryCounterStaysExactUnderConcurrentAllocation) {
  constexpr int kBlocks = 5000;
  int before = kyrGetMemCount();
  std::vector<std::vector<void*>> blocks(4);
  onThreads(blocks, [](std::vector<void*>& mine) {
    for (int i = 0; i < kBlocks; ++i) mine.push_back(kyrMalloc(16));
    for (int i = 0; i < kBlocks; ++i) kyrFree(kyrStrdup("churn"));
  });
  EXPECT_EQ(kyrGetMemCount(), before + 4 * kBlocks);
  onThreads(blocks, [](std::vector<void*>& mine) {
    for (void* p : mine) kyrFree(p);
  });
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr
