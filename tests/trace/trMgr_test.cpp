// The trace manager, groups and records: level names, paths and lookups, extra parents, the
// deliberately cached child arrays, and the memory a manager returns when deleted.
#include "trace/trMgr.h"

#include <gtest/gtest.h>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/trGroup.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

// Names in any case are covered where trace specifications and catalogues are read.
TEST(TrLevels, NullNamesAndNumbersOutsideZeroToEightAreRefused) {
  EXPECT_EQ(-1, trLevelNameToIndex(nullptr));
  EXPECT_EQ(-1, trLevelNameToIndex("DEBUGX"));
  EXPECT_STREQ("DEBUG", trLevelIndexToName(8));
  EXPECT_EQ(nullptr, trLevelIndexToName(-1));
  EXPECT_EQ(nullptr, trLevelIndexToName(9));
}

TEST(TrCatalogueTree, PathsNumberingDefaultLevelsAndLookups) {
  TestManager mgr(kyrtest::kCatalogue);
  TrRecord* received = trMgrGetRecord(mgr.get(), "control.json.received");
  ASSERT_NE(nullptr, received);
  EXPECT_STREQ("control.json.received", trRecordGetPath(received));
  // A record outside any group hangs off the root, whose path is empty.
  TrRecord* top = trMgrGetRecord(mgr.get(), ".top");
  ASSERT_NE(nullptr, top);
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "top"));
  TrRecord** rootRecords = kyr::trGroupGetChildRecords(kyr::trGroupGetRoot(mgr.get()));
  EXPECT_EQ(top, rootRecords[0]);
  EXPECT_EQ(nullptr, rootRecords[1]);
  // Indexes select a trace specification's level slot, so they follow declaration order.
  EXPECT_EQ(0, kyr::trRecordGetIndex(trRecordGet(mgr.get(), "control.process")));
  EXPECT_EQ(6, kyr::trRecordGetIndex(top));
  // A record made later from a message has no path and is found by its id.
  TrRecord* rec = kyr::trRecordCreateFromMessage(mgr.get(), "m", TR_LEVEL_ERROR, "KYR0100");
  EXPECT_EQ(7, kyr::trRecordGetIndex(rec));
  EXPECT_EQ(nullptr, trRecordGetPath(rec));
  EXPECT_EQ(-1, trRecordGetDefaultLevel(rec));
  EXPECT_EQ(rec, trMgrGetRecord(mgr.get(), "KYR0100"));
  EXPECT_EQ(TR_LEVEL_INFO, trRecordGetDefaultLevel(trRecordGet(mgr.get(), "control.process")));
  EXPECT_EQ(TR_LEVEL_INFO, trRecordGetDefaultLevel(trRecordGet(mgr.get(), "control.json.applied")));
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "control.nosuch"));
  EXPECT_EQ(nullptr, trMgrGetGroup(mgr.get(), "nosuch"));
}

TEST(TrCatalogueTreeDeathTest, UnknownRecordPathEndsTheProcess) {
  EXPECT_EXIT(
      {
        kyrtest::stdoutToStderr();
        trRecordGet(kyrtest::managerFrom(kyrtest::kCatalogue), "control.nosuch");
      },
      testing::ExitedWithCode(1),
      "FATAL INTERNAL ERROR: Invalid record path: 'control.nosuch'; check trace-cfg.xml for "
      "the valid path.");
}

TEST(TrGroups, ChildArraysKeepWhatTheyHeldAtTheFirstRequest) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* control = trMgrGetGroup(mgr.get(), "control");
  TrGroup** groups = kyr::trGroupGetChildGroups(control);
  ASSERT_EQ(trMgrGetGroup(mgr.get(), "control.json"), groups[0]);
  EXPECT_EQ(nullptr, groups[1]);
  ASSERT_EQ(trMgrGetRecord(mgr.get(), "control.process"), kyr::trGroupGetChildRecords(control)[0]);

  EXPECT_STREQ("control.later", kyr::trGroupCreateChild(control, "later")->path);
  kyr::trRecordCreate(control, "laterRecord", TR_LEVEL_INFO, -1);
  EXPECT_EQ(groups, kyr::trGroupGetChildGroups(control));
  EXPECT_EQ(nullptr, kyr::trGroupGetChildGroups(control)[1]);
  EXPECT_EQ(nullptr, kyr::trGroupGetChildRecords(control)[1]);
}

// A trace specification reaches a group through every parent; a record's path follows its last
// parent but its lookup name does not.
TEST(TrGroups, ExtraParentMovesARecordsPathButNeitherAGroupsPathNorALookupName) {
  TestManager mgr(kyrtest::kCatalogue);
  TrGroup* json = trMgrGetGroup(mgr.get(), "control.json");
  kyr::trGroupAddParent(json, trMgrGetGroup(mgr.get(), "http"));
  EXPECT_EQ(2, json->refcnt);
  EXPECT_STREQ("control.json", json->path);
  TrSpec* spec = trSpecCreate(mgr.get(), ":OFF,http:DEBUG");
  EXPECT_EQ(TR_LEVEL_DEBUG,
            kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr.get(), "control.json.received")));
  trSpecRefRelease(spec);

  TrRecord* process = trRecordGet(mgr.get(), "control.process");
  kyr::trRecordAddParent(process, trMgrGetGroup(mgr.get(), "http"));
  EXPECT_STREQ("http.process", trRecordGetPath(process));
  EXPECT_EQ(process, trMgrGetRecord(mgr.get(), "control.process"));
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "http.process"));
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
