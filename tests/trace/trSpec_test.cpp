// Trace specifications: parsing of "name:LEVEL,..." texts into per-record levels, and the death
// row that keeps a dropped specification readable for its grace time.
#include "trace/trSpec.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

class TrSpecParse : public testing::Test {
 protected:
  TrSpecParse() : mgr_(kyrtest::kCatalogue) {}
  ~TrSpecParse() override { trSpecRefRelease(spec_); }

  // Makes the trace specification under test (released at the end of the test).
  TrSpec* make(const char* text) {
    trSpecRefRelease(spec_);
    spec_ = trSpecCreate(mgr_.get(), text);
    return spec_;
  }
  int level(const char* recordPath) {
    return kyr::trSpecGetMaxLevel(spec_, trRecordGet(mgr_.get(), recordPath));
  }
  // The parse output of a text that is expected to fail.
  std::string failureOutput(const char* text) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, make(text));
    return testing::internal::GetCapturedStdout();
  }

  TestManager mgr_;
  TrSpec* spec_ = nullptr;
};

TEST_F(TrSpecParse, NullTextEnablesEveryRecordEvenAtDebug) {
  ASSERT_NE(nullptr, make(nullptr));
  EXPECT_EQ(255, level("control.json.received"));
  EXPECT_EQ(255, level(".top"));
}

TEST_F(TrSpecParse, EmptyNameSetsEveryRecord) {
  ASSERT_NE(nullptr, make(":ERROR"));
  EXPECT_EQ(TR_LEVEL_ERROR, level("control.process"));
  EXPECT_EQ(TR_LEVEL_ERROR, level("control.json.received"));
  EXPECT_EQ(TR_LEVEL_ERROR, level("http.badHost"));
  EXPECT_EQ(TR_LEVEL_ERROR, level(".top"));
}

TEST_F(TrSpecParse, LevelNamesAreAcceptedInAnyCase) {
  ASSERT_NE(nullptr, make(":debug,http:Info,control:eRRoR"));
  EXPECT_EQ(TR_LEVEL_INFO, level("http.select"));
  EXPECT_EQ(TR_LEVEL_ERROR, level("control.process"));
  EXPECT_EQ(TR_LEVEL_DEBUG, level(".top"));
}

TEST_F(TrSpecParse, UnknownLevelDiscardsTheWholeSpecificationWithAMessage) {
  EXPECT_EQ("INVALID trace spec level name: 'VERBOSE'\n", failureOutput(":INFO,http:VERBOSE"));
}

TEST_F(TrSpecParse, UnknownNameDiscardsTheWholeSpecificationWithAMessage) {
  EXPECT_EQ("INVALID trace spec group or record name: 'nosuch.group'\n",
            failureOutput("http:INFO,nosuch.group:DEBUG"));
}

TEST_F(TrSpecParse, AsteriskIsLookedUpAsANameNotAWildcard) {
  EXPECT_EQ("INVALID trace spec group or record name: '*'\n", failureOutput("*:DEBUG"));
}

TEST_F(TrSpecParse, WhiteSpaceIsPartOfNamesAndLevels) {
  EXPECT_EQ("INVALID trace spec level name: ' DEBUG'\n", failureOutput("http: DEBUG"));
  EXPECT_EQ("INVALID trace spec group or record name: ' http'\n", failureOutput(":INFO, http"));
}

TEST_F(TrSpecParse, ItemWithoutLevelMeansWarning) {
  ASSERT_NE(nullptr, make(":DEBUG,http"));
  EXPECT_EQ(TR_LEVEL_WARNING, level("http.select"));
  EXPECT_EQ(TR_LEVEL_DEBUG, level("control.process"));
}

TEST_F(TrSpecParse, EmptyTextSetsEverythingToWarning) {
  ASSERT_NE(nullptr, make(""));
  EXPECT_EQ(TR_LEVEL_WARNING, level("control.json.received"));
  EXPECT_EQ(TR_LEVEL_WARNING, level(".top"));
}

TEST_F(TrSpecParse, TrailingCommaEndsBySettingEverythingToWarning) {
  ASSERT_NE(nullptr, make(":DEBUG,http:ERROR,"));
  EXPECT_EQ(TR_LEVEL_WARNING, level("http.select"));
  EXPECT_EQ(TR_LEVEL_WARNING, level("control.process"));
}

TEST_F(TrSpecParse, LaterItemsOverrideEarlierOnesForTheSameRecords) {
  ASSERT_NE(nullptr, make("control:DEBUG,control.json.applied:ERROR"));
  EXPECT_EQ(TR_LEVEL_ERROR, level("control.json.applied"));
  EXPECT_EQ(TR_LEVEL_DEBUG, level("control.json.received"));

  ASSERT_NE(nullptr, make("control.json.applied:ERROR,control:DEBUG"));
  EXPECT_EQ(TR_LEVEL_DEBUG, level("control.json.applied"));
}

TEST_F(TrSpecParse, GroupReachesTheRecordsOfItsChildGroupsOnly) {
  ASSERT_NE(nullptr, make(":OFF,control:INFO"));
  EXPECT_EQ(TR_LEVEL_INFO, level("control.process"));
  EXPECT_EQ(TR_LEVEL_INFO, level("control.json.received"));
  EXPECT_EQ(TR_LEVEL_OFF, level("http.select"));
  EXPECT_EQ(TR_LEVEL_OFF, level(".top"));
}

TEST_F(TrSpecParse, RecordItemSetsOnlyThatRecord) {
  ASSERT_NE(nullptr, make(":OFF,.top:CRITICAL"));
  EXPECT_EQ(TR_LEVEL_CRITICAL, level(".top"));
  EXPECT_EQ(TR_LEVEL_OFF, level("http.select"));
}

