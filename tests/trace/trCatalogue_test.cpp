// The manager's side of the catalogue: what groups, entries, records and text elements turn
// into, and the defects that end the process (status 1 from the handlers, 2 for syntax).
#include "trace/trCatalogue.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/kyrSxp.h"
#include "trace/trGroup.h"
#include "trace/trMgr.h"
#include "trace/trRecord.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

TEST(TrCatalogue, RecordNamingAnEntryTakesItsNameLevelFormatAndId) {
  TestManager mgr(
      "<group name=g><entry name=m1name id=m1 level=NOTICE><text>Hi %s</text></entry>"
      "<record id=m1/></group>");
  TrRecord* rec = trMgrGetRecord(mgr.get(), "g.m1name");
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(TR_LEVEL_NOTICE, rec->level);
  EXPECT_EQ(TR_LEVEL_NOTICE, trRecordGetDefaultLevel(rec));
  EXPECT_STREQ("Hi %s", trRecordGetFormat(rec));
  EXPECT_STREQ("m1", rec->messageId);
}

TEST(TrCatalogue, RecordsOwnNameAndLevelWinOverTheEntrys) {
  TestManager mgr(
      "<group name=g><entry name=m id=m1 level=NOTICE><text>t</text></entry>"
      "<record id=m1 name=own level=debug defaultLevel=error/></group>");
  TrRecord* rec = trMgrGetRecord(mgr.get(), "g.own");
  ASSERT_NE(nullptr, rec);
  EXPECT_EQ(TR_LEVEL_DEBUG, rec->level);
  EXPECT_EQ(TR_LEVEL_ERROR, trRecordGetDefaultLevel(rec));
  EXPECT_STREQ("t", trRecordGetFormat(rec));
}

TEST(TrCatalogue, RecordWithoutEntryHasNoFormatAndMessageIdMinusOne) {
  TestManager mgr("<group name=g><record name=r level=INFO/></group>");
  TrRecord* rec = trMgrGetRecord(mgr.get(), "g.r");
  EXPECT_EQ(nullptr, trRecordGetFormat(rec));
  EXPECT_STREQ("-1", rec->messageId);
}

TEST(TrCatalogue, EntryIsKeptByIdWithItsText) {
  TestManager mgr("<entry name=n id=K1 level=warning><text>a [b]</text></entry>");
  auto* message = static_cast<TrMessage*>(kyr::kyrHashGet(mgr.get()->messageMap, "K1"));
  ASSERT_NE(nullptr, message);
  EXPECT_STREQ("n", message->name);
  EXPECT_STREQ("warning", message->level);
  EXPECT_STREQ("a b", message->format);
}

TEST(TrCatalogue, TextBeforeTheTextElementJoinsTheEntrysFormat) {
  TestManager mgr(
      "<entry name=n id=K1 level=INFO>lead <text>x</text></entry>"
      "<group name=g><record id=K1/></group>");
  EXPECT_STREQ("lead x", trRecordGetFormat(trRecordGet(mgr.get(), "g.n")));
}

TEST(TrCatalogue, TextInsideARecordReplacesItsPathButNotItsLookupName) {
  TestManager mgr("<group name=g><record name=r level=INFO><text>odd</text></record></group>");
  TrRecord* rec = trMgrGetRecord(mgr.get(), "g.r");
  ASSERT_NE(nullptr, rec);
  EXPECT_STREQ("odd", trRecordGetPath(rec));
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "odd"));
}

TEST(TrCatalogue, TextInsideAGroupReplacesItsPathForLaterChildren) {
  TestManager mgr("<group name=g><text>h</text><record name=r level=INFO/></group>");
  TrGroup* group = trMgrGetGroup(mgr.get(), "g");
  ASSERT_NE(nullptr, group);
  EXPECT_STREQ("h", group->path);
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "h.r"));
}

TEST(TrCatalogue, NestedGroupsAreLinkedOnceUnderTheirParent) {
  TestManager mgr(
      "<group name=a description=\"top\"><group name=b><group name=c>"
      "<record name=r level=INFO/></group></group></group>");
  TrGroup* a = trMgrGetGroup(mgr.get(), "a");
  TrGroup* b = trMgrGetGroup(mgr.get(), "a.b");
  TrGroup* c = trMgrGetGroup(mgr.get(), "a.b.c");
  ASSERT_NE(nullptr, c);
  EXPECT_STREQ("top", a->description);
  EXPECT_EQ(b, kyr::trGroupGetChildGroups(a)[0]);
  EXPECT_EQ(nullptr, kyr::trGroupGetChildGroups(a)[1]);
  EXPECT_EQ(1, b->refcnt);
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "a.b.c.r"));
}

