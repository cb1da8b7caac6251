// Virtual hosts: the alias tests of VHost, and a group's aliases with their pruning, the
// deliberately first-only any-port host, the group's host:port test and its dumps.
#include "mapping/VHostMatcher.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

#include "mapping/vHost.h"
#include "mappingTestUtil.h"
#include "runtime/kyrStringBuffer.h"

namespace {

using kyrtest::target;
using kyrtest::text;

std::string compact(json_t* json) {
  char* out = json_dumps(json, JSON_COMPACT);
  std::string s = out;
  free(out);
  json_decref(json);
  return s;
}

// ---- Host comparison ---------------------------------------------------------------------------

TEST(VHostCompareHosts, IgnoresCaseButNotLength) {
  EXPECT_TRUE(kyr::compareHostsIgnoreCase("host1", "HOST1"));
  EXPECT_TRUE(kyr::compareHostsIgnoreCase("Www.Example.COM", "www.example.com"));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase("host1.", "host1"));  // trailing dot
  EXPECT_FALSE(kyr::compareHostsIgnoreCase("host1", "host1."));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase("host1", "host2"));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase(nullptr, "host1"));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase("host1", nullptr));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase(nullptr, nullptr));
  EXPECT_TRUE(kyr::compareHostsIgnoreCase("", ""));
  // Only ASCII letters fold; other bytes compare as they are.
  EXPECT_TRUE(kyr::compareHostsIgnoreCase("caf\xc3\xa9", "CAF\xc3\xa9"));
  EXPECT_FALSE(kyr::compareHostsIgnoreCase("caf\xc3\xa9", "CAF\xc3\x89"));
}

// ---- VHost -------------------------------------------------------------------------------------

class VHostTest : public kyrtest::MappingTest {};

TEST_F(VHostTest, AnyHostAndAnyPortAliases) {
  kyr::VHost* anyHost = kyr::VHostCreate(&ri_, "*", 80, false);
  kyr::VHost* nullHost = kyr::VHostCreate(&ri_, nullptr, -1, false);
  kyr::VHost* specific = kyr::VHostCreate(&ri_, "Host1", 8080, false);

  EXPECT_TRUE(kyr::isAnyHost(anyHost));
  EXPECT_FALSE(kyr::isAnyPort(anyHost));
  EXPECT_TRUE(kyr::isAnyHost(nullHost));
  EXPECT_TRUE(kyr::isAnyPort(nullHost));
  EXPECT_FALSE(kyr::isAnyHost(specific));

  EXPECT_STREQ(kyr::getKey(nullHost), "*");
  EXPECT_STREQ(kyr::getKey(anyHost), "*");
  EXPECT_STREQ(kyr::getKey(specific), "host1");
  EXPECT_STREQ(kyr::getHost(specific), "Host1");
  EXPECT_EQ(kyr::getPort(specific), 8080);
  EXPECT_EQ(kyr::getVhostUriMatcher(specific), nullptr);

  EXPECT_TRUE(kyr::match(anyHost, "whatever", 80));
  EXPECT_FALSE(kyr::match(anyHost, "whatever", 81));
  EXPECT_TRUE(kyr::match(nullHost, nullptr, 1));
  EXPECT_TRUE(kyr::match(specific, "HOST1", 8080));
  EXPECT_FALSE(kyr::match(specific, "host1.", 8080));
  EXPECT_FALSE(kyr::match(specific, "host1", 80));

  for (kyr::VHost* vh : {anyHost, nullHost, specific}) kyr::vHostDelete(vh);
}

TEST_F(VHostTest, MatchHostRefusesNullAndStarRequestHosts) {
  kyr::VHost* vh = kyr::VHostCreate(&ri_, "host1", -1, false);
  EXPECT_FALSE(kyr::matchHost(vh, nullptr));
  EXPECT_FALSE(kyr::matchHost(vh, "*"));
  EXPECT_TRUE(kyr::matchHost(vh, "HoSt1"));
  EXPECT_TRUE(kyr::matchPort(vh, 12345));
  kyr::vHostDelete(vh);
}

