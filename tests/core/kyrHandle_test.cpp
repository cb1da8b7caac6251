// The library handle as a host meets it: kyrCreate's checks of the callback table and the
// handle it returns, the custom properties with their web-server-over-cell precedence, the
// server name and the paths derived from it, the trace settings and the plain accessors.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <memory>
#include <string>

#include "connector/kyrConnectorGroup.h"
#include "core/kyr.h"
#include "core/kyrHandleTestUtil.h"
#include "core/kyrRoutingInfo.h"
#include "runtime/kyrLibUtil.h"
#include "support/kyrTestHost.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::countPrinted;
using kyrtest::HandleFixture;
using kyrtest::printed;
using kyrtest::settledMemCount;

// What kyrCreate wrote on standard error, and the handle (NULL on failure).
struct CreateResult {
  Kyr* kyr;
  std::string err;
};

CreateResult createCapturingStderr(EnvCallBacks* env, FILE* fp, const char* path) {
  testing::internal::CaptureStderr();
  Kyr* kyr = kyrCreate(env, fp, path);
  return {kyr, testing::internal::GetCapturedStderr()};
}

int openDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// ---- kyrCreate ------------------------------------------------------------------------------

constexpr char kCallbackMessageStart[] = "ERROR: KYR library initialization failure: EnvCallBacks.";
constexpr char kCallbackMessageEnd[] = " is invalid in call to kyrCreate\n";

// One required member of the table: copies that member only, from one table to another.
struct Required {
  const char* name;
  void (*copy)(EnvCallBacks& to, const EnvCallBacks& from);
};

// In the order kyrCreate checks them (its repeated getProtocol check cannot be told apart).
const Required kRequired[] = {
    {"http.request.getProtocol",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getProtocol = f.http.request.getProtocol;
     }},
    {"http.request.getVirtualHost",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getVirtualHost = f.http.request.getVirtualHost;
     }},
    {"http.request.getVirtualPort",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getVirtualPort = f.http.request.getVirtualPort;
     }},
    {"http.request.getPath",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getPath = f.http.request.getPath;
     }},
    {"http.request.getClientIpAddr",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getClientIpAddr = f.http.request.getClientIpAddr;
     }},
    {"http.request.getListeningPort",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getListeningPort = f.http.request.getListeningPort;
     }},
    {"http.request.getProtocolVersion",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getProtocolVersion = f.http.request.getProtocolVersion;
     }},
    {"http.request.getClientCertificate",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getClientCertificate = f.http.request.getClientCertificate;
     }},
    {"http.request.getSSLCipherSuite",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getSSLCipherSuite = f.http.request.getSSLCipherSuite;
     }},
    {"http.request.getSSLSessionId",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getSSLSessionId = f.http.request.getSSLSessionId;
     }},
    {"http.request.getAuthType",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getAuthType = f.http.request.getAuthType;
     }},
    {"http.request.getUserName",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getUserName = f.http.request.getUserName;
     }},
    {"http.request.setHeaderValue",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.setHeaderValue = f.http.request.setHeaderValue;
     }},
    {"http.request.getCookieValue",
     [](EnvCallBacks& t, const EnvCallBacks& f) {
       t.http.request.getCookieValue = f.http.request.getCookieValue;
     }},
};

TEST(HandleCreate, NullTableIsRefused) {
  CreateResult r = createCapturingStderr(nullptr, nullptr, KYR_TRACE_CATALOGUE);
  EXPECT_EQ(r.kyr, nullptr);
  EXPECT_EQ(r.err, "ERROR: first argument (EnvCallBacks) to kyrCreate must not be NULL\n");
}

TEST(HandleCreate, VersionOneLessIsRefusedNamingBothNumbers) {
  EnvCallBacks env = kyrtest::completeCallbacks();
  env.version = KYR_ENV_CALLBACKS_VERSION - 1;
  CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
  EXPECT_EQ(r.kyr, nullptr);
  EXPECT_EQ(r.err,
            "ERROR: KYR library initialization failure: EnvCallBacks.version is invalid in call "
            "to kyrCreate: 19357 != 19358\n");
}

TEST(HandleCreate, EachMissingRequiredCallbackIsNamed) {
  const EnvCallBacks complete = kyrtest::completeCallbacks();
  const EnvCallBacks none{};
  for (const Required& member : kRequired) {
    EnvCallBacks env = complete;
    member.copy(env, none);
    CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
    EXPECT_EQ(r.kyr, nullptr) << member.name;
    EXPECT_EQ(r.err, std::string(kCallbackMessageStart) + member.name + kCallbackMessageEnd);
  }
}

TEST(HandleCreate, MissingRequiredCallbacksAreReportedInCheckOrderOneAtATime) {
  const EnvCallBacks complete = kyrtest::completeCallbacks();
  const EnvCallBacks none{};
  EnvCallBacks env = complete;
  for (const Required& member : kRequired) member.copy(env, none);
  // Giving back the first missing member each time moves the message on to the next one.
  for (const Required& member : kRequired) {
    CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
    EXPECT_EQ(r.kyr, nullptr);
    EXPECT_EQ(r.err, std::string(kCallbackMessageStart) + member.name + kCallbackMessageEnd);
    member.copy(env, complete);
  }
  CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
  ASSERT_NE(r.kyr, nullptr);
  EXPECT_EQ(r.err, "");
  kyrDestroy(r.kyr);
}

