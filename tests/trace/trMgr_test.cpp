// The trace manager, groups and records: level names, paths built from the catalogue, lookups,
// extra parents, cached child arrays, and the memory a manager returns when deleted.
#include "trace/trMgr.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/trGroup.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

TEST(TrLevels, NamesMapToNumbersIgnoringCase) {
  EXPECT_EQ(TR_LEVEL_OFF, trLevelNameToIndex("OFF"));
  EXPECT_EQ(TR_LEVEL_WARNING, trLevelNameToIndex("Warning"));
  EXPECT_EQ(TR_LEVEL_DEBUG, trLevelNameToIndex("debug"));
  EXPECT_EQ(-1, trLevelNameToIndex("VERBOSE"));
  EXPECT_EQ(-1, trLevelNameToIndex("DEBUGX"));
  EXPECT_EQ(-1, trLevelNameToIndex(nullptr));
}

TEST(TrLevels, NumbersMapToNamesOnlyFromZeroToEight) {
  EXPECT_STREQ("OFF", trLevelIndexToName(0));
  EXPECT_STREQ("CRITICAL", trLevelIndexToName(3));
  EXPECT_STREQ("DEBUG", trLevelIndexToName(8));
  EXPECT_EQ(nullptr, trLevelIndexToName(-1));
  EXPECT_EQ(nullptr, trLevelIndexToName(9));
}

TEST(TrPaths, MakePathJoinsWithAPointEvenUnderAnEmptyParent) {
  char* path = kyr::makePath("control", "json");
  EXPECT_STREQ("control.json", path);
  free(path);
  path = kyr::makePath("", "top");
  EXPECT_STREQ(".top", path);
  free(path);
}

TEST(TrCatalogueTree, GroupsAndRecordsGetDottedPaths) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* json = trMgrGetGroup(mgr.get(), "control.json");
  ASSERT_NE(nullptr, json);
  EXPECT_STREQ("json", json->name);
  EXPECT_STREQ("Control of the library", trMgrGetGroup(mgr.get(), "control")->description);
  TrRecord* received = trMgrGetRecord(mgr.get(), "control.json.received");
  ASSERT_NE(nullptr, received);
  EXPECT_STREQ("received", trRecordGetName(received));
  EXPECT_STREQ("control.json.received", trRecordGetPath(received));
  EXPECT_EQ(mgr.get(), kyr::trRecordGetMgr(received));
}

TEST(TrCatalogueTree, RecordOutsideAnyGroupHasALeadingPoint) {
  TestManager mgr(kyrtest::kCatalogue);
  TrRecord* top = trMgrGetRecord(mgr.get(), ".top");
  ASSERT_NE(nullptr, top);
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "top"));
  TrRecord** rootRecords = kyr::trGroupGetChildRecords(kyr::trGroupGetRoot(mgr.get()));
  EXPECT_EQ(top, rootRecords[0]);
  EXPECT_EQ(nullptr, rootRecords[1]);
}

TEST(TrCatalogueTree, RecordsAreNumberedInDeclarationOrder) {
  TestManager mgr(kyrtest::kCatalogue);
  EXPECT_EQ(0, kyr::trRecordGetIndex(trRecordGet(mgr.get(), "control.process")));
  EXPECT_EQ(5, kyr::trRecordGetIndex(trRecordGet(mgr.get(), ".top")));
  EXPECT_EQ(6, mgr.get()->recordCount);
}

TEST(TrCatalogueTree, DefaultLevelFollowsTheLevelWhenNotGiven) {
  TestManager mgr(kyrtest::kCatalogue);
  EXPECT_EQ(TR_LEVEL_INFO, trRecordGetDefaultLevel(trRecordGet(mgr.get(), "control.process")));
  EXPECT_EQ(TR_LEVEL_INFO, trRecordGetDefaultLevel(trRecordGet(mgr.get(), "control.json.applied")));
}

TEST(TrCatalogueTree, UnknownPathIsNullFromTheManager) {
  TestManager mgr(kyrtest::kCatalogue);
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "control.nosuch"));
  EXPECT_EQ(nullptr, trMgrGetGroup(mgr.get(), "nosuch"));
}

TEST(TrCatalogueTreeDeathTest, UnknownRecordPathEndsTheProcess) {
  EXPECT_EXIT(
      {
        kyrtest::stdoutToStderr();
        TrMgr* mgr = kyrtest::managerFrom(kyrtest::kCatalogue);
        trRecordGet(mgr, "control.nosuch");
      },
      testing::ExitedWithCode(1),
      "FATAL INTERNAL ERROR: Invalid record path: 'control.nosuch'; check trace-cfg.xml for "
      "the valid path.");
}

