// Partition data on the handle: replacement frees the old entry, NULL arguments are ignored,
// and readers under the partition lock never see an entry freed under them.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/kyrPartitionData.h"
#include "support/kyrTestHost.h"

namespace {

kyr::PartitionIDData* dataWithVersion(const char* version) {
  return kyr::tsPartitionIDDataCreate(kyr::kyrHashMapCreate2(free), version);
}

class PartitionData : public ::testing::Test {
 protected:
  void SetUp() override { kyr_ = host_.create(); }
  void TearDown() override { kyrDestroy(kyr_); }
  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
};

TEST_F(PartitionData, SetReplacesTheClustersEntryAndNullArgumentsAreIgnored) {
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, "web"), nullptr);
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("1"));
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("2"));  // the first is freed (ASan)
  EXPECT_STREQ(kyr::tsPartitionIDDataGetVersion(kyr::kyrGetPartitionData(kyr_, "web")), "2");
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, "batch"), nullptr);

  kyr::kyrSetPartitionData(kyr_, "web", nullptr);
  kyr::kyrSetPartitionData(kyr_, nullptr, nullptr);
  EXPECT_EQ(kyr::kyrGetPartitionData(kyr_, nullptr), nullptr);
  EXPECT_EQ(kyr::kyrGetPartitionData(nullptr, "web"), nullptr);
  EXPECT_STREQ(kyr::tsPartitionIDDataGetVersion(kyr::kyrGetPartitionData(kyr_, "web")), "2");
}

TEST_F(PartitionData, ConcurrencyReadersUnderTheLockSeeWholeEntries) {
  kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion("0"));
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < 2000; ++i) {
        std::string version = std::to_string(w) + "." + std::to_string(i);
        kyr::kyrSetPartitionData(kyr_, "web", dataWithVersion(version.c_str()));
      }
    });
  }
  std::atomic<int> seen{0};
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      do {
        kyr::kyrLockPartitionData(kyr_, "test");
        kyr::PartitionIDData* data = kyr::kyrGetPartitionData(kyr_, "web");
        if (data != nullptr && kyr::tsPartitionIDDataGetVersion(data)[0] != '\0') ++seen;
        kyr::kyrUnlockPartitionData(kyr_);
      } while (!stop);
    });
  }
  threads[0].join();
  threads[1].join();
  stop = true;
  threads[2].join();
  threads[3].join();
  EXPECT_GT(seen.load(), 0);
}

}  // namespace