TEST(TrCatalogue, GroupWithoutANameIsSkippedAndItsContentsGoToTheRoot) {
  TestManager mgr(
      "<group name=a><group><record name=r level=INFO/><group name=c/></group>"
      "<record name=s level=INFO/></group>");
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), ".r"));
  EXPECT_NE(nullptr, trMgrGetGroup(mgr.get(), "c"));
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "a.s"));  // the nameless group's end popped itself
}

TEST(TrCatalogue, UnknownElementsAndAttributesAreIgnored) {
  TestManager mgr(
      "<catalogue version=2><group name=g colour=red><note>x</note>"
      "<record name=r level=INFO flavour=mild/></group></catalogue>");
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "g.r"));
}

TEST(TrCatalogue, ElementAndAttributeNamesIgnoreCase) {
  TestManager mgr("<GROUP NAME=g><Record Name=r Level=INFO/></GROUP>");
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "g.r"));
}

TEST(TrCatalogue, HandlersRefuseAMissingManagerOrName) {
  EXPECT_FALSE(kyr::kyrHandleStartElement("group", nullptr, nullptr));
  EXPECT_FALSE(kyr::kyrHandleEndElement("group", nullptr, nullptr));
  TestManager mgr("");
  EXPECT_FALSE(kyr::kyrHandleEndElement(nullptr, nullptr, mgr.get()));
  EXPECT_TRUE(kyr::kyrHandleEndElement("group", nullptr, mgr.get()));  // nothing open: no-op
}

TEST(TrCatalogue, ReadingTheShippedCatalogueSucceeds) {
  TrMgr* mgr = trMgrCreate(fopen(KYR_TRACE_CATALOGUE, "r"), 1);
  ASSERT_NE(nullptr, mgr);
  EXPECT_GT(mgr->recordCount, 0);
  trMgrDelete(mgr);
  kyr::trPurgeDeathRow();
}

// Every fatal message of the handlers goes to standard output; the death tests redirect it.
void readCatalogue(const char* text) {
  kyrtest::stdoutToStderr();
  kyrtest::managerFrom(text);
}

TEST(TrCatalogueDeathTest, EntryWithoutANameEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<entry id=a level=INFO/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: message with no 'name' defined in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, EntryWithoutAnIdEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<entry name=n level=INFO/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: message 'n' defined in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, EntryWithoutALevelEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<entry name=n id=i/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: message 'n' has no 'level' field defined in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, EntryWithAnUnknownLevelEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<entry name=n id=i level=LOUD/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: invalid level value of 'LOUD' for message 'n' in "
              "trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, RecordNamingAnUnknownIdEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<group name=g><record id=m9/></group>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: message id 'm9' is not defined in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, RecordWithoutANameEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<record level=INFO/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: record with no name in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, RecordWithoutAnyLevelEndsTheProcess) {
  EXPECT_EXIT(readCatalogue("<record name=r/>"), testing::ExitedWithCode(1),
              "FATAL INTERNAL ERROR: record 'r' has no level or defaultLevel in trace-cfg.xml");
}

TEST(TrCatalogueDeathTest, SyntaxErrorEndsTheProcessWithStatusTwo) {
  // The parser's own message (standard output) names the catalogue as kyr-trace.xml too.
  EXPECT_EXIT(readCatalogue("<group name=g>\n</record>"), testing::ExitedWithCode(2),
              "kyrSxpParse: Expected '>' token or group; got 'record'. line 2 of kyr-trace.xml"
              "(.|\n)*TrMgr.initTr: Failed to parse the file kyr-trace.xml");
}

TEST(TrCatalogueDeathTest, SyntaxErrorReportsOnStandardErrorWithoutRedirection) {
  EXPECT_EXIT(kyrtest::managerFrom("text outside"), testing::ExitedWithCode(2),
              "^TrMgr.initTr: Failed to parse the file kyr-trace.xml\n$");
}

}  // namespace