TEST(TrGroups, ChildArraysKeepWhatTheyHeldAtTheFirstRequest) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* control = trMgrGetGroup(mgr.get(), "control");
  TrGroup** groups = kyr::trGroupGetChildGroups(control);
  TrRecord** records = kyr::trGroupGetChildRecords(control);
  ASSERT_EQ(trMgrGetGroup(mgr.get(), "control.json"), groups[0]);
  EXPECT_EQ(nullptr, groups[1]);
  ASSERT_EQ(trMgrGetRecord(mgr.get(), "control.process"), records[0]);
  EXPECT_EQ(nullptr, records[1]);

  TrGroup* later = kyr::trGroupCreateChild(control, "later");
  kyr::trRecordCreate(control, "laterRecord", TR_LEVEL_INFO, -1);
  EXPECT_STREQ("control.later", later->path);
  EXPECT_EQ(groups, kyr::trGroupGetChildGroups(control));
  EXPECT_EQ(nullptr, kyr::trGroupGetChildGroups(control)[1]);  // deliberately cached
  EXPECT_EQ(nullptr, kyr::trGroupGetChildRecords(control)[1]);
}

TEST(TrGroups, TopLevelGroupsAreChildrenOfTheRootWithBareNames) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* made = kyr::trGroupCreate(mgr.get(), "made");
  EXPECT_STREQ("made", made->path);
  EXPECT_EQ(made, trMgrGetGroup(mgr.get(), "made"));
  EXPECT_EQ(made, kyr::trGroupGet(mgr.get(), "made"));
  TrGroup** top = kyr::trGroupGetChildGroups(kyr::trGroupGetRoot(mgr.get()));
  EXPECT_EQ(trMgrGetGroup(mgr.get(), "control"), top[0]);
  EXPECT_EQ(trMgrGetGroup(mgr.get(), "http"), top[1]);
  EXPECT_EQ(made, top[2]);
}

TEST(TrGroups, ExtraParentKeepsTheGroupsPathAndAddsAReference) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* json = trMgrGetGroup(mgr.get(), "control.json");
  TrGroup* http = trMgrGetGroup(mgr.get(), "http");
  kyr::trGroupAddParent(json, http);
  EXPECT_EQ(2, json->refcnt);
  EXPECT_STREQ("control.json", json->path);
  TrSpec* spec = trSpecCreate(mgr.get(), ":OFF,http:DEBUG");
  EXPECT_EQ(TR_LEVEL_DEBUG,
            kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "control.json.received")));
  trSpecRefRelease(spec);
}

TEST(TrRecords, ExtraParentGivesTheLastParentsPathButKeepsTheLookupName) {
  TestManager mgr(kyrtest::kCatalogue);
  TrRecord* process = trRecordGet(mgr.get(), "control.process");
  kyr::trRecordAddParent(process, trMgrGetGroup(mgr.get(), "http"));
  EXPECT_STREQ("http.process", trRecordGetPath(process));
  EXPECT_EQ(process, trMgrGetRecord(mgr.get(), "control.process"));
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "http.process"));
}

TEST(TrRecords, RecordFromAMessageHasNoPathAndIsFoundByItsId) {
  TestManager mgr(kyrtest::kCatalogue);
  TrRecord* rec = kyr::trRecordCreateFromMessage(mgr.get(), "m", TR_LEVEL_ERROR, "KYR0100");
  EXPECT_EQ(nullptr, trRecordGetPath(rec));
  EXPECT_EQ(-1, trRecordGetDefaultLevel(rec));
  EXPECT_EQ(rec, trMgrGetRecord(mgr.get(), "KYR0100"));
  EXPECT_EQ(6, kyr::trRecordGetIndex(rec));
}

TEST(TrRecords, SetFormatReplacesOrClearsTheFormat) {
  TestManager mgr(kyrtest::kCatalogue);
  TrRecord* rec = trRecordGet(mgr.get(), "http.badHost");
  kyr::trRecordSetFormat(rec, "new %d");
  EXPECT_STREQ("new %d", trRecordGetFormat(rec));
  kyr::trRecordSetFormat(rec, nullptr);
  EXPECT_EQ(nullptr, trRecordGetFormat(rec));
}

TEST(TrManager, ManagerWithoutACatalogueHasOnlyTheRoot) {
  TrMgr* mgr = trMgrCreate(nullptr, 0);
  ASSERT_NE(nullptr, mgr);
  EXPECT_EQ(0, mgr->recordCount);
  EXPECT_EQ(kyr::trGroupGetRoot(mgr), trMgrGetGroup(mgr, ""));
  EXPECT_NE(nullptr, trMgrGetDefaultContext(mgr));
  trMgrDelete(mgr);
  kyr::trPurgeDeathRow();
}

TEST(TrManager, DeletingTheManagerReturnsEveryCountedBlock) {
  kyr::trDestroy();
  int baseline = kyr::kyrGetMemCount();
  TrMgr* mgr = kyrtest::managerFrom(kyrtest::kCatalogue);
  // Extra parents and records made after the catalogue must be released too.
  kyr::trGroupAddParent(trMgrGetGroup(mgr, "control.json"), trMgrGetGroup(mgr, "http"));
  kyr::trRecordAddParent(trRecordGet(mgr, ".top"), trMgrGetGroup(mgr, "http"));
  kyr::trRecordCreateFromMessage(mgr, "m", TR_LEVEL_ERROR, "KYR0100");
  kyr::trGroupGetChildGroups(trMgrGetGroup(mgr, "control"));
  TrContext* ctx = trContextCreate(mgr);
  trContextSetSpec(ctx, trSpecCreate(mgr, ":DEBUG"));
  trContextDelete(ctx);
  trMgrDelete(mgr);
  kyr::trDestroy();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
