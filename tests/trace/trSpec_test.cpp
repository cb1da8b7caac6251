// Trace specifications: how "name:LEVEL,..." texts turn into per-record levels and which texts
// are refused, and the death row that keeps a dropped trace specification readable for its grace
// time.
#include "trace/trSpec.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

struct ParsedRow {
  const char* text;
  std::vector<std::pair<const char*, int>> levels;  // record path, level the text gives it
};

TEST(TrSpecParse, TextsGiveTheseLevels) {
  const ParsedRow rows[] = {
      {nullptr, {{"control.json.received", 255}, {".top", 255}}},  // even above DEBUG
      {":ERROR", {{"control.json.received", TR_LEVEL_ERROR}, {".top", TR_LEVEL_ERROR}}},
      {":debug,http:Info,control:eRRoR",
       {{"http.select", TR_LEVEL_INFO},
        {"control.process", TR_LEVEL_ERROR},
        {".top", TR_LEVEL_DEBUG}}},
      {":DEBUG,http", {{"http.select", TR_LEVEL_WARNING}, {"control.process", TR_LEVEL_DEBUG}}},
      {"", {{"control.json.received", TR_LEVEL_WARNING}, {".top", TR_LEVEL_WARNING}}},
      // The empty item after a trailing comma sets everything back to WARNING.
      {":DEBUG,http:ERROR,", {{"http.select", TR_LEVEL_WARNING}, {".top", TR_LEVEL_WARNING}}},
      {"control:DEBUG,control.json.applied:ERROR",
       {{"control.json.applied", TR_LEVEL_ERROR}, {"control.json.received", TR_LEVEL_DEBUG}}},
      {"control.json.applied:ERROR,control:DEBUG", {{"control.json.applied", TR_LEVEL_DEBUG}}},
      {":OFF,control:INFO,.top:CRITICAL",
       {{"control.json.received", TR_LEVEL_INFO},
        {"http.select", TR_LEVEL_OFF},
        {".top", TR_LEVEL_CRITICAL}}},
  };
  TestManager mgr(kyrtest::kCatalogue);
  for (const ParsedRow& row : rows) {
    SCOPED_TRACE(kyrtest::orEmpty(row.text));
    TrSpec* spec = trSpecCreate(mgr.get(), row.text);
    ASSERT_NE(nullptr, spec);
    for (const auto& [path, level] : row.levels) {
      EXPECT_EQ(level, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), path))) << path;
    }
    trSpecRefRelease(spec);
  }
}

TEST(TrSpecParse, BadItemDiscardsTheWholeTextWithAMessage) {
  const std::pair<const char*, const char*> rows[] = {
      {":INFO,http:VERBOSE", "INVALID trace spec level name: 'VERBOSE'\n"},
      {"http:INFO,nosuch.group:DEBUG", "INVALID trace spec group or record name: 'nosuch.group'\n"},
      {"*:DEBUG", "INVALID trace spec group or record name: '*'\n"},  // no wildcards
      {"http: DEBUG", "INVALID trace spec level name: ' DEBUG'\n"},   // blanks are kept
      {":INFO, http", "INVALID trace spec group or record name: ' http'\n"},
  };
  TestManager mgr(kyrtest::kCatalogue);
  for (const auto& [text, message] : rows) {
    SCOPED_TRACE(text);
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, trSpecCreate(mgr.get(), text));
    EXPECT_EQ(message, testing::internal::GetCapturedStdout());
  }
}

TEST(TrSpecLookup, GroupPathWinsOverARecordOfTheSamePathAndLaterRecordsHaveNoLevel) {
  // Group a.b and the record b directly under a both have the path "a.b".
  TestManager mgr(
      "<group name=a><record name=b level=INFO/><group name=b>"
      "<record name=inner level=INFO/></group></group>");
  TrSpec* spec = trSpecCreate(mgr.get(), ":OFF,a.b:DEBUG");
  ASSERT_NE(nullptr, spec);
  TrRecord* late = kyr::trRecordCreate(trMgrGetGroup(mgr.get(), "a.b"), "late", TR_LEVEL_ERROR, -1);
  EXPECT_EQ(TR_LEVEL_DEBUG, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "a.b.inner")));
  EXPECT_EQ(TR_LEVEL_OFF, kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "a.b")));
  EXPECT_EQ(0, kyr::trSpecGetMaxLevel(spec, late));  // not DEBUG: the record came later
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

TEST_F(TrSpecDeathRow, ReleasedTraceSpecificationWaitsOnTheRowUntilPurged) {
  TrSpec* first = make(":INFO");
  TrSpec* second = make(":DEBUG");
  int allocated = kyr::kyrGetMemCount();
  trSpecRefRelease(first);
  EXPECT_EQ(1, trSpecRefObtain(first));
  trSpecRefRelease(first);   // released again after a re-obtain: still one entry
  trSpecRefRelease(second);  // its sweep stops at the first one, still within its grace
  EXPECT_EQ(2, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated, kyr::kyrGetMemCount());
  kyr::trPurgeDeathRow();  // a second entry for the first one would free it twice
  EXPECT_EQ(0, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated - 2, kyr::kyrGetMemCount());
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
  trSpecRefRelease(make(nullptr));  // a young one, whose release sweeps the row

  // The re-obtained one left the row unfreed, the dead one was freed, the young one waits.
  EXPECT_EQ(1, kyr::trSpecDeathRowCount());
  EXPECT_EQ(allocated, kyr::kyrGetMemCount());  // + young - dead
  EXPECT_EQ(TR_LEVEL_ERROR,
            kyr::trSpecGetMaxLevel(reobtained, trRecordGet(mgr_.get(), "control.process")));
  trSpecRefRelease(reobtained);
  EXPECT_EQ(2, kyr::trSpecDeathRowCount());
}

}  // namespace
