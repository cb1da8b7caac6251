// The request mapper's own objects: application roots across editions, web module properties,
// affinity policies, links to clusters and virtual host groups, and the state dump.
#include <gtest/gtest.h>

#include <string>

#include "core/kyrRoutingInfo.h"
#include "mapping/URIMatcher.h"
#include "mapping/kyrRequestMapper.h"
#include "runtime/kyrLibUtil.h"
#include "selection/kyrTargetSelector.h"
#include "support/kyrTestHost.h"

namespace {

using namespace kyr;

class RequestMapperObjects : public ::testing::Test {
 protected:
  void SetUp() override {
    kyr_ = host_.create();
    rm_ = kyrRoutingInfoGetRequestMapper(kyr_->routingInfo);
  }
  void TearDown() override { kyrDestroy(kyr_); }

  std::string dump(json_t* json) {
    char* text = json_dumps(json, JSON_COMPACT | JSON_SORT_KEYS);
    std::string s = text;
    free(text);
    json_decref(json);
    return s;
  }

  kyrtest::TestHost host_;
  Kyr* kyr_ = nullptr;
  RequestMapper* rm_ = nullptr;
};

TEST_F(RequestMapperObjects, EditionsShareARootUntilTheLastOneGoes) {
  char* rootName = appNameToAppRootName("shop-edition2");
  EXPECT_STREQ(rootName, "shop");
  kyrFree(rootName);
  Application* first = rmApplicationCreate(rm_, "/cell/c/application/shop");
  Application* second = rmApplicationCreate(rm_, "/cell/c/application/shop-edition2");
  Application* other = rmApplicationCreate(rm_, "/cell/c/application/cart");
  EXPECT_STREQ(first->root->name, "/cell/c/application/shop");
  EXPECT_EQ(second->root, first->root);
  EXPECT_NE(other->root, first->root);
  EXPECT_STREQ(rmApplicationGetSimpleName(second), "shop-edition2");
  EXPECT_STREQ(first->edition, "");
  ASSERT_TRUE(rmApplicationSetPropStr(second, "edition", "2"));
  EXPECT_EQ(getApplicationByEdition(first, "2"), second);
  EXPECT_EQ(getApplicationByEdition(first, ""), first);

  rmApplicationDelete(first);
  EXPECT_EQ(getApplicationByEdition(second, ""), nullptr);
  ApplicationRoot* root = second->root;
  EXPECT_EQ(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), root);
  rmApplicationDelete(second);  // the root goes with its last edition
  EXPECT_EQ(kyrHashGet(rm_->appRoots, "/cell/c/application/shop"), nullptr);
}

TEST_F(RequestMapperObjects, ApplicationPropertiesAndClearingCookiesDropsPolicies) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/shop");
  WebModule* wm = rmWebModuleCreate(app, "/cell/c/application/shop/webModule/w", 2);
  EXPECT_TRUE(rmApplicationSetPropStr(app, "state", "STARTED"));
  EXPECT_TRUE(rmApplicationSetPropStr(app, "sessionAffinityCookies", "JSESSIONID"));
  EXPECT_FALSE(rmApplicationSetPropStr(app, "State", "x"));
  EXPECT_FALSE(rmApplicationSetPropInt(app, "state", 1));
  EXPECT_FALSE(rmApplicationSetPropBool(app, "state", true));
  EXPECT_FALSE(rmApplicationSetPropNull(app, "state"));
  hapCreate1(wm, "descriptor");
  ASSERT_NE(wmGetHttpAffinityPolicy(wm), nullptr);
  EXPECT_TRUE(rmApplicationSetPropNull(app, "sessionAffinityCookies"));
  EXPECT_EQ(appGetSessionAffinityCookies(app), nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm), nullptr);  // rebuilt on next use
}