TEST(HandleCreate, OptionalCallbacksMayAllBeMissing) {
  const EnvCallBacks complete = kyrtest::completeCallbacks();
  EnvCallBacks env{};
  env.version = KYR_ENV_CALLBACKS_VERSION;
  for (const Required& member : kRequired) member.copy(env, complete);
  CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
  ASSERT_NE(r.kyr, nullptr);
  EXPECT_EQ(r.err, "");
  kyrDestroy(r.kyr);
}

TEST(HandleCreate, StreamAndPathBothNullAreRefused) {
  EnvCallBacks env = kyrtest::completeCallbacks();
  CreateResult r = createCapturingStderr(&env, nullptr, nullptr);
  EXPECT_EQ(r.kyr, nullptr);
  EXPECT_EQ(r.err, "ERROR: both 2nd and 3rd arguments to kyrCreate may not be NULL\n");
}

TEST(HandleCreate, UnreadablePathIsRefusedWithTheSystemsReason) {
  EnvCallBacks env = kyrtest::completeCallbacks();
  CreateResult r = createCapturingStderr(&env, nullptr, "/nonexistent/kyr-trace.xml");
  EXPECT_EQ(r.kyr, nullptr);
  EXPECT_EQ(r.err,
            "ERROR: failed to open /nonexistent/kyr-trace.xml in kyrCreate: No such file or "
            "directory\n");
}

TEST(HandleCreate, RefusedCreationsLeaveNothingBehind) {
  int baseline = settledMemCount();
  int descriptors = openDescriptors();
  EnvCallBacks env = kyrtest::completeCallbacks();
  env.http.request.getCookieValue = nullptr;
  EXPECT_EQ(createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE).kyr, nullptr);
  env = kyrtest::completeCallbacks();
  EXPECT_EQ(createCapturingStderr(&env, nullptr, nullptr).kyr, nullptr);
  EXPECT_EQ(createCapturingStderr(&env, nullptr, "/nonexistent/x.xml").kyr, nullptr);
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
  EXPECT_EQ(descriptors, openDescriptors());
}

TEST(HandleCreate, CatalogueOpenedFromThePathIsClosedWithTheHandle) {
  int descriptors = openDescriptors();
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  kyrDestroy(kyr);
  EXPECT_EQ(descriptors, openDescriptors());
}

TEST(HandleCreate, CatalogueStreamOfTheHostIsLeftOpen) {
  int fd = open(KYR_TRACE_CATALOGUE, O_RDONLY);
  ASSERT_GE(fd, 0);
  FILE* fp = fdopen(fd, "r");
  kyrtest::TestHost host;
  Kyr* kyr = kyrCreate(&host.env, fp, nullptr);
  ASSERT_NE(kyr, nullptr);
  EXPECT_NE(trMgrGetRecord(kyr->trMgr, "control.process"), nullptr);
  kyrDestroy(kyr);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);  // still open: the host closes what it opened
  fclose(fp);
}

TEST(HandleCreate, TableIsCopiedAndTheHostsCopyMayGo) {
  auto host = std::make_unique<kyrtest::TestHost>();
  const EnvCallBacks given = host->env;
  Kyr* kyr = host->create();
  ASSERT_NE(kyr, nullptr);
  host.reset();
  EXPECT_EQ(kyrGetEnvCallBacks(kyr), &kyr->env);
  EXPECT_EQ(kyr->env.version, KYR_ENV_CALLBACKS_VERSION);
  EXPECT_EQ(kyr->env.http.request.getPath, given.http.request.getPath);
  EXPECT_EQ(kyr->env.http.response.setCookieValue, given.http.response.setCookieValue);
  EXPECT_EQ(kyr->env.stateChange.kyr, given.stateChange.kyr);
  EXPECT_EQ(kyr->env.trace.printf, given.trace.printf);
  kyrDestroy(kyr);
}

std::promise<void>* alarmRan = nullptr;
void noteAlarm(void*) { alarmRan->set_value(); }
int hostAlarm(void (*)(void*), void*, int) { return 0; }
int hostAlarmEx(void (*)(void*), void*, int, void*) { return 0; }

TEST(HandleCreate, BuiltInAlarmStandsInWhenTheHostHasNone) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_EQ(kyr->env.alarm, nullptr);
  ASSERT_NE(kyr->env.alarm_ex, nullptr);
  std::promise<void> ran;
  alarmRan = &ran;
  ASSERT_EQ(kyr->env.alarm_ex(noteAlarm, nullptr, 0, &kyr->env), 0);
  EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  kyrDestroy(kyr);
}

TEST(HandleCreate, HostAlarmsAreKept) {
  kyrtest::TestHost withAlarm;
  withAlarm.env.alarm = hostAlarm;
  Kyr* kyr = withAlarm.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_EQ(kyr->env.alarm, hostAlarm);
  EXPECT_EQ(kyr->env.alarm_ex, nullptr);  // the host's plain alarm is enough
  kyrDestroy(kyr);

  kyrtest::TestHost withAlarmEx;
  withAlarmEx.env.alarm_ex = hostAlarmEx;
  kyr = withAlarmEx.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_EQ(kyr->env.alarm_ex, hostAlarmEx);
  kyrDestroy(kyr);
}

