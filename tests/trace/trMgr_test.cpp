// The trace manager, groups and records: level names, paths and lookups, extra parents, and the
// memory a manager returns when deleted.
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
  // Indexes select a trace specification's level slot, so they follow declaration order.
  EXPECT_EQ(0, kyr::trRecordGetIndex(trRecordGet(mgr.get(), "control.process")));
  EXPECT_EQ(6, kyr::trRecordGetIndex(top));
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

// A trace specification reaches a group through every parent; the group's path stays. Deleting
// the manager returns every counted block, the extra parent's reference included.
TEST(TrGroups, ExtraParentPassesLevelsOnButLeavesTheGroupsPath) {
  kyr::trDestroy();
  int baseline = kyr::kyrGetMemCount();
  TrMgr* mgr = kyrtest::managerFrom(kyrtest::kCatalogue);
  TrGroup* json = trMgrGetGroup(mgr, "control.json");
  kyr::trGroupAddParent(json, trMgrGetGroup(mgr, "http"));
  EXPECT_EQ(2, json->refcnt);
  EXPECT_STREQ("control.json", json->path);
  TrSpec* spec = trSpecCreate(mgr, ":OFF,http:DEBUG");
  EXPECT_EQ(TR_LEVEL_DEBUG,
            kyr::trSpecGetMaxLevel(spec, trRecordGet(mgr, "control.json.received")));
  TrContext* ctx = trContextCreate(mgr);
  trContextSetSpec(ctx, spec);  // the context takes over our reference
  trContextDelete(ctx);
  trMgrDelete(mgr);
  kyr::trDestroy();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
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

}  // namespace