TEST_F(RequestMapperObjects, WebModulePropertiesTakeExactNamesAndValues) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/shop");
  WebModule* wm = rmWebModuleCreate(app, "/cell/c/application/shop/webModule/w", 2);
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), NullMapMode);
  EXPECT_TRUE(rmWebModuleSetPropStr(wm, "protocolMap", "direct"));
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), MapInboundToOutbound);
  EXPECT_TRUE(rmWebModuleSetPropStr(wm, "protocolMap", "http"));
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), SSLOffLoad);
  EXPECT_TRUE(rmWebModuleSetPropStr(wm, "protocolMap", "https"));
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), SSLOnLoad);
  EXPECT_FALSE(rmWebModuleSetPropStr(wm, "protocolMap", "HTTP"));  // case matters
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), SSLOnLoad);
  EXPECT_TRUE(rmWebModuleSetPropStr(wm, "protocolMap", nullptr));
  EXPECT_EQ(rmWebModuleGetSSLMapMode(wm), NullMapMode);

  EXPECT_TRUE(rmWebModuleGetFileServingEnabled(wm));
  EXPECT_TRUE(rmWebModuleSetPropBool(wm, "fileServingEnabled", false));
  EXPECT_FALSE(rmWebModuleGetFileServingEnabled(wm));
  EXPECT_FALSE(rmWebModuleSetPropBool(wm, "routingEnabled", true));  // known, refused
  EXPECT_FALSE(rmWebModuleSetPropInt(wm, "contextRoot", 1));
  EXPECT_TRUE(rmWebModuleSetPropStr(wm, "contextRoot", "/shop"));
  EXPECT_STREQ(wmGetContextRoot(wm), "/shop");
  EXPECT_STREQ(rmWebModuleGetAppSimpleName(wm), "shop");
}

TEST_F(RequestMapperObjects, OldPublishersModulesCoverEverythingBelowTheirRoot) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/GenericApplication");
  WebModule* old = rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/g", -1);
  rmWebModuleSetPropStr(old, "contextRoot", "/");
  rmWebModuleInit(old);
  WebModule* current = rmWebModuleCreate(app, "/cell/c/application/GenericApplication/webModule/h", 1);
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

TEST_F(RequestMapperObjects, ClusterLinksAreKeptOncePerNameAndRemoved) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/shop");
  WebModule* wm = rmWebModuleCreate(app, "/cell/c/application/shop/webModule/w", 2);
  TargetSelector* ts = kyrRoutingInfoGetTargetSelector(kyr_->routingInfo);
  Cluster* web = tsClusterCreate(ts, "/cell/c/cluster/web");
  Cluster* batch = tsClusterCreate(ts, "/cell/c/cluster/batch");
  EXPECT_TRUE(rmLinkClusterToWebModule(web, wm, true));
  EXPECT_TRUE(rmLinkClusterToWebModule(web, wm, true));
  EXPECT_TRUE(rmLinkClusterToWebModule(batch, wm, true));
  EXPECT_EQ(kyrListGetCount(wmGetClusters(wm)), 2);
  EXPECT_TRUE(rmLinkClusterToWebModule(web, wm, false));
  ASSERT_EQ(kyrListGetCount(wmGetClusters(wm)), 1);
  EXPECT_STREQ(static_cast<const char*>(kyrListEleGetObject(kyrListGetHead(wmGetClusters(wm)))),
               "/cell/c/cluster/batch");
}

TEST_F(RequestMapperObjects, AffinityPoliciesOwnWhatTheyAreGiven) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/shop");
  WebModule* wm = rmWebModuleCreate(app, "/cell/c/application/shop/webModule/w", 2);
  auto** names = static_cast<char**>(kyrMalloc(3 * sizeof(char*)));
  names[0] = kyrStrdup("JSESSIONID");
  names[1] = kyrStrdup("SSO");
  HttpAffinityPolicy* hap = hapCreate(wm, names, ":", true);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm), hap);
  EXPECT_STREQ(hapGetCookieNames(hap)[1], "SSO");
  EXPECT_STREQ(hapGetDelimiter(hap), ":");
  EXPECT_TRUE(hapGetLearnServerIDs(hap));
  // A second policy replaces the first, which is freed (ASan and the memory counter see it).
  HttpAffinityPolicy* described = hapCreate1(wm, nullptr);
  EXPECT_EQ(wmGetHttpAffinityPolicy(wm), described);
  EXPECT_EQ(described->descriptor, nullptr);
  EXPECT_EQ(hapGetCookieNames(described), nullptr);
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

TEST_F(RequestMapperObjects, DumpShowsRootsEditionsAndModules) {
  Application* app = rmApplicationCreate(rm_, "/cell/c/application/shop");
  rmApplicationSetEdition(app, "1.0");
  WebModule* wm = rmWebModuleCreate(app, "/cell/c/application/shop/webModule/w", 2);
  rmWebModuleSetPropStr(wm, "contextRoot", "/shop");
  rmWebModuleAddUri(wm, "/*");
  EXPECT_EQ(dump(rmToJSON(rm_)),
            R"({"applications":{"/cell/c/application/shop":{"editions":[{"edition":"1.0",)"
            R"("name":"/cell/c/application/shop","webModules":{"/cell/c/application/shop/webModule/w":)"
            R"({"clusters":[],"contextRoot":"/shop","fileServingEnabled":true,"sslMapMode":"null",)"
            R"("uris":["/*"]}}}]}},"urlMatcher":{"VHostGroups":[]}})");
}

}  // namespace