EnvConnectorClient* hostOpen(KyrConnector*) { return nullptr; }
void hostClose(EnvConnectorClient*) {}

TEST(HandleCreate, HostConnectorCallbacksAreKept) {
  kyrtest::TestHost host;
  host.env.http.connector.open = hostOpen;
  host.env.http.connector.close = hostClose;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_EQ(kyr->env.http.connector.open, hostOpen);
  EXPECT_EQ(kyr->env.http.connector.close, hostClose);
  kyrDestroy(kyr);
}

TEST(HandleCreate, NewHandleHoldsItsInitialValues) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_EQ(kyr->refcnt.load(), 2);  // the creator's and the current routing version's
  EXPECT_EQ(kyr->state.load(), STOPPED);
  EXPECT_EQ(kyrGetState(kyr), STOPPED);
  EXPECT_EQ(kyr->sslMapMode, NullMapMode);
  ASSERT_NE(kyr->connectorGroupList, nullptr);
  EXPECT_TRUE(kyr::kyrListIsEmpty(kyr->connectorGroupList));
  ASSERT_NE(kyr->props, nullptr);
  EXPECT_EQ(kyr->defaultProps->count, 0);
  EXPECT_EQ(kyr->serverProps->count, 0);
  EXPECT_EQ(kyr->maxHttpContextPoolSize, -1);
  ASSERT_NE(kyr->contextPool, nullptr);
  EXPECT_TRUE(kyr::kyrListIsEmpty(kyr->contextPool));
  EXPECT_NE(kyr->contextPoolLock, nullptr);
  EXPECT_EQ(kyr->targetEndpoint, nullptr);
  EXPECT_EQ(kyr->maxTargetEndpointsPerRequest, 9999);
  EXPECT_NE(kyr->routingInfoLock, nullptr);
  ASSERT_NE(kyr->routingInfo, nullptr);
  EXPECT_EQ(kyr->routingInfo->kyr, kyr);
  EXPECT_EQ(kyr->routingInfo->refCount, 1);
  EXPECT_EQ(kyr->routingInfo->objectMap->count, 0);
  EXPECT_EQ(kyr->newRoutingInfo, nullptr);
  EXPECT_EQ(kyr->endPointRefMap->count, 0);
  EXPECT_NE(kyr->endPointRefLock, nullptr);
  EXPECT_EQ(kyr->sappMap->count, 0);
  EXPECT_NE(kyr->partitionIDData.map, nullptr);
  EXPECT_NE(kyr->partitionIDData.lock, nullptr);
  EXPECT_NE(kyr->trMgr, nullptr);
  EXPECT_EQ(kyr->customPropDefaultRequestTraceSpec, nullptr);
  EXPECT_NE(kyr->trSpecLock, nullptr);
  EXPECT_EQ(kyr->trCtx, trMgrGetDefaultContext(kyr->trMgr));
  EXPECT_EQ(kyr->processType, KYR_STANDALONE_PROCESS);
  EXPECT_EQ(kyr->unixDomainSocketPath, nullptr);
  EXPECT_EQ(kyr->unixDomainSocketUid, static_cast<uid_t>(-1));
  EXPECT_EQ(kyr->serverProcess, nullptr);
  EXPECT_EQ(kyr->clientProcess, nullptr);
  EXPECT_EQ(kyr->maxSecondsToWaitDuringAtomicRollout, 3);
  EXPECT_STREQ(kyr->serverName, "kyrlib");
  EXPECT_EQ(kyr->ppid, nullptr);
  EXPECT_STREQ(kyr->serverPath, "/cell/kyrlib");
  EXPECT_STREQ(kyr->cellPath, "/cell/kyrlib");
  EXPECT_NE(kyr->asyncWorkCondition, nullptr);
  ASSERT_NE(kyr->asyncWorkQueue, nullptr);
  EXPECT_TRUE(kyr::kyrListIsEmpty(kyr->asyncWorkQueue));
  EXPECT_NE(kyr->asyncWorkThread, nullptr);
  EXPECT_EQ(kyr->controlState, nullptr);
  EXPECT_FALSE(kyr->privateHeadersDisabled);
  EXPECT_EQ(kyr->maxElapsedTimePerRequestInMillis, 0xFFFFFFFFu);
  kyrDestroy(kyr);
}

TEST(HandleCreate, DefaultTraceSpecificationIsNotice) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  TrSpec* spec = kyrGetTrSpec(kyr);
  ASSERT_NE(spec, nullptr);
  EXPECT_EQ(spec->refCount.load(), 2);  // the caller's and the context's
  trSpecRefRelease(spec);
  EXPECT_TRUE(trContextTraceEnabled(kyr->trCtx, kyr->processRec, TR_LEVEL_NOTICE));
  EXPECT_FALSE(trContextTraceEnabled(kyr->trCtx, kyr->processRec, TR_LEVEL_INFO));
  EXPECT_TRUE(trContextLogEnabled(kyr->trCtx, kyr->controlStateChangeRec));
  EXPECT_FALSE(trContextLogEnabled(kyr->trCtx, kyr->processRec));  // a DEBUG record
  kyrDestroy(kyr);
}

