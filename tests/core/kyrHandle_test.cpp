// The library handle as a host meets it: kyrCreate's refusals and what they leave behind, the
// properties with their web-server-over-cell precedence, the server name and the paths derived
// from it, and the trace settings.
#include <dirent.h>
#include <gtest/gtest.h>

#include <string>

#include "core/kyrHandleTestUtil.h"
#include "runtime/kyrProperties.h"

namespace {

using namespace kyrtest;

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

// One required member of the request table, and how to copy just that member between tables,
// in the order kyrCreate checks them (its repeated getProtocol check cannot be told apart).
struct Required {
  const char* name;
  void (*copy)(EnvCallBacks& to, const EnvCallBacks& from);
};
using RequestTable = decltype(EnvCallBacks{}.http.request);
template <auto member>
Required required(const char* name) {
  return {name, [](EnvCallBacks& to, const EnvCallBacks& from) {
            to.http.request.*member = from.http.request.*member;
          }};
}
#define KYR_REQUIRED(m) required<&RequestTable::m>(#m)
const Required kRequired[] = {
    KYR_REQUIRED(getProtocol),        KYR_REQUIRED(getVirtualHost),
    KYR_REQUIRED(getVirtualPort),     KYR_REQUIRED(getPath),
    KYR_REQUIRED(getClientIpAddr),    KYR_REQUIRED(getListeningPort),
    KYR_REQUIRED(getProtocolVersion), KYR_REQUIRED(getClientCertificate),
    KYR_REQUIRED(getSSLCipherSuite),  KYR_REQUIRED(getSSLSessionId),
    KYR_REQUIRED(getAuthType),        KYR_REQUIRED(getUserName),
    KYR_REQUIRED(setHeaderValue),     KYR_REQUIRED(getCookieValue),
};
#undef KYR_REQUIRED

TEST(HandleCreate, MissingRequiredCallbacksAreNamedInCheckOrderAndOptionalOnesMayAllBeMissing) {
  int baseline = settledMemCount();
  const EnvCallBacks complete = kyrtest::completeCallbacks();
  EnvCallBacks env{};  // every optional member stays missing to the end
  env.version = KYR_ENV_CALLBACKS_VERSION;
  // Giving back the first missing member each time moves the message on to the next one, so a
  // member left unchecked shows as a message naming the wrong member.
  for (const Required& member : kRequired) {
    CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
    EXPECT_EQ(r.kyr, nullptr);
    EXPECT_EQ(r.err, std::string("ERROR: KYR library initialization failure: EnvCallBacks.http.") +
                         "request." + member.name + " is invalid in call to kyrCreate\n");
    member.copy(env, complete);
  }
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
  CreateResult r = createCapturingStderr(&env, nullptr, KYR_TRACE_CATALOGUE);
  ASSERT_NE(r.kyr, nullptr);
  EXPECT_EQ(r.err, "");
  kyrDestroy(r.kyr);
}

TEST(HandleCreate, RefusalsAreExplainedAndLeaveNoMemoryNorDescriptorBehind) {
  struct Refusal {
    void (*spoil)(EnvCallBacks& env);  // null: no table is given at all
    const char* path;
    const char* err;
  };
  const Refusal rows[] = {
      {nullptr, KYR_TRACE_CATALOGUE,
       "ERROR: first argument (EnvCallBacks) to kyrCreate must not be NULL\n"},
      {[](EnvCallBacks& env) { env.version = KYR_ENV_CALLBACKS_VERSION - 1; }, KYR_TRACE_CATALOGUE,
       "ERROR: KYR library initialization failure: EnvCallBacks.version is invalid in call to "
       "kyrCreate: 19357 != 19358\n"},
      {[](EnvCallBacks&) {}, nullptr,
       "ERROR: both 2nd and 3rd arguments to kyrCreate may not be NULL\n"},
      {[](EnvCallBacks&) {}, "/nonexistent/kyr-trace.xml",
       "ERROR: failed to open /nonexistent/kyr-trace.xml in kyrCreate: No such file or "
       "directory\n"},
  };
  int baseline = settledMemCount();
  int descriptors = openDescriptors();
  for (const Refusal& row : rows) {
    SCOPED_TRACE(row.err);
    EnvCallBacks env = kyrtest::completeCallbacks();
    if (row.spoil != nullptr) row.spoil(env);
    CreateResult r = createCapturingStderr(row.spoil ? &env : nullptr, nullptr, row.path);
    EXPECT_EQ(r.kyr, nullptr);
    EXPECT_EQ(r.err, row.err);
  }
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
  // A catalogue the library opened itself is closed with the handle.
  kyrtest::TestHost host;
  kyrDestroy(host.create());
  EXPECT_EQ(descriptors, openDescriptors());
}

class HandleProperties : public HandleFixture {};

// The "cp.vq." prefix belongs to server custom properties only.
TEST_F(HandleProperties, UnknownNamesAnswerNullLeaveTheFieldsAloneAndAreLoggedLikeAnyOther) {
  EXPECT_EQ(kyrSetProperty(kyr_, "MaxHttpContextPoolSizes", "5"), nullptr);
  EXPECT_EQ(kyrSetProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", "5"), nullptr);
  EXPECT_EQ(kyrSetProperty(kyr_, nullptr, "5"), nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
  kyrSetProperty(kyr_, "bogus", nullptr);
  EXPECT_TRUE(printedOnce("kyrSetProperty name='bogus', value='null'\n"));
}

long long held(Kyr* kyr, const std::string& property) {
  if (property == "MaxHttpContextPoolSize") return kyr->maxHttpContextPoolSize;
  if (property == "MaxElapsedTimePerRequestInSeconds") return kyrGetMaxElapsedTimePerRequest(kyr);
  if (property == "disablePrivateHeaders") return kyrPrivateHeadersDisabled(kyr) ? 1 : 0;
  return kyrGetMaxSecondsToWaitDuringAtomicRollout(kyr);
}

TEST_F(HandleProperties, ValuesAreConvertedAndNullRestoresTheDefault) {
  struct Row {
    const char* name;
    const char* value;
    long long held;
  };
  // Applied in order, so each row also shows that the value before it is not left behind.
  const Row rows[] = {
      {"MaxHttpContextPoolSize", "10", 10},
      {"MaxHttpContextPoolSize", nullptr, -1},  // no bound
      {"MaxSecondsToWaitDuringAtomicRollout", "7", 7},
      {"MaxSecondsToWaitDuringAtomicRollout", nullptr, 3},
      {"MaxElapsedTimePerRequestInSeconds", "5", 5000},        // kept in milliseconds
      {"MaxElapsedTimePerRequestInSeconds", "0", 0xFFFFFFFF},  // no limit
      {"MaxElapsedTimePerRequestInSeconds", "5", 5000},
      {"MaxElapsedTimePerRequestInSeconds", nullptr, 0xFFFFFFFF},
      {"disablePrivateHeaders", "TRUE", 1},  // "true" in any case, and nothing else
      {"disablePrivateHeaders", nullptr, 0},
      {"disablePrivateHeaders", "True", 1},
      {"disablePrivateHeaders", "truely", 0},
      {"disablePrivateHeaders", "true", 1},
      {"disablePrivateHeaders", "1", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + "=" + (row.value != nullptr ? row.value : "null"));
    kyrSetProperty(kyr_, row.name, row.value);
    EXPECT_EQ(held(kyr_, row.name), row.held);
  }
}

TEST_F(HandleProperties, DefaultRequestTraceSpecIsHandedOutAsAReferenceAndBadOnesAreRefused) {
  EXPECT_EQ(kyrGetCustomPropDefaultRequestTraceSpec(nullptr), nullptr);
  EXPECT_EQ(kyrGetCustomPropDefaultRequestTraceSpec(kyr_), nullptr);
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:DEBUG"), nullptr);
  TrSpec* traceSpec = kyrGetCustomPropDefaultRequestTraceSpec(kyr_);
  ASSERT_NE(traceSpec, nullptr);
  EXPECT_EQ(traceSpec->refCount.load(), 2);
  EXPECT_EQ(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", "control:NOSUCHLEVEL"), nullptr);
  EXPECT_EQ(kyr_->customPropDefaultRequestTraceSpec, traceSpec);
  // The caller's reference keeps the trace specification alive after the handle drops its own.
  ASSERT_NE(kyrSetProperty(kyr_, "DefaultRequestTraceSpec", ""), nullptr);
  EXPECT_EQ(kyr_->customPropDefaultRequestTraceSpec, nullptr);
  EXPECT_EQ(traceSpec->refCount.load(), 1);
  trSpecRefRelease(traceSpec);
}

// Endpoint selection and the default affinity policy read these from the handle's property set
// (the selection tests show their effects): known names under the table's spelling, the others
// as given, each a copy of the host's text.
TEST_F(HandleProperties, PropertiesReadElsewhereAreKeptInThePropertySetAsCopies) {
  struct {
    const char* name;
    const char* value;
    const char* key;
  } rows[] = {
      // Applied in order; each stays set for the rows after it.
      {"ENABLEENDPOINTSELECTIONBASEDONMATCHEDVHOST", "true",
       "enableEndpointSelectionBasedOnMatchedVHost"},
      {"enableEndpointSelectionBasedOnMatchedVHost", nullptr,
       "enableEndpointSelectionBasedOnMatchedVHost"},
      {"HttpSessionCookies", "A,,B", "HttpSessionCookies"},
      {"HttpSessionCookies", "C", "HttpSessionCookies"},
      {"HttpSessionCookies", nullptr, "HttpSessionCookies"},
      {"HttpSessionAffinityPolicyDescriptor", "d1", "HttpSessionAffinityPolicyDescriptor"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.name) + "=" + (row.value != nullptr ? row.value : "null"));
    std::string given = row.value != nullptr ? row.value : "";
    kyrSetProperty(kyr_, row.name, row.value != nullptr ? given.c_str() : nullptr);
    given.assign(given.size(), 'x');  // the value must have been copied
    std::string held = "null";
    kyr::kyrPropertyCopy(kyr::kyrGetProperties(kyr_), row.key, &held);
    EXPECT_EQ(held, row.value != nullptr ? row.value : "null");
  }
}

class HandleServerName : public HandleFixture {};

TEST_F(HandleServerName, PartsGiveTheCellAndServerPathsAndEachUpdateIsLogged) {
  struct Row {
    const char* name;
    const char* cellPath;
    const char* serverPath;
  };
  // Applied in order: without a name the cell path of the name before stays.
  const Row rows[] = {
      {"c1_n1_s1", "/cell/c1", "/cell/c1/node/n1/server/s1"},
      {"c2", "/cell/c2", "/cell/c2"},
      {"c1_n1", "/cell/c1", "/cell/c1/node/n1"},
      {"c1_n1_s1_x_y", "/cell/c1", "/cell/c1/node/n1/server/s1"},
      {nullptr, "/cell/c1", ""},
      {"", "/cell/c1", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name != nullptr ? row.name : "null");
    printed().clear();
    std::string given = row.name != nullptr ? row.name : "";
    kyrSetServerName(kyr_, row.name != nullptr ? given.c_str() : nullptr);
    given.assign(given.size(), 'x');  // the name must have been copied
    EXPECT_STREQ(kyrGetServerName(kyr_), row.name);
    EXPECT_STREQ(kyr_->cellPath, row.cellPath);
    EXPECT_STREQ(kyrGetServerPath(kyr_), row.serverPath);
    EXPECT_TRUE(printedOnce(std::string("updateServerPath cellPath='") + row.cellPath +
                            "', serverPath='" + row.serverPath + "'\n"));
  }
}

class HandleServerCustomProperty : public HandleFixture {
 protected:
  void setFromCell(const char* name, const char* value) {
    kyr::kyrCellSetPropStr(kyr_, kyr_->cellPath, name, value);
  }
  const char* serverValue(const char* name) {
    return static_cast<const char*>(kyr::kyrHashGet(kyr_->serverProps, name));
  }
};

// Unknown names are kept, without the "cp.vq." prefix, until cleared or the handle goes.
TEST_F(HandleServerCustomProperty, UnknownNameAnswersFalseAndClearingItFreesItsCopies) {
  int before = kyr::kyrGetMemCount();
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "cp.vq.somethingElse", "x"));
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "somethingElse", "y"));
  EXPECT_FALSE(kyrSetServerCustomProperty(kyr_, "somethingElse", nullptr));
  EXPECT_EQ(before, kyr::kyrGetMemCount());
}

