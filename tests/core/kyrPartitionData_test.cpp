// Partition data on the handle: replacement frees the old entry, and readers under the
// partition lock never see an entry freed under them.
#include "core/kyrPartitionData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/kyrTestHost.h"

namespace {

kyr::PartitionIDData* dataWithVersion(const char* version) {
  return kyr::tsPartitionIDDataCreate(kyr::kyrHashMapCreate2(free), version);
}

class PartitionData : public ::testing::Test {
 protected:
  void SetUp() override { kyr_ = host_.create(); }
  void TearDown() override { kyrDestroy(kyr_); }
  const char* versionOf(const char* cluster) {
    return kyr::tsPartitionIDDataGetVersion(kyr::kyrGetPartitionData(kyr_, cluster));
  }
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
};

TEST_F(PartitionData, SetReplacesTheClustersEntry) {
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("1"));
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("2"));  // the first is freed (ASan)
  EXPECT_STREQ(versionOf("web"), "2");
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, "batch"), nullptr);
}

TEST_F(PartitionData, ConcurrencyReadersUnderTheLockSeeWholeEntries) {
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("0"));
  std::atomic<int> writersLeft{2};
  std::atomic<int> seen{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < 2000; ++i) {
        std::string version = std::to_string(w) + "." + std::to_string(i);
        kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion(version.c_str()));
      }
      --writersLeft;
    });
    threads.emplace_back([&] {
      do {
        kyr::kyrLockPartitionData(kyr_, "test");
        if (versionOf("web")[0] != '\0') ++seen;
        kyr::kyrUnlockPartitionData(kyr_);
      } while (writersLeft > 0);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_GT(seen.load(), 0);
}

}  // namespace