TEST_F(VHostTest, EqualsNeedsTheSameKindOfHostAndTheExactPort) {
  kyr::VHost* anyHost = kyr::VHostCreate(&ri_, nullptr, 80, false);
  kyr::VHost* specific = kyr::VHostCreate(&ri_, "host1", -1, false);
  EXPECT_TRUE(kyr::equals(anyHost, nullptr, 80));
  EXPECT_TRUE(kyr::equals(anyHost, "*", 80));
  EXPECT_FALSE(kyr::equals(anyHost, "host1", 80));
  EXPECT_FALSE(kyr::equals(anyHost, "*", -1));
  EXPECT_TRUE(kyr::equals(specific, "HOST1", -1));
  EXPECT_FALSE(kyr::equals(specific, "HOST1", 80));  // -1 only equals -1
  EXPECT_FALSE(kyr::equals(specific, "*", -1));
  EXPECT_FALSE(kyr::equals(specific, nullptr, -1));
  kyr::vHostDelete(anyHost);
  kyr::vHostDelete(specific);
}

TEST_F(VHostTest, CompareOrdersByPort) {
  kyr::VHost* a = kyr::VHostCreate(&ri_, "a", -1, false);
  kyr::VHost* b = kyr::VHostCreate(&ri_, "b", 80, false);
  kyr::VHost* c = kyr::VHostCreate(&ri_, "c", 80, false);
  EXPECT_EQ(kyr::compare(a, b), -1);
  EXPECT_EQ(kyr::compare(b, a), 1);
  EXPECT_EQ(kyr::compare(b, c), 0);
  for (kyr::VHost* vh : {a, b, c}) kyr::vHostDelete(vh);
}

TEST_F(VHostTest, OwnUriMatcherAnswersOnlyForTheAlias) {
  kyr::VHost* vh = kyr::VHostCreateWithURIMatcher(&ri_, "host1", 80);
  ASSERT_NE(kyr::getVhostUriMatcher(vh), nullptr);
  EXPECT_STREQ(kyr::getVhostUriMatcher(vh)->name, "host1:80");
  kyr::URIMatcherPut(kyr::getVhostUriMatcher(vh), "/a/*", target("A"), false);
  EXPECT_EQ(text(kyr::matchAndgetURIMatcher(vh, "HOST1", 80, "/a/x")), "A");
  EXPECT_EQ(text(kyr::matchAndgetURIMatcher(vh, "host2", 80, "/a/x")), "null");
  EXPECT_EQ(text(kyr::matchAndgetURIMatcher(vh, "host1", 81, "/a/x")), "null");
  kyr::vHostDelete(vh);

  kyr::VHost* bare = kyr::VHostCreate(&ri_, "host1", 80, false);
  EXPECT_EQ(kyr::matchAndgetURIMatcher(bare, "host1", 80, "/a/x"), nullptr);
  kyr::vHostDelete(bare);
}

TEST_F(VHostTest, PortTextAndJson) {
  char* port = kyr::intoch(-1);
  EXPECT_STREQ(port, "-1");
  kyr::kyrFree(port);
  kyr::VHost* vh = kyr::VHostCreate(&ri_, "Host1", 443, false);
  kyr::VHost* any = kyr::VHostCreate(&ri_, nullptr, 80, false);
  EXPECT_EQ(compact(kyr::vhostToJSON(vh)), R"({"host":"Host1","port":"443"})");
  EXPECT_EQ(compact(kyr::vhostToJSON(any)), R"({"host":"*","port":"80"})");
  kyr::vHostDelete(vh);
  kyr::vHostDelete(any);
}

// ---- VHostMatcher ------------------------------------------------------------------------------

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

  std::string info() {
    kyr::KyrStringBuffer* sb = kyr::sbCreate(8);
    kyr::addInfoVHostMatcher(vhtm_, sb);
    std::string out = kyr::sbStr(sb);
    kyr::sbDelete(sb);
    return out;
  }

  kyr::VHostMatcher* vhtm_ = nullptr;
};

TEST_F(VHostMatcherTest, SpecificAliasIsStoredAndMatchedIgnoringCase) {
  kyr::VHost* vh = kyr::putVHost(vhtm_, "host1", 80);
  ASSERT_NE(vh, nullptr);
  EXPECT_EQ(vhtm_->vhostArray[0], vh);
  EXPECT_EQ(vhtm_->vhostArray[1], nullptr);
  EXPECT_TRUE(accepts("host1", 80));
  EXPECT_TRUE(accepts("HOST1", 80));
  EXPECT_FALSE(accepts("host1.", 80));  // a trailing dot is a different host
  EXPECT_FALSE(accepts("host1", 81));
  EXPECT_FALSE(accepts(nullptr, 80));
  EXPECT_FALSE(accepts("host2", 80));
}

