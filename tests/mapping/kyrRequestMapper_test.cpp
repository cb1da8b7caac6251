// The request mapper's own objects: application roots outliving editions, the SSL map mode
// texts, affinity policies and what drops them, the old publishers' modules that cover their
// whole root, and cutting a path at its parameters.
#include "mapping/kyrRequestMapper.h"

#include <gtest/gtest.h>

#include "core/kyrRoutingInfo.h"
#include "mapping/URIMatcher.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"

namespace {

using namespace kyr;

class RequestMapperObjects : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    rm_ = kyrRoutingInfoGetRequestMapper(kyr_->routingInfo);
    app_ = rmApplicationCreate(rm_, "/cell/c/application/shop");
    wm_ = rmWebModuleCreate(app_, "/cell/c/application/shop/webModule/w", 2);
  }
  void TearDown() override { kyrDestroy(kyr_); }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  RequestMapper* rm_ = nullptr;
  Application* app_ = nullptr;
  WebModule* wm_ = nullptr;
};

TEST_F(RequestMapperObjects, EditionsShareARootUntilTheLastOneGoes) {
  Application* second = rmApplicationCreate(rm_, "/cell/c/application/shop-edition2");
  ASSERT_EQ(second->root, app_->root);
  ASSERT_TRUE(rmApplicationSetPropStr(second, "edition", "2"));
  EXPECT_EQ(getApplicationByEdition(app_, "2"), second);
  rmApplicationDelete(app_);
  EXPECT_EQ(getApplicationByEdition(second, ""), nullptr);
  EXPECT_NE(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), nullptr);
  rmApplicationDelete(second);  // the root goes with its last edition
  EXPECT_EQ(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), nullptr);
}

TEST_F(RequestMapperObjects, ProtocolMapTakesExactTextsAndNullResets) {
  struct {
    const char* text;
    bool accepted;
    KyrSSLMapMode mode;
  } rows[] = {{"direct", true, MapInboundToOutbound},
              {"http", true, SSLOffLoad},
              {"https", true, SSLOnLoad},
              {"HTTP", false, SSLOnLoad},
              {nullptr, true, NullMapMode}};
  for (const auto& row : rows) {
    EXPECT_EQ(rmWebModuleSetPropStr(wm_, "protocolMap", row.text), row.accepted)
        << (row.text ? row.text : "null");
    EXPECT_EQ(rmWebModuleGetSSLMapMode(wm_), row.mode) << (row.text ? row.text : "null");
  }
  EXPECT_FALSE(rmWebModuleSetPropBool(wm_, "routingEnabled", true));  // known, refused
}

// Policies are built on first use from the cookies in force, so a change must drop them.
TEST_F(RequestMapperObjects, AffinityPoliciesAreOwnedAndDroppedWhenTheCookiesChange) {
  auto** names = static_cast<char**>(kyrMalloc(3 * sizeof(char*)));
  names[0] = kyrStrdup("JSESSIONID");
  names[1] = kyrStrdup("SSO");
  names[2] = nullptr;
  HttpAffinityPolicy* hap = hapCreate(wm_, names, ":", true);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), hap);
  EXPECT_STREQ(hapGetCookieNames(hap)[1], "SSO");
  // A second policy replaces the first, which is freed (ASan and the memory counter see it).
  HttpAffinityPolicy* described = hapCreate1(wm_, nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), described);

  EXPECT_TRUE(rmApplicationSetPropStr(app_, "sessionAffinityCookies", "JSESSIONID"));
  EXPECT_TRUE(rmApplicationSetPropNull(app_, "sessionAffinityCookies"));
  EXPECT_EQ(appGetSessionAffinityCookies(app_), nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm_), nullptr);
}

TEST_F(RequestMapperObjects, OldPublishersModulesCoverEverythingBelowTheirRoot) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/GenericApplication");
  WebModule* old = rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/g", -1);
  rmWebModuleSetPropStr(old, "contextRoot", "/");
  rmWebModuleInit(old);
  WebModule* current =
      rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/h", 1);
  rmWebModuleInit(current);
  ASSERT_EQ(kyrListGetCount(old->uris), 1);
  EXPECT_STREQ(static_cast<const char*>(kyrListEleGetObject(kyrListGetHead(old->uris))), "*");
  EXPECT_EQ(kyrListGetCount(current->uris), 0);

  VHostMatcher* group = createVHostMatcher(kyr_->routingInfo, "/cell/c/vHostGroup/default_host");
  rmAddVHostMatcher(rm_, group);
  putVHost(group, "*", -1);
  rmLinkVHostAndWebModule(group, old, true);
  // "/*" of a generic application is the catch-all.
  EXPECT_EQ(URIMatcherMatch(getURIMatcher(group), "/anything/at/all", nullptr), old);
  // Unlinking leaves the patterns until the version is rebuilt.
  rmLinkVHostAndWebModule(group, old, false);
  EXPECT_EQ(URIMatcherMatch(getURIMatcher(group), "/anything/at/all", nullptr), old);
}

TEST_F(RequestMapperObjects, PathOnlyCutsAtTheFirstParameterOrQuery) {
  const char* plain = "/app/x";
  EXPECT_EQ(pathOnly(plain), plain);  // nothing to cut: the same text
  for (const char* s : {"/app/x;jsessionid=1?a=b", "/app/x?a=b;c", "/app/x;"}) {
    const char* cut = pathOnly(s);
    EXPECT_STREQ(cut, "/app/x") << s;
    kyrFree(const_cast<char*>(cut));
  }
}

}  // namespace