TEST(HandleCreate, FourteenTraceRecordsAreLookedUpByName) {
  kyrtest::TestHost host;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  const std::pair<TrRecord*, const char*> records[] = {
      {kyr->processRec, "control.process"},
      {kyr->controlStateChangeRec, "control.stateChange"},
      {kyr->jsonReceivedRec, "control.json.received"},
      {kyr->jsonUpdatedRec, "control.json.updated"},
      {kyr->invalidJSON, "control.error.invalidJSON"},
      {kyr->invalidAction, "control.error.invalidAction"},
      {kyr->invalidKey, "control.error.invalidKey"},
      {kyr->ipcProcessRec, "control.ipc"},
      {kyr->requestTraceSpecAdded, "control.trace.requestTraceSpecAdded"},
      {kyr->requestTraceSpecRemoved, "control.trace.requestTraceSpecRemoved"},
      {kyr->defaultReqTraceSpecSet, "control.trace.defaultReqTraceSpecSet"},
      {kyr->defaultReqTraceSpecReset, "control.trace.defaultReqTraceSpecReset"},
      {kyr->defaultTraceSpecSet, "control.trace.defaultTraceSpecSet"},
      {kyr->defaultTraceSpecReset, "control.trace.defaultTraceSpecReset"},
  };
  for (const auto& [record, path] : records) {
    ASSERT_NE(record, nullptr) << path;
    EXPECT_EQ(record, trMgrGetRecord(kyr->trMgr, path));
  }
  EXPECT_EQ(kyrGetDebugIPC(kyr), kyr->ipcProcessRec);
  kyrDestroy(kyr);
}

TEST(HandleCreate, HostPrintFunctionReceivesTheTrace) {
  printed().clear();
  kyrtest::TestHost host;
  host.env.trace.printf = kyrtest::capturePrintf;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  EXPECT_TRUE(printed().empty());  // nothing at NOTICE while being created
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr, ":NOTICE,control.process:DEBUG"), 0);
  EXPECT_EQ(countPrinted("Default trace specification set to :NOTICE,control.process:DEBUG"), 1);
  kyrDestroy(kyr);
}

std::atomic<int> threadInits{0};
void countThreadInit() { ++threadInits; }
std::promise<bool>* itemSawInit = nullptr;
void reportInit(Kyr*, void*) { itemSawInit->set_value(threadInits.load() == 1); }

TEST(HandleCreate, WorkerThreadRunsAfterTheHostsThreadInit) {
  threadInits = 0;
  kyrtest::TestHost host;
  host.env.threadInit = countThreadInit;
  Kyr* kyr = host.create();
  ASSERT_NE(kyr, nullptr);
  std::promise<bool> sawInit;
  itemSawInit = &sawInit;
  kyr::kyrProcessAsync(kyr, nullptr, reportInit);
  auto result = sawInit.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_TRUE(result.get());
  kyrDestroy(kyr);
}

// ---- kyrSetProperty ---------------------------------------------------------------------------

class HandleProperties : public HandleFixture {};

TEST_F(HandleProperties, EveryTableNameIsKnownInAnyCaseAndAnswersWithTheTablesSpelling) {
  const char* const table[] = {"webserverName",
                               "MaxHttpContextPoolSize",
                               "MaxSecondsToWaitDuringAtomicRollout",
                               "DefaultRequestTraceSpec",
                               "disablePrivateHeaders",
                               "MaxElapsedTimePerRequestInSeconds",
                               "ppid",
                               "enableEndpointSelectionBasedOnMatchedVHost"};
  for (const char* name : table) {
    std::string upper = name;
    for (char& c : upper) c = static_cast<char>(toupper(c));
    const char* known = kyrSetProperty(kyr_, upper.c_str(), nullptr);
    ASSERT_NE(known, nullptr) << name;
    EXPECT_STREQ(known, name);
    EXPECT_EQ(known, kyrSetProperty(kyr_, name, nullptr));  // the table's own string
  }
}

