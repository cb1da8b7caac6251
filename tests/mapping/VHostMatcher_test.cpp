// Virtual hosts: host comparison (case, trailing dot), and a group's aliases with their pruning
// and the deliberately first-only any-port host.
#include "mapping/VHostMatcher.h"

#include <gtest/gtest.h>

#include <string>

#include "mapping/vHost.h"
#include "mappingTestUtil.h"

namespace {

TEST(VHostCompareHosts, IgnoresAsciiCaseButNotLength) {
  struct {
    const char* a;
    const char* b;
    bool equal;
  } rows[] = {
      {"Www.Example.COM", "www.example.com", true},
      {"host1.", "host1", false},  // a trailing dot makes another host
      {"host1", "host2", false},
      {nullptr, "host1", false},
      {"", "", true},
      {"caf\xc3\xa9", "CAF\xc3\xa9", true},  // only ASCII letters fold
      {"caf\xc3\xa9", "CAF\xc3\x89", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(kyr::compareHostsIgnoreCase(row.a, row.b), row.equal)
        << (row.a ? row.a : "(null)") << " vs " << (row.b ? row.b : "(null)");
  }
}

// ---- VHostMatcher

class VHostMatcherTest : public kyrtest::MappingTest {
 protected:
  void SetUp() override {
    MappingTest::SetUp();
    vhtm_ = kyr::createVHostMatcher(&ri_, "default_host");
  }
  void TearDown() override {
    kyr::deleteVHostMatcher(vhtm_);
    MappingTest::TearDown();
  }

  bool accepts(const char* host, int port) { return kyr::matchVHost(vhtm_, host, port, nullptr); }
  int aliasCount() { return kyr::kyrListGetCount(vhtm_->vhostList); }

  kyr::VHostMatcher* vhtm_ = nullptr;
};

TEST_F(VHostMatcherTest, AnyHostOnAPortCoversAndPrunesSpecificAliases) {
  ASSERT_NE(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host2", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host1", 81), nullptr);
  EXPECT_FALSE(accepts("host1.", 80));
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", 80), nullptr);
  EXPECT_EQ(aliasCount(), 1);  // only host1:81 is left
  EXPECT_EQ(vhtm_->aliases->vhosts[0]->port, 81);
  EXPECT_TRUE(accepts("anything", 80));
  EXPECT_FALSE(accepts("anything", 81));
  EXPECT_TRUE(accepts("host1", 81));
  // Covered from now on: nothing is added.
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  EXPECT_EQ(aliasCount(), 1);
  EXPECT_EQ(kyr::putVHost(vhtm_, nullptr, 8080), nullptr);  // null is any host too
  EXPECT_TRUE(accepts("x", 8080));
}

// The group keeps its own copy of the caller's host.
TEST_F(VHostMatcherTest, HostOnAnyPortCoversAndPrunesSpecificAliases) {
  ASSERT_NE(kyr::putVHost(vhtm_, "HOST1", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host2", 80), nullptr);
  std::string host = "host1";
  EXPECT_EQ(kyr::putVHost(vhtm_, host.c_str(), -1), nullptr);
  host.assign("overwritten");
  EXPECT_EQ(aliasCount(), 1);
  EXPECT_STREQ(vhtm_->aliases->vhosts[0]->host, "host2");
  EXPECT_TRUE(accepts("Host1", 9999));
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 443), nullptr);  // already accepted on any port
  EXPECT_EQ(aliasCount(), 1);
}

TEST_F(VHostMatcherTest, OnlyTheFirstAnyPortHostCountsDeliberately) {
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", -1), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "host2", -1), nullptr);
  EXPECT_TRUE(kyr::containsHost(vhtm_, "HOST1"));
  EXPECT_FALSE(kyr::containsHost(vhtm_, "host2"));
  EXPECT_FALSE(accepts("host2", 1234));  // the second is never consulted
  // Nor does it suppress a specific alias for itself.
  EXPECT_NE(kyr::putVHost(vhtm_, "host2", 1234), nullptr);
  EXPECT_TRUE(accepts("host2", 1234));
}

TEST_F(VHostMatcherTest, AnyHostAnyPortAcceptsEverythingAndEndsAdditions) {
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", -1), nullptr);
  EXPECT_TRUE(accepts(nullptr, -5));
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "host2", -1), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", 81), nullptr);
  EXPECT_EQ(aliasCount(), 0);
  EXPECT_TRUE(vhtm_->hosts.empty());
  EXPECT_TRUE(vhtm_->ports.empty());
}

TEST_F(VHostMatcherTest, DeletingAnAliasRemovesOnlyIt) {
  kyr::VHost* a = kyr::putVHost(vhtm_, "a", 1);
  kyr::VHost* b = kyr::putVHost(vhtm_, "b", 2);
  kyr::delVHost(vhtm_, a);
  EXPECT_FALSE(accepts("a", 1));
  EXPECT_TRUE(accepts("b", 2));
  EXPECT_EQ(vhtm_->aliases->vhosts, std::vector<const kyr::VHost*>{b});
}

}  // namespace