TEST_F(VHostMatcherTest, AnyHostOnAPortCoversAndPrunesSpecificAliases) {
  ASSERT_NE(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host2", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host1", 81), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", 80), nullptr);
  EXPECT_EQ(aliasCount(), 1);  // only host1:81 is left
  EXPECT_STREQ(vhtm_->vhostArray[0]->host, "host1");
  EXPECT_EQ(vhtm_->vhostArray[0]->port, 81);
  EXPECT_TRUE(accepts("anything", 80));
  EXPECT_FALSE(accepts("anything", 81));
  EXPECT_TRUE(accepts("host1", 81));
  // Covered from now on: nothing is added.
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  EXPECT_EQ(aliasCount(), 1);
  EXPECT_EQ(kyr::putVHost(vhtm_, nullptr, 8080), nullptr);  // null is any host too
  EXPECT_TRUE(accepts("x", 8080));
}

TEST_F(VHostMatcherTest, HostOnAnyPortCoversAndPrunesSpecificAliases) {
  ASSERT_NE(kyr::putVHost(vhtm_, "HOST1", 80), nullptr);
  ASSERT_NE(kyr::putVHost(vhtm_, "host2", 80), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", -1), nullptr);
  EXPECT_EQ(aliasCount(), 1);
  EXPECT_STREQ(vhtm_->vhostArray[0]->host, "host2");
  EXPECT_TRUE(accepts("Host1", 9999));
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 443), nullptr);  // already accepted on any port
  EXPECT_EQ(aliasCount(), 1);
}

TEST_F(VHostMatcherTest, OnlyTheFirstAnyPortHostCountsDeliberately) {
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", -1), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "host2", -1), nullptr);
  EXPECT_TRUE(kyr::containsHost(vhtm_, "HOST1"));
  EXPECT_FALSE(kyr::containsHost(vhtm_, "host2"));
  EXPECT_TRUE(accepts("host1", 1234));
  EXPECT_FALSE(accepts("host2", 1234));  // the second is never consulted
  // Nor does it suppress a specific alias for itself.
  EXPECT_NE(kyr::putVHost(vhtm_, "host2", 1234), nullptr);
  EXPECT_TRUE(accepts("host2", 1234));
  // A port entry accepts it as any host.
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", 5678), nullptr);
  EXPECT_TRUE(accepts("host2", 5678));
}

TEST_F(VHostMatcherTest, AnyHostAnyPortAcceptsEverythingAndEndsAdditions) {
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", -1), nullptr);
  EXPECT_TRUE(vhtm_->any);
  EXPECT_TRUE(accepts("whatever", 1));
  EXPECT_TRUE(accepts(nullptr, -5));
  EXPECT_EQ(kyr::putVHost(vhtm_, "host1", 80), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "host2", -1), nullptr);
  EXPECT_EQ(kyr::putVHost(vhtm_, "*", 81), nullptr);
  EXPECT_EQ(aliasCount(), 0);
  EXPECT_TRUE(vhtm_->hosts.empty());
  EXPECT_TRUE(vhtm_->ports.empty());
}

TEST_F(VHostMatcherTest, ContainsPortChecksEveryPort) {
  kyr::putVHost(vhtm_, "*", 80);
  kyr::putVHost(vhtm_, "*", 443);
  EXPECT_TRUE(kyr::containsPort(vhtm_, 80));
  EXPECT_TRUE(kyr::containsPort(vhtm_, 443));
  EXPECT_FALSE(kyr::containsPort(vhtm_, 8080));
  EXPECT_FALSE(kyr::containsHost(vhtm_, "x"));  // no any-port host at all
}

TEST_F(VHostMatcherTest, DelVHostRemovesTheAlias) {
  kyr::VHost* a = kyr::putVHost(vhtm_, "a", 1);
  kyr::VHost* b = kyr::putVHost(vhtm_, "b", 2);
  kyr::delVHost(vhtm_, a);
  EXPECT_EQ(aliasCount(), 1);
  EXPECT_EQ(vhtm_->vhostArray[0], b);
  EXPECT_FALSE(accepts("a", 1));
  EXPECT_TRUE(accepts("b", 2));
}