TEST_F(HandleProperties, UnknownNameIsRefusedAndChangesNothing) {
  EXPECT_EQ(kyrSetProperty(kyr_, "MaxHttpContextPoolSizes", "5"), nullptr);
  EXPECT_EQ(kyrSetProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", "5"), nullptr);
  EXPECT_EQ(kyrSetProperty(kyr_, nullptr, "5"), nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
}

TEST_F(HandleProperties, EachSettingIsLoggedWithNullShownAsNull) {
  kyrSetProperty(kyr_, "MaxHttpContextPoolSize", "7");
  kyrSetProperty(kyr_, "bogus", nullptr);
  EXPECT_EQ(countPrinted("kyrSetProperty name='MaxHttpContextPoolSize', value='7'\n"), 1);
  EXPECT_EQ(countPrinted("kyrSetProperty name='bogus', value='null'\n"), 1);
}

TEST_F(HandleProperties, PoolSizeTakesTheNumberAndNullMeansNoBound) {
  kyrSetProperty(kyr_, "MaxHttpContextPoolSize", "10");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  kyrSetProperty(kyr_, "MaxHttpContextPoolSize", nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
}

TEST_F(HandleProperties, RolloutWaitTakesTheNumberAndNullRestoresThree) {
  kyrSetProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", "7");
  EXPECT_EQ(kyrGetMaxSecondsToWaitDuringAtomicRollout(kyr_), 7);
  kyrSetProperty(kyr_, "MaxSecondsToWaitDuringAtomicRollout", nullptr);
  EXPECT_EQ(kyrGetMaxSecondsToWaitDuringAtomicRollout(kyr_), 3);
}

TEST_F(HandleProperties, PrivateHeadersAreDisabledOnlyByTrueInAnyCase) {
  for (const char* yes : {"true", "TRUE", "True"}) {
    kyrSetProperty(kyr_, "disablePrivateHeaders", yes);
    EXPECT_TRUE(kyrPrivateHeadersDisabled(kyr_)) << yes;
    kyrSetProperty(kyr_, "disablePrivateHeaders", nullptr);
    EXPECT_FALSE(kyrPrivateHeadersDisabled(kyr_));
  }
  for (const char* no : {"yes", "1", "", "truely"}) {
    kyrSetProperty(kyr_, "disablePrivateHeaders", no);
    EXPECT_FALSE(kyrPrivateHeadersDisabled(kyr_)) << no;
  }
}

TEST_F(HandleProperties, ElapsedTimeIsKeptInMillisecondsAndZeroMeansNoLimit) {
  kyrSetProperty(kyr_, "MaxElapsedTimePerRequestInSeconds", "5");
  EXPECT_EQ(kyrGetMaxElapsedTimePerRequest(kyr_), 5000u);
  kyrSetProperty(kyr_, "MaxElapsedTimePerRequestInSeconds", "0");
  EXPECT_EQ(kyrGetMaxElapsedTimePerRequest(kyr_), 0xFFFFFFFFu);
  kyrSetProperty(kyr_, "MaxElapsedTimePerRequestInSeconds", "5");
  kyrSetProperty(kyr_, "MaxElapsedTimePerRequestInSeconds", nullptr);
  EXPECT_EQ(kyrGetMaxElapsedTimePerRequest(kyr_), 0xFFFFFFFFu);
}

TEST_F(HandleProperties, WebserverNameSetsTheServerNameAndNullClearsIt) {
  kyrSetProperty(kyr_, "webserverName", "c1_n1_s1");
  EXPECT_STREQ(kyrGetServerName(kyr_), "c1_n1_s1");
  EXPECT_STREQ(kyrGetServerPath(kyr_), "/cell/c1/node/n1/server/s1");
  kyrSetProperty(kyr_, "webserverName", nullptr);
  EXPECT_EQ(kyrGetServerName(kyr_), nullptr);
}

TEST_F(HandleProperties, PpidIsCopiedAndNullClearsIt) {
  std::string ppid = "4711";
  kyrSetProperty(kyr_, "ppid", ppid.c_str());
  ppid = "0";
  EXPECT_STREQ(kyrGetPPID(kyr_), "4711");
  kyrSetProperty(kyr_, "ppid", nullptr);
  EXPECT_EQ(kyrGetPPID(kyr_), nullptr);
}

TEST_F(HandleProperties, MatchedVirtualHostSelectionIsRecognisedWithoutEffectHere) {
  int before = kyr::kyrGetMemCount();
  EXPECT_STREQ(kyrSetProperty(kyr_, "enableEndpointSelectionBasedOnMatchedVHost", "true"),
               "enableEndpointSelectionBasedOnMatchedVHost");
  EXPECT_EQ(before, kyr::kyrGetMemCount());
}

TEST_F(HandleProperties, DefaultRequestTraceSpecIsParsedAndAnInvalidOneKeepsThePrevious) {
  EXPECT_EQ(kyrGetCustomPropDefaultRequestTraceSpec(kyr_), nullptr);
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:DEBUG"), nullptr);
  TrSpec* set = kyr_->customPropDefaultRequestTraceSpec;
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:NOSUCHLEVEL"), nullptr);
  EXPECT_EQ(kyr_->customPropDefaultRequestTraceSpec, set);
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", ""), nullptr);
  EXPECT_EQ(kyr_->customPropDefaultRequestTraceSpec, nullptr);
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:INFO"), nullptr);
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", nullptr), nullptr);
  EXPECT_EQ(kyr_->customPropDefaultRequestTraceSpec, nullptr);
}

TEST_F(HandleProperties, DefaultRequestTraceSpecIsHandedOutAsANewReference) {
  EXPECT_EQ(kyrGetCustomPropDefaultRequestTraceSpec(nullptr), nullptr);
  kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:DEBUG");
  TrSpec* spec = kyrGetCustomPropDefaultRequestTraceSpec(kyr_);
  ASSERT_EQ(spec, kyr_->customPropDefaultRequestTraceSpec);
  EXPECT_EQ(spec->refCount.load(), 2);
  // The caller's reference keeps the trace specification alive after the handle drops its own.
  kyrSetProperty(kyr_, "DefaultRequestTraceSpec", nullptr);
  EXPECT_EQ(spec->refCount.load(), 1);
  trSpecRefRelease(spec);
}

TEST_F(HandleProperties, PropertySetOfTheHandleAppliesThroughTheTable) {
  ASSERT_EQ(kyr::kyrPropertySet(kyr_->props, "maxhttpcontextpoolsize", "4", true), 0);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 4);
  EXPECT_STREQ(kyr::kyrPropertyGet(kyr_->props, "MaxHttpContextPoolSize"), "4");
  EXPECT_EQ(kyr::kyrPropertySet(kyr_->props, "unknownProperty", "4", true), -1);
}

// ---- kyrSetServerName and kyrSetPPID -----------------------------------------------------------

class HandleServerName : public HandleFixture {};

TEST_F(HandleServerName, CellNodeAndServerPartsGiveBothPaths) {
  kyrSetServerName(kyr_, "c1_n1_s1");
  EXPECT_STREQ(kyr_->cellPath, "/cell/c1");
  EXPECT_STREQ(kyrGetServerPath(kyr_), "/cell/c1/node/n1/server/s1");
  EXPECT_EQ(countPrinted("updateServerPath cellPath='/cell/c1', "
                         "serverPath='/cell/c1/node/n1/server/s1'\n"),
            1);
}

TEST_F(HandleServerName, CellAloneGivesTheCellPathForBoth) {
  kyrSetServerName(kyr_, "c1");
  EXPECT_STREQ(kyr_->cellPath, "/cell/c1");
  EXPECT_STREQ(kyr_->serverPath, "/cell/c1");
}

TEST_F(HandleServerName, CellAndNodeStopAtTheNode) {
  kyrSetServerName(kyr_, "c1_n1");
  EXPECT_STREQ(kyr_->serverPath, "/cell/c1/node/n1");
}

TEST_F(HandleServerName, PartsAfterTheThirdAreIgnored) {
  kyrSetServerName(kyr_, "c1_n1_s1_x_y");
  EXPECT_STREQ(kyr_->cellPath, "/cell/c1");
  EXPECT_STREQ(kyr_->serverPath, "/cell/c1/node/n1/server/s1");
  EXPECT_STREQ(kyr_->serverName, "c1_n1_s1_x_y");
}

TEST_F(HandleServerName, NoNameEmptiesTheServerPathAndKeepsTheCellPath) {
  kyrSetServerName(kyr_, "c1_n1_s1");
  kyrSetServerName(kyr_, nullptr);
  EXPECT_EQ(kyr_->serverName, nullptr);
  EXPECT_STREQ(kyr_->serverPath, "");
  EXPECT_STREQ(kyr_->cellPath, "/cell/c1");
  kyrSetServerName(kyr_, "");
  EXPECT_STREQ(kyr_->serverName, "");
  EXPECT_STREQ(kyr_->serverPath, "");
  EXPECT_STREQ(kyr_->cellPath, "/cell/c1");
}

TEST_F(HandleServerName, LogShowsAMissingPathAsNull) {
  kyr::kyrFree(kyr_->cellPath);
  kyr_->cellPath = nullptr;
  kyrSetServerName(kyr_, nullptr);
  EXPECT_EQ(countPrinted("updateServerPath cellPath='null', serverPath=''\n"), 1);
}

TEST_F(HandleServerName, NameIsCopied) {
  std::string name = "c1_n1_s1";
  kyrSetServerName(kyr_, name.c_str());
  name = "xx";
  EXPECT_STREQ(kyrGetServerName(kyr_), "c1_n1_s1");
}

TEST_F(HandleServerName, ConnectorGroupsAreToldOfTheNewNameAndOfTheNewPpid) {
  KyrConnectorGroup* cg = kyrConnectorGroupCreate(kyr_, "cg1");
  kyrSetServerName(kyr_, "c1_n1_s1");
  EXPECT_STREQ(cg->restURI, "/brisvane?name=cg1&server=c1_n1_s1");
  printed().clear();
  kyrSetPPID(kyr_, "99");
  EXPECT_STREQ(kyrGetPPID(kyr_), "99");
  EXPECT_EQ(countPrinted("kyrConnectorGroupUpdateRestURI restURI='/brisvane?name=cg1&server="
                         "c1_n1_s1'\n"),
            1);
  // Only the group's own rebuild is logged: the ppid leaves the paths alone.
  EXPECT_EQ(printed().size(), 1u);
}

// ---- kyrSetServerCustomProperty and the cell level --------------------------------------------

class HandleServerCustomProperty : public HandleFixture {
 protected:
  void setFromCell(const char* name, const char* value) {
    kyr::kyrCellSetPropStr(kyr_, kyr_->cellPath, name, value);
  }
  const char* serverValue(const char* name) {
    return static_cast<const char*>(kyr::kyrHashGet(kyr_->serverProps, name));
  }
};

TEST_F(HandleServerCustomProperty, PrefixIsDroppedAndTheValueApplied) {
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", "10"));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  EXPECT_STREQ(serverValue("MaxHttpContextPoolSize"), "10");
  EXPECT_EQ(countPrinted("kyrSetServerCustomProperty name='cp.vq.MaxHttpContextPoolSize', "
                         "value='10'\n"),
            1);
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "disablePrivateHeaders", "true"));
  EXPECT_TRUE(kyrPrivateHeadersDisabled(kyr_));
}

