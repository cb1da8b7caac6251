// The manager's side of the catalogue: what groups, entries, records and text elements turn
// into, and the defects that end the process (status 1 from the handlers, 2 for syntax).
#include "trace/trCatalogue.h"

#include <gtest/gtest.h>

#include <string>

#include "tr.h"
#include "trace/trGroup.h"
#include "trace/trMgr.h"
#include "trace/trRecord.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::TestManager;

TEST(TrCatalogue, RecordNamingAnEntryTakesWhatItDoesNotSetItself) {
  TestManager mgr(
      "<group name=g><entry name=m1name id=m1 level=NOTICE><text>Hi %s</text></entry>"
      "<record id=m1/><record id=m1 name=own level=debug defaultLevel=error/></group>");
  TrRecord* fromEntry = trMgrGetRecord(mgr.get(), "g.m1name");
  ASSERT_NE(nullptr, fromEntry);
  EXPECT_EQ(TR_LEVEL_NOTICE, fromEntry->level);
  EXPECT_EQ(TR_LEVEL_NOTICE, trRecordGetDefaultLevel(fromEntry));
  EXPECT_STREQ("Hi %s", trRecordGetFormat(fromEntry));
  EXPECT_STREQ("m1", fromEntry->messageId);
  TrRecord* own = trMgrGetRecord(mgr.get(), "g.own");
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(TR_LEVEL_DEBUG, own->level);
  EXPECT_EQ(TR_LEVEL_ERROR, trRecordGetDefaultLevel(own));
  EXPECT_STREQ("Hi %s", trRecordGetFormat(own));
}

TEST(TrCatalogue, TextInsideARecordOrGroupReplacesItsPathButNotItsLookupName) {
  TestManager mgr(
      "<group name=g><record name=r level=INFO><text>odd</text></record></group>"
      "<group name=h><text>x</text><record name=s level=INFO/></group>");
  TrRecord* rec = trMgrGetRecord(mgr.get(), "g.r");
  ASSERT_NE(nullptr, rec);
  EXPECT_STREQ("odd", trRecordGetPath(rec));
  EXPECT_EQ(nullptr, trMgrGetRecord(mgr.get(), "odd"));
  ASSERT_NE(nullptr, trMgrGetGroup(mgr.get(), "h"));
  EXPECT_STREQ("x", trMgrGetGroup(mgr.get(), "h")->path);
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "x.s"));  // later children build on the new path
}

TEST(TrCatalogue, GroupsNestAndTolerateWhatTheyDoNotKnow) {
  TestManager mgr(
      "<catalogue version=2><group name=a description=\"top\"><group name=b><group name=c>"
      "<record name=r level=INFO/></group></group>"
      "<group><record name=free level=INFO/><group name=loose/></group>"  // no name: skipped
      "<record name=s level=INFO/></group>"
      "<GROUP NAME=g colour=red><note>x</note><Record Name=r Level=INFO flavour=mild/></GROUP>"
      "</catalogue>");
  TrGroup* b = trMgrGetGroup(mgr.get(), "a.b");
  ASSERT_NE(nullptr, b);
  EXPECT_STREQ("top", trMgrGetGroup(mgr.get(), "a")->description);
  EXPECT_EQ(1, b->refcnt);  // linked once
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "a.b.c.r"));
  // A nameless group's contents go to the root, and its end pops only itself.
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), ".free"));
  EXPECT_NE(nullptr, trMgrGetGroup(mgr.get(), "loose"));
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "a.s"));
  // Unknown elements and attributes are ignored; known names match in any case.
  EXPECT_NE(nullptr, trMgrGetRecord(mgr.get(), "g.r"));
}

struct FatalRow {
  const char* catalogue;
  int status;
  const char* message;  // a regular expression
};

TEST(TrCatalogueDeathTest, DefectsEndTheProcessWithTheseMessages) {
  const FatalRow rows[] = {
      {"<entry id=a level=INFO/>", 1, "message with no 'name' defined in trace-cfg.xml"},
      {"<entry name=n level=INFO/>", 1, "message 'n' defined in trace-cfg.xml"},
      {"<entry name=n id=i/>", 1, "message 'n' has no 'level' field defined in trace-cfg.xml"},
      {"<entry name=n id=i level=LOUD/>", 1,
       "invalid level value of 'LOUD' for message 'n' in trace-cfg.xml"},
      {"<group name=g><record id=m9/></group>", 1,
       "message id 'm9' is not defined in trace-cfg.xml"},
      {"<record level=INFO/>", 1, "record with no name in trace-cfg.xml"},
      {"<record name=r/>", 1, "record 'r' has no level or defaultLevel in trace-cfg.xml"},
      // The parser's own message names the catalogue kyr-trace.xml too.
      {"<group name=g>\n</record>", 2,
       "kyrSxpParse: Expected '>' token or group; got 'record'. line 2 of kyr-trace.xml"
       "(.|\n)*TrMgr.initTr: Failed to parse the file kyr-trace.xml"},
  };
  for (const FatalRow& row : rows) {
    SCOPED_TRACE(row.catalogue);
    const std::string expected =
        row.status == 1 ? std::string("FATAL INTERNAL ERROR: ") + row.message : row.message;
    // The handlers print on standard output, which death tests do not see without the redirect.
    EXPECT_EXIT(
        {
          kyrtest::stdoutToStderr();
          kyrtest::managerFrom(row.catalogue);
        },
        testing::ExitedWithCode(row.status), expected);
  }
}

TEST(TrCatalogueDeathTest, SyntaxErrorReportsOnStandardErrorWithoutRedirection) {
  EXPECT_EXIT(kyrtest::managerFrom("text outside"), testing::ExitedWithCode(2),
              "^TrMgr.initTr: Failed to parse the file kyr-trace.xml\n$");
}

}  // namespace