TEST(TrSpecLookup, GroupPathWinsOverARecordOfTheSamePath) {
  // Group a.b and the record b directly under a both have the path "a.b".
  TestManager mgr(
      "<group name=a><record name=b level=INFO/><group name=b>"
      "<record name=inner level=INFO/></group></group>");
  TrSpec* spec = trSpecCreate(mgr.get(), ":OFF,a.b:DEBUG");
  ASSERT_NE(nullptr, spec);
  EXPECT_EQ(TR_LEVEL_DEBUG, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "a.b.inner")));
  EXPECT_EQ(TR_LEVEL_OFF, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "a.b")));
  trSpecRefRelease(spec);
}

TEST(TrSpecLookup, SpecificationHasNoLevelForRecordsCreatedAfterIt) {
  TestManager mgr("<group name=g><record name=early level=INFO/></group>");
  TrSpec* spec = trSpecCreate(mgr.get(), nullptr);
  TrGroup* group = trMgrGetGroup(mgr.get(), "g");
  TrRecord* late = kyr::trRecordCreate(group, "late", TR_LEVEL_ERROR, -1);
  EXPECT_EQ(255, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "g.early")));
  EXPECT_EQ(0, kyr::trSpecGetMaxLevel(spec, late));
  trSpecRefRelease(spec);
}

TEST(TrSpecLookup, RecordMadeFromAMessageIsNamedByItsId) {
  TestManager mgr("<group name=g/>");
  TrRecord* rec = kyr::trRecordCreateFromMessage(mgr.get(), "m", TR_LEVEL_ERROR, "KYR0042");
  TrSpec* spec = trSpecCreate(mgr.get(), "KYR0042:CRITICAL");
  ASSERT_NE(nullptr, spec);
  EXPECT_EQ(TR_LEVEL_CRITICAL, kyr::trSpecGetMaxLevel(spec, rec));
  trSpecRefRelease(spec);
}

TEST(TrSpecRefs, ObtainAndReleaseReturnTheNewCountAndNullGivesMinusOne) {
  TestManager mgr(kyrtest::kCatalogue);
  TrSpec* spec = trSpecCreate(mgr.get(), ":INFO");
  EXPECT_EQ(2, trSpecRefObtain(spec));
  EXPECT_EQ(1, trSpecRefRelease(spec));
  EXPECT_EQ(-1, trSpecRefObtain(nullptr));
  EXPECT_EQ(-1, trSpecRefRelease(nullptr));
  EXPECT_EQ(0, trSpecRefRelease(spec));
}

class TrSpecDeathRow : public testing::Test {
 protected:
  TrSpecDeathRow() : mgr_(kyrtest::kCatalogue) { kyr::trPurgeDeathRow(); }
  TrSpec* make(const char* text) { return trSpecCreate(mgr_.get(), text); }
  TestManager mgr_;
};

TEST_F(TrSpecDeathRow, ReleasedSpecificationWaitsOnTheRowUntilPurged) {
  TrSpec* first = make(":INFO");
  TrSpec* second = make(":DEBUG");
  int allocated = kyr::kyrGetMemCount();
  trSpecRefRelease(first);
  trSpecRefRelease(second);  // its sweep stops at the first one, still within its grace
  EXPECT_EQ(2, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated, kyr::kyrGetMemCount());
  kyr::trPurgeDeathRow();
  EXPECT_EQ(0, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated - 2, kyr::kyrGetMemCount());
}

TEST_F(TrSpecDeathRow, SpecificationReleasedAgainAfterReobtainIsQueuedOnce) {
  TrSpec* spec = make(":INFO");
  trSpecRefRelease(spec);
  EXPECT_EQ(1, trSpecRefObtain(spec));
  trSpecRefRelease(spec);
  EXPECT_EQ(1, kyr::trSpecDeathRowCount());
  int allocated = kyr::kyrGetMemCount();
  kyr::trPurgeDeathRow();  // a second entry would free it twice
  EXPECT_EQ(allocated - 1, kyr::kyrGetMemCount());
}

TEST_F(TrSpecDeathRow, KillFreesAtOnceAndLeavesTheRow) {
  TrSpec* spec = make(":INFO");
  trSpecRefRelease(spec);
  int allocated = kyr::kyrGetMemCount();
  kyr::trKillSpec(spec);
  EXPECT_EQ(0, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated - 1, kyr::kyrGetMemCount());
}

// The one test here that waits out the grace time.
TEST_F(TrSpecDeathRow, SweepFreesOnlyWhatWasDeadLongerThanTheGraceTime) {
  TrSpec* reobtained = make(":ERROR");
  TrSpec* dead = make(":DEBUG");
  trSpecRefRelease(reobtained);
  trSpecRefRelease(dead);
  EXPECT_EQ(1, trSpecRefObtain(reobtained));  // a late reader takes it back within the grace
  int allocated = kyr::kyrGetMemCount();

  std::this_thread::sleep_for(std::chrono::milliseconds(kyr::kTrSpecDeathRowTime + 100));
  TrSpec* young = make(nullptr);
  trSpecRefRelease(young);  // sweeps the row

  // The re-obtained one left the row unfreed, the dead one was freed, the young one waits.
  EXPECT_EQ(1, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated, kyr::kyrGetMemCount());  // + young - dead
  EXPECT_EQ(TR_LEVEL_ERROR,
            kyr::trSpecGetMaxLevel(reobtained, trRecordGet(mgr_.get(), "control.process")));
  trSpecRefRelease(reobtained);
  EXPECT_EQ(2, kyr::trSpecDeathRowCount());
}

}  // namespace