TEST_F(HandleServerCustomProperty, NameInAnyCaseIsKeptUnderTheTablesSpelling) {
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.maxhttpcontextpoolsize", "10"));
  EXPECT_STREQ(serverValue("MaxHttpContextPoolSize"), "10");
  setFromCell("cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
}

TEST_F(HandleServerCustomProperty, UnknownNameIsRememberedButAnswersFalse) {
  int before = kyr::kyrGetMemCount();
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "cp.vq.somethingElse", "x"));
  EXPECT_STREQ(serverValue("somethingElse"), "x");
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "somethingElse", "y"));
  EXPECT_STREQ(serverValue("somethingElse"), "y");
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "somethingElse", nullptr));
  EXPECT_EQ(serverValue("somethingElse"), nullptr);
  EXPECT_EQ(before, kyr::kyrGetMemCount());  // the key's copy went with the entry
}

TEST_F(HandleServerCustomProperty, UnknownNameLeftSetIsFreedWithTheHandle) {
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "leftBehind", "x"));  // ASan checks the rest
}

TEST_F(HandleServerCustomProperty, ServerValueWinsOverALaterCellValueUntilCleared) {
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", "10"));
  setFromCell("cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  EXPECT_EQ(countPrinted("kyrCellSetPropStr: MaxHttpContextPoolSize custom property is set at "
                         "the web server level"),
            1);
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", nullptr));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
  EXPECT_EQ(serverValue("MaxHttpContextPoolSize"), nullptr);
  setFromCell("cp.MaxHttpContextPoolSize", "30");  // with no server value the cell applies
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 30);
}