TEST_F(VHostMatcherTest, PruneByHostAndPortWithoutAdding) {
  kyr::putVHost(vhtm_, "a", 1);
  kyr::putVHost(vhtm_, "A", 2);
  kyr::putVHost(vhtm_, "b", 1);
  kyr::pruneByPort(vhtm_, 1);
  EXPECT_EQ(aliasCount(), 1);
  kyr::pruneByHost(vhtm_, "a");
  EXPECT_EQ(aliasCount(), 0);
  EXPECT_EQ(vhtm_->vhostArray[0], nullptr);
}

TEST_F(VHostMatcherTest, CallerStringsMayGoAway) {
  std::string host = "transient";
  kyr::putVHost(vhtm_, host.c_str(), -1);
  host.assign("overwritten");
  EXPECT_TRUE(accepts("TRANSIENT", 1));
}

TEST_F(VHostMatcherTest, GroupUriMatcherCarriesTheGroupName) {
  EXPECT_STREQ(kyr::getVHostMatcherName(vhtm_), "default_host");
  EXPECT_EQ(kyr::vhostMatcherGetRoutingInfo(vhtm_), &ri_);
  EXPECT_STREQ(kyr::getURIMatcher(vhtm_)->name, "default_host");
  kyr::URIMatcherPut(kyr::getURIMatcher(vhtm_), "/app/*", target("app"), false);
  EXPECT_EQ(text(kyr::matchVHostURI(vhtm_, "/app/x", nullptr)), "app");
}

TEST_F(VHostMatcherTest, TextDump) {
  kyr::putVHost(vhtm_, "*", 80);
  kyr::putVHost(vhtm_, "*", 443);
  kyr::putVHost(vhtm_, "h1", -1);
  kyr::putVHost(vhtm_, "h2", -1);
  kyr::putVHost(vhtm_, "h3", 9080);
  kyr::putVHost(vhtm_, "h4", 9443);
  kyr::URIMatcherPut(kyr::getURIMatcher(vhtm_), "/app/*", target("app"), false);
  EXPECT_EQ(info(),
            "vhost default_host"
            "\n    any=false"
            "\n    ports=(80,443)"
            "\n    hosts=(h1,h2)"
            "\n    hosts:ports=(h3:9080,h4:9443)\n"
            "\ngenAppTree:"
            "\nrealAppTree:"
            "\n  chars='/app' exact=app"
            "\n    chars='/' exact=app prefix=app");
}

TEST_F(VHostMatcherTest, JsonListsSpecificAliasesThenAnyHostPorts) {
  kyr::putVHost(vhtm_, "h1", -1);  // not written
  kyr::putVHost(vhtm_, "*", 80);
  kyr::putVHost(vhtm_, "h3", 9080);
  EXPECT_EQ(compact(kyr::vhostMatcherToJSON(vhtm_)),
            R"({"VHostGroup":"default_host","VHosts":[{"host":"h3","port":"9080"},)"
            R"({"host":"*","port":"80"}]})");
}

TEST_F(VHostMatcherTest, EmptyGroupDumps) {
  EXPECT_EQ(compact(kyr::vhostMatcherToJSON(vhtm_)),
            R"({"VHostGroup":"default_host","VHosts":[]})");
  EXPECT_EQ(info(),
            "vhost default_host\n    any=false\n    ports=()\n    hosts=()\n    hosts:ports=()\n"
            "\ngenAppTree:\nrealAppTree:");
  EXPECT_FALSE(accepts("x", 80));
}

TEST_F(VHostMatcherTest, MatchTracesEnterMatchAndExit) {
  traceMapping();
  kyr::putVHost(vhtm_, "host1", 80);
  EXPECT_TRUE(accepts("host1", 80));
  EXPECT_TRUE(printedContains("matchVHost: enter - host=host1, port=80"));
  EXPECT_TRUE(printedContains("matchVHost: matched request to vhost=default_host"));
  EXPECT_TRUE(printedContains("matchVHost: exit - rc=1"));
}

}  // namespace