// The "cp.vq." prefix is dropped and a known name in any case is kept under the table's
// spelling, so the server value set below is the one cleared at the end.
TEST_F(HandleServerCustomProperty, ServerValueWinsOverTheCellsWhicheverCameFirst) {
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", "10");
  kyrSetServerCustomProperty(kyr_, "MaxHttpContextPoolSize", nullptr);
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);  // cleared with no cell value: null applies
  setFromCell("cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 20);
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.maxhttpcontextpoolsize", "10"));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  EXPECT_STREQ(serverValue("MaxHttpContextPoolSize"), "10");
  setFromCell("cp.MaxHttpContextPoolSize", "30");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 10);
  EXPECT_TRUE(printedOnce(
      "kyrCellSetPropStr: MaxHttpContextPoolSize custom property is set at the web server level"));
  // Cleared, the latest cell value applies, and later cell values apply directly.
  EXPECT_TRUE(kyrSetServerCustomProperty(kyr_, "cp.vq.MaxHttpContextPoolSize", nullptr));
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 30);
  setFromCell("cp.MaxHttpContextPoolSize", "40");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 40);
}

TEST_F(HandleServerCustomProperty, CellNamesAreMatchedWithExactCaseAndOnlyForTheOwnCell) {
  setFromCell("cp.maxhttpcontextpoolsize", "20");
  EXPECT_TRUE(
      printedOnce("kyrCellSetPropStr: maxhttpcontextpoolsize is not a supported custom "
                  "property, ignoring it..."));
  kyr::kyrCellSetPropStr(kyr_, "/cell/other", "cp.MaxHttpContextPoolSize", "20");
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, -1);
  EXPECT_EQ(kyr_->defaultProps->count, 0);
  setFromCell("MaxHttpContextPoolSize", "21");  // the "cp." prefix is optional
  EXPECT_EQ(kyr_->maxHttpContextPoolSize, 21);
}