TEST_F(HandleServerCustomProperty, ServerValueReplacesAnEarlierCellValue) {
  setFromCell("cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", "10");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
}

TEST_F(HandleServerCustomProperty, ClearingWithNoCellValueAppliesNull) {
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", "10");
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
}

TEST_F(HandleServerCustomProperty, CellNamesAreMatchedWithExactCaseAndOnlyForTheOwnCell) {
  setFromCell("cp.maxhttpcontextpoolsize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
  EXPECT_EQ(countPrinted("kyrCellSetPropStr: maxhttpcontextpoolsize is not a supported custom "
                         "property, ignoring it..."),
            1);
  kyr::kyrCellSetPropStr(kyr_, "/cell/other", "cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
  EXPECT_EQ(kyr_->defaultProps->count, 0);
  setFromCell("MaxHttpContextPoolSize", "21");  // the "cp." prefix is optional
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 21);
}

// ---- Trace settings ---------------------------------------------------------------------------

class HandleTraceSettings : public HandleFixture {};

// The default context's specification, for comparing identities: kyrGetTrSpec hands out a
// reference, which goes back at once (the context keeps its own).
TrSpec* defaultSpecOf(Kyr* kyr) {
  TrSpec* spec = kyrGetTrSpec(kyr);
  trSpecRefRelease(spec);
  return spec;
}

TEST_F(HandleTraceSettings, DefaultSpecIsInstalledAndLogged) {
  TrSpec* before = defaultSpecOf(kyr_);
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control:DEBUG"), 0);
  EXPECT_NE(defaultSpecOf(kyr_), before);
  EXPECT_TRUE(trContextLogEnabled(kyr_->trCtx, kyr_->jsonReceivedRec));
  EXPECT_EQ(countPrinted("kyrSetDefaultTraceSpec: default trace spec set to :NOTICE,control:DEBUG"),
            1);
  EXPECT_EQ(countPrinted("Default trace specification set to :NOTICE,control:DEBUG"), 1);
}

TEST_F(HandleTraceSettings, InvalidDefaultSpecIsRefusedAndTheOldOneStays) {
  TrSpec* before = defaultSpecOf(kyr_);
  EXPECT_EQ(kyrSetDefaultTraceSpec(kyr_, "control:NOSUCHLEVEL"), -1);
  EXPECT_EQ(defaultSpecOf(kyr_), before);
}

TEST_F(HandleTraceSettings, SetTraceSpecificationChecksItsArgumentsInOrder) {
  EXPECT_EQ(kyrSetTraceSpecification(nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, nullptr, nullptr, nullptr), -2);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "default", nullptr, nullptr), -3);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "default", "control:NOSUCHLEVEL", nullptr), -4);
}

TEST_F(HandleTraceSettings, NameDefaultInAnyCaseSetsTheDefaultSpec) {
  TrSpec* before = defaultSpecOf(kyr_);
  ASSERT_EQ(kyrSetTraceSpecification(kyr_, "DeFaUlT", ":NOTICE,control.process:DEBUG", nullptr), 0);
  EXPECT_NE(defaultSpecOf(kyr_), before);
  EXPECT_EQ(countPrinted("kyrSetTraceSpecification: default trace spec set to "
                         ":NOTICE,control.process:DEBUG"),
            1);
  EXPECT_EQ(countPrinted("Default trace specification set to :NOTICE,control.process:DEBUG"), 1);
}

TEST_F(HandleTraceSettings, OtherNamesLeaveTheDefaultSpecAlone) {
  TrSpec* before = defaultSpecOf(kyr_);
  kyrSetTraceSpecification(kyr_, "rules/3", ":DEBUG", "true");
  EXPECT_EQ(defaultSpecOf(kyr_), before);
}

TEST_F(HandleTraceSettings, SpecLockIsTheHandlesTraceSpecLock) {
  kyrSpecLockObtain(kyr_, "test");
  EXPECT_STREQ(kyr_->trSpecLock->heldBy, "test");
  kyrSpecLockRelease(kyr_);
  EXPECT_EQ(kyr_->trSpecLock->heldBy, nullptr);
}

TEST(HandleRuleNames, SortOrderIsTheNumberAfterTheLastSlash) {
  EXPECT_EQ(ruleNameToSortOrder(nullptr), 0);
  EXPECT_EQ(ruleNameToSortOrder(""), 0);
  EXPECT_EQ(ruleNameToSortOrder("12"), 12);
  EXPECT_EQ(ruleNameToSortOrder("a/b/7"), 7);
  EXPECT_EQ(ruleNameToSortOrder("a/5/b"), 0);
  EXPECT_EQ(ruleNameToSortOrder("rules/42x"), 42);
  EXPECT_EQ(ruleNameToSortOrder("a/"), 0);
}

