// The request mapper: the half of a routing version that turns a request's virtual host, port
// and path into a web module of an application edition. It owns the applications (grouped by
// root name across their editions), their web modules, the modules' affinity policies and the
// URL matcher the modules are registered in.
#pragma once

#include <jansson.h>

#include "kyrlib.h"
#include "mapping/kyrURLMatcher.h"
#include "runtime/kyrHash.h"
#include "runtime/kyrList.h"
#include "runtime/kyrLock.h"

namespace kyr {

struct KyrRoutingInfo;
struct VirtualCluster;
struct Cluster;
struct WebRouteWorkClass;

// How a module's requests keep their server: built on first need by target selection, or given
// as a descriptor text by the publisher.
struct HttpAffinityPolicy {
  char* descriptor;
  char** cookieNames;  // null-terminated
  char* delimiter;
  bool learnServerIDs;
};

struct ApplicationRoot {
  char* name;                     // the application name without its "-edition" suffix
  KyrList* applications;          // of Application, one per edition, not owning
  struct Application** editions;  // published null-terminated copy of applications
};

struct Application {
  struct RequestMapper* rm;
  char* name;                    // full object name
  char* simpleName;              // last segment of the name
  char* edition;                 // "" until the publisher names one; published
  char* sessionAffinityCookies;  // published
  char* state;
  ApplicationRoot* root;
  KyrList* webModules;                          // of WebModule, owning
  struct WebModule** webModuleArray;            // published null-terminated copy of webModules
  KyrList* webRouteWorkClasses;                 // of WebRouteWorkClass, owning
  WebRouteWorkClass* defaultWebRouteWorkClass;  // its rules choose the edition; null: none;
                                                // published
};

struct WebModule {
  struct RequestMapper* rm;
  Application* application;
  char* name;                    // full object name; also the name of its virtual cluster
  int nameHash;                  // kyrHashCompute(name): selection looks the module up by it
  char* contextRoot;             // published
  char* sessionAffinityCookies;  // published
  KyrSSLMapMode sslMapMode;      // published
  KyrList* uris;                 // of URI pattern strings, owning
  // Published. Built by target selection on first need (under the selector lock) and dropped
  // by the routing data to be rebuilt; a request may keep using a dropped one, so it is retired.
  HttpAffinityPolicy* hap;
  KyrList* clusters;               // of cluster names, owning
  bool fileServingEnabled;         // published
  int restVersion;                 // the publisher's protocol level when the module was created
  VirtualCluster* virtualCluster;  // the target selector's half of this module
};

// A virtual host alias as the routing data announces it: host and port arrive as properties
// and become an alias of the group once both are known.
struct VHostEntry {
  struct RequestMapper* rm;
  VHostMatcher* group;  // null once the group is gone
  VHost* entry;         // the group's alias, when it kept a specific one
  char* host;           // "*" until set
  int port;             // -1 (any) until set
};

struct RequestMapper {
  KyrRoutingInfo* ri;
  KyrLock* lock;         // guards appRoots while applications come and go
  KyrHashMap* appRoots;  // root name -> ApplicationRoot
  URLMatcher* matcher;
  KyrList* applications;  // of Application, owning: every application of the version
  KyrList* vHostEntries;  // of VHostEntry, owning
  TrContext* trCtx;
  TrRecord* debugCtl;
  TrRecord* debugReq;
  TrRecord* rolloutRec;
};

RequestMapper* rmCreate(KyrRoutingInfo* ri);
void rmDelete(RequestMapper* rm);
KyrRoutingInfo* rmGetRoutingInfo(RequestMapper* rm);
URLMatcher* rmGetURLMatcher(RequestMapper* rm);

// The name up to the first "-edition", or the whole name.
char* appNameToAppRootName(const char* appName);

Application* rmApplicationCreate(RequestMapper* rm, const char* name);
void rmApplicationDelete(Application* app);
KyrRoutingInfo* rmApplicationGetRoutingInfo(Application* app);
const char* rmApplicationGetSimpleName(Application* app);
void rmApplicationSetState(Application* app, const char* state);
void rmApplicationSetEdition(Application* app, const char* edition);
void rmApplicationSetSessionAffinityCookies(Application* app, const char* cookies);
bool rmApplicationSetPropStr(Application* app, const char* name, const char* value);
bool rmApplicationSetPropInt(Application* app, const char* name, int value);
bool rmApplicationSetPropBool(Application* app, const char* name, bool value);
bool rmApplicationSetPropNull(Application* app, const char* name);
// The first application under the same root with exactly that edition, or null.
Application* getApplicationByEdition(Application* app, const char* edition);
const char* appGetSessionAffinityCookies(Application* app);
void appAddWebModule(Application* app, WebModule* wm);

WebModule* rmWebModuleCreate(Application* app, const char* name, int restVersion);
void rmWebModuleInit(WebModule* wm);
void rmWebModuleDelete(WebModule* wm);
void rmWebModuleAddUri(WebModule* wm, const char* uri);
bool rmWebModuleSetPropStr(WebModule* wm, const char* name, const char* value);
bool rmWebModuleSetPropInt(WebModule* wm, const char* name, int value);
bool rmWebModuleSetPropBool(WebModule* wm, const char* name, bool value);
const char* rmWebModuleGetName(WebModule* wm);
const char* rmWebModuleGetAppSimpleName(WebModule* wm);
KyrSSLMapMode rmWebModuleGetSSLMapMode(WebModule* wm);
void rmWebModuleSetFileServingEnabled(WebModule* wm, bool enabled);
bool rmWebModuleGetFileServingEnabled(WebModule* wm);
const char* wmGetName(WebModule* wm);
const char* wmGetContextRoot(WebModule* wm);
Application* wmGetApplication(WebModule* wm);
HttpAffinityPolicy* wmGetHttpAffinityPolicy(WebModule* wm);
KyrList* wmGetClusters(WebModule* wm);
const char* wmGetSessionAffinityCookies(WebModule* wm);
void wmSetSessionAffinityCookies(WebModule* wm, const char* cookies);

// Affinity policies, installed as the module's own (a previous one is retired).
HttpAffinityPolicy* hapCreate(WebModule* wm, char** cookieNames, const char* delimiter,
                              bool learnServerIDs);
HttpAffinityPolicy* hapCreate1(WebModule* wm, const char* descriptor);
const char* hapGetDelimiter(HttpAffinityPolicy* hap);
char** hapGetCookieNames(HttpAffinityPolicy* hap);
bool hapGetLearnServerIDs(HttpAffinityPolicy* hap);
void hapDelete(HttpAffinityPolicy* hap);
// Drops the module's policy so that the next request builds it anew.
void wmDropHttpAffinityPolicy(WebModule* wm);
// Frees a module that is no longer part of any application; only with its version.
void rmWebModuleFree(void* wm);
// Makes the URI patterns put since the last publish visible to requests: once per document.
void rmPublish(RequestMapper* rm);
// Publishes the application's modules as the array requests walk.
void appPublishWebModules(Application* app);

void rmAddVHostMatcher(RequestMapper* rm, VHostMatcher* vhostMatcher);
// Deletes a group the URL matcher holds; its aliases' records stay until they are deleted.
void rmDeleteVHostMatcher(RequestMapper* rm, VHostMatcher* vhostMatcher);

VHostEntry* rmVHostEntryCreate(RequestMapper* rm, VHostMatcher* group);
bool rmVHostEntrySetPropStr(VHostEntry* vh, const char* name, const char* value);  // "host"
bool rmVHostEntrySetPropInt(VHostEntry* vh, const char* name, int value);          // "port"
void rmVHostEntryInit(VHostEntry* vh);  // puts the alias into its group
void kyrVHostDelete(VHostEntry* vh);
void vHostEntryFree(void* vh);  // the mapper's list destructor
void rmLinkVHostAndWebModule(VHostMatcher* vhostMatcher, WebModule* wm, bool add);
bool rmLinkClusterToWebModule(Cluster* cluster, WebModule* wm, bool add);

// The path without parameters and query: a counted copy when cut, else `s` itself.
const char* pathOnly(const char* s);

// 1 mapped (or decided by an edition routing rule), 0 not mapped, -1 bad request.
int rmMapRequest(RequestMapper* rm, KyrHttpContext* ctx);
// The edition the application's routing rules choose for the request, or null when they
// rejected or redirected it (the decision is on the context).
const char* evaluateAppEditionRoutingRules(Application* app, KyrHttpContext* ctx);

json_t* wmToJSON(WebModule* wm);
json_t* appToJSON(Application* app);
json_t* appRootToJSON(ApplicationRoot* root);
json_t* rmToJSON(RequestMapper* rm);

}  // namespace kyr