class HandleTraceSettings : public HandleFixture {
 protected:
  // For comparing identities: kyrGetTrSpec hands out a reference, which goes back at once.
  TrSpec* defaultTraceSpec() {
    TrSpec* traceSpec = kyrGetTrSpec(kyr_);
    EXPECT_EQ(traceSpec->refCount.load(), 2);  // the caller's and the context's
    trSpecRefRelease(traceSpec);
    return traceSpec;
  }
};

// Either setter installs a new default trace specification and logs it; an invalid text, or a
// name other than "default" in any case, leaves the installed one alone.
TEST_F(HandleTraceSettings, DefaultIsSetEitherWayAndArgumentsAreCheckedInOrder) {
  TrSpec* before = defaultTraceSpec();
  ASSERT_EQ(kyrSetDefaultTraceSpec(kyr_, ":NOTICE,control:DEBUG"), 0);
  TrSpec* installed = defaultTraceSpec();
  EXPECT_NE(installed, before);
  EXPECT_TRUE(trContextLogEnabled(kyr_->trCtx, kyr_->jsonReceivedRec));
  EXPECT_TRUE(
      printedOnce("kyrSetDefaultTraceSpec: default trace spec set to :NOTICE,control:DEBUG"));
  EXPECT_TRUE(printedOnce("Default trace specification set to :NOTICE,control:DEBUG"));
  EXPECT_EQ(kyrSetDefaultTraceSpec(kyr_, "control:NOSUCHLEVEL"), -1);
  EXPECT_EQ(defaultTraceSpec(), installed);

  EXPECT_EQ(kyrSetTraceSpecification(nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, nullptr, nullptr, nullptr), -2);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "default", nullptr, nullptr), -3);
  EXPECT_EQ(kyrSetTraceSpecification(kyr_, "default", "control:NOSUCHLEVEL", nullptr), -4);
  kyrSetTraceSpecification(kyr_, "rules/3", ":DEBUG", "true");
  EXPECT_EQ(defaultTraceSpec(), installed);
  ASSERT_EQ(kyrSetTraceSpecification(kyr_, "DeFaUlT", ":NOTICE,control.process:DEBUG", nullptr), 0);
  EXPECT_NE(defaultTraceSpec(), installed);
  EXPECT_TRUE(printedOnce(
      "kyrSetTraceSpecification: default trace spec set to :NOTICE,control.process:DEBUG"));
}

}  // namespace