// ---- Trusted proxies and plain accessors -----------------------------------------------------

class HandleAccessors : public HandleFixture {};

TEST_F(HandleAccessors, EveryProxyIsTrustedAndTheListIsNotKept) {
  int before = kyr::kyrGetMemCount();
  kyrSetTrustedProxies(kyr_, "10.0.0.1,10.0.0.2");
  EXPECT_EQ(before, kyr::kyrGetMemCount());
  EXPECT_TRUE(kyrIsTrustedProxy(kyr_, "192.168.7.7"));
  EXPECT_FALSE(kyrIsTrustedProxy(kyr_, nullptr));
  EXPECT_FALSE(kyrIsTrustedProxy(nullptr, "10.0.0.1"));
}

TEST_F(HandleAccessors, GettersReadTheirFields) {
  EXPECT_EQ(kyrGetTrMgr(kyr_), kyr_->trMgr);
  EXPECT_EQ(getKyrTrMgr(kyr_), kyr_->trMgr);
  EXPECT_EQ(kyrGetTrContext(kyr_), kyr_->trCtx);
  EXPECT_EQ(kyr::kyrGetProperties(kyr_), kyr_->props);
  EXPECT_EQ(kyr::kyrGetHttpLanguage(kyr_), kyr_->httpLanguage);
  EXPECT_EQ(kyr::kyrGetRequestTraceRules(kyr_), kyr_->requestTraceRules);
  EXPECT_EQ(kyr::kyrGetHealthMonitor(kyr_), kyr_->healthMonitor);
  EXPECT_EQ(kyr::kyrGetServerProcess(kyr_), kyr_->serverProcess);
  EXPECT_EQ(kyrGetTargetEndpoint(kyr_), nullptr);
}

TEST_F(HandleAccessors, PlainSettersWriteTheirFields) {
  kyrSetSSLMapMode(kyr_, SSLOffLoad);
  EXPECT_EQ(kyrGetSSLMapMode(kyr_), SSLOffLoad);
  kyrSetMaxTargetEndpointsPerRequest(kyr_, 3);
  EXPECT_EQ(kyrGetMaxTargetEndpointsPerRequest(kyr_), 3);
  kyrSetUnixDomainSocketUid(kyr_, 1000);
  EXPECT_EQ(kyrGetUnixDomainSocketUid(kyr_), 1000u);
  std::string path = "/tmp/kyr.sock";
  kyrSetUnixDomainSocketPath(kyr_, path.c_str());
  path = "x";
  EXPECT_STREQ(kyrGetUnixDomainSocketPath(kyr_), "/tmp/kyr.sock");
  kyrSetUnixDomainSocketPath(kyr_, nullptr);
  EXPECT_EQ(kyrGetUnixDomainSocketPath(kyr_), nullptr);
}

TEST_F(HandleAccessors, ProcessTypePredicatesFollowTheType) {
  EXPECT_TRUE(kyrIsStandaloneProcess(kyr_));
  EXPECT_FALSE(kyrIsServerProcess(kyr_));
  kyr_->processType = KYR_SERVER_PROCESS;
  EXPECT_TRUE(kyrIsServerProcess(kyr_));
  EXPECT_FALSE(kyrIsStandaloneProcess(kyr_));
  kyr_->processType = KYR_CLIENT_PROCESS;
  EXPECT_TRUE(kyrIsClientProcess(kyr_));
  EXPECT_FALSE(kyrIsServerProcess(kyr_));
  kyr_->processType = KYR_STANDALONE_PROCESS;
}

TEST(HandleNames, ProcessTypeNames) {
  EXPECT_STREQ(kyrGetProcessTypeName(KYR_STANDALONE_PROCESS), "StandaloneProcess");
  EXPECT_STREQ(kyrGetProcessTypeName(KYR_SERVER_PROCESS), "ServerProcess");
  EXPECT_STREQ(kyrGetProcessTypeName(KYR_CLIENT_PROCESS), "ClientProcess");
  EXPECT_STREQ(kyrGetProcessTypeName(static_cast<KyrProcessType>(3)), "InvalidProcessType");
  EXPECT_STREQ(kyrGetProcessTypeName(static_cast<KyrProcessType>(-1)), "InvalidProcessType");
}

TEST(HandleNames, StateNamesWithUnknownForEverythingElse) {
  EXPECT_STREQ(kyrState2String(STARTING), "STARTING");
  EXPECT_STREQ(kyrState2String(STARTED), "STARTED");
  EXPECT_STREQ(kyrState2String(PARTIAL_START), "PARTIAL START");
  EXPECT_STREQ(kyrState2String(FAILED), "FAILED");
  EXPECT_STREQ(kyrState2String(STOPPING), "STOPPING");
  EXPECT_STREQ(kyrState2String(STOPPED), "STOPPED");
  EXPECT_STREQ(kyrState2String(DELETED), "UNKNOWN");
  EXPECT_STREQ(kyrState2String(INVALID), "UNKNOWN");
  EXPECT_STREQ(kyrState2String(static_cast<KyrComponentState>(42)), "UNKNOWN");
}

}  // namespace
