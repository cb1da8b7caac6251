// Trace contexts: enablement against the current specification, what the three writing
// functions hand the host's print callback, specification swapping, the default print callback,
// and writers racing a thread that swaps specifications.
#include "trace/trContext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "tr.h"
#include "trace/trRecord.h"
#include "trace/trSpec.h"
#include "trace/traceTestUtil.h"

namespace {

using kyrtest::printed;
using kyrtest::TestManager;

class TrContextTest : public testing::Test {
 protected:
  TrContextTest() : mgr_(kyrtest::kCatalogue), ctx_(trContextCreate(mgr_.get())) {
    printed().clear();
    trMgrSetPrintf(mgr_.get(), kyrtest::capturePrintf);
  }
  ~TrContextTest() override { trContextDelete(ctx_); }

  void use(const char* text) {
    TrSpec* spec = trSpecCreate(mgr_.get(), text);
    ASSERT_NE(nullptr, spec);
    trContextSetSpec(ctx_, spec);
  }
  TrRecord* record(const char* path) { return trRecordGet(mgr_.get(), path); }

  TestManager mgr_;
  TrContext* ctx_;
};

TEST_F(TrContextTest, NewContextStartsWithTheDefaultNoticeSpecification) {
  EXPECT_TRUE(trContextLogEnabled(ctx_, record("http.select")));       // WARNING
  EXPECT_FALSE(trContextLogEnabled(ctx_, record("control.process")));  // INFO
  EXPECT_FALSE(trContextLogEnabled(trMgrGetDefaultContext(mgr_.get()), record("control.process")));
}

TEST_F(TrContextTest, LogEnabledComparesWithTheDefaultLevelNotTheLevel) {
  // control.json.applied is written at DEBUG but enabled from INFO on.
  use(":INFO");
  EXPECT_TRUE(trContextLogEnabled(ctx_, record("control.json.applied")));
  EXPECT_FALSE(trContextLogEnabled(ctx_, record("control.json.received")));
  use(":NOTICE");
  EXPECT_FALSE(trContextLogEnabled(ctx_, record("control.json.applied")));
}

TEST_F(TrContextTest, TraceEnabledComparesWithTheGivenLevel) {
  use(":OFF,http.select:INFO");
  EXPECT_TRUE(trContextTraceEnabled(ctx_, record("http.select"), TR_LEVEL_INFO));
  EXPECT_FALSE(trContextTraceEnabled(ctx_, record("http.select"), TR_LEVEL_DEBUG));
  EXPECT_TRUE(trContextTraceEnabled(ctx_, record("http.badHost"), TR_LEVEL_OFF));
}

TEST_F(TrContextTest, NullContextOrRecordIsNeverEnabled) {
  use(nullptr);
  EXPECT_FALSE(trContextLogEnabled(nullptr, record("http.select")));
  EXPECT_FALSE(trContextLogEnabled(ctx_, nullptr));
  EXPECT_FALSE(trContextTraceEnabled(nullptr, record("http.select"), TR_LEVEL_ERROR));
}

TEST_F(TrContextTest, MessageRecordIsEnabledByItsLevelWhenItHasNoDefaultLevel) {
  TrRecord* rec = kyr::trRecordCreateFromMessage(mgr_.get(), "late", TR_LEVEL_INFO, "KYR0099");
  use(":NOTICE,KYR0099:NOTICE");
  EXPECT_FALSE(trContextLogEnabled(ctx_, rec));
  use("KYR0099:INFO");
  EXPECT_TRUE(trContextLogEnabled(ctx_, rec));
}

TEST_F(TrContextTest, LogPassesTheRecordsFormatLevelAndMessageId) {
  trContextLog(ctx_, record("http.badHost"), "example.org");
  ASSERT_EQ(1u, printed().size());
  EXPECT_EQ("Bad host %s", printed()[0].format);
  EXPECT_EQ("KYR0001", printed()[0].messageId);
  EXPECT_EQ("ERROR", printed()[0].level);
  EXPECT_EQ("Bad host example.org", printed()[0].text);
}

TEST_F(TrContextTest, WritingFunctionsDoNotTestEnablementThemselves) {
  use(":OFF");
  trContextLog(ctx_, record("http.badHost"), "x");
  EXPECT_EQ(1u, printed().size());
}

TEST_F(TrContextTest, DebugPassesTheCallersFormatWithTheRecordsLevel) {
  trContextDebug(ctx_, record("control.process"), "pid %d", 42);
  ASSERT_EQ(1u, printed().size());
  EXPECT_EQ("pid 42", printed()[0].text);
  EXPECT_EQ("INFO", printed()[0].level);
  EXPECT_EQ("-1", printed()[0].messageId);  // a record not made from a message
}

TEST_F(TrContextTest, DebugUsesTheDefaultLevelWhenTheRecordHasNoLevel) {
  TestManager mgr("<group name=g><record name=r defaultLevel=NOTICE/></group>");
  trMgrSetPrintf(mgr.get(), kyrtest::capturePrintf);
  trContextDebug(trMgrGetDefaultContext(mgr.get()), trRecordGet(mgr.get(), "g.r"), "x");
  ASSERT_EQ(1u, printed().size());
  EXPECT_EQ("NOTICE", printed()[0].level);
}

TEST_F(TrContextTest, TracePassesTheGivenLevelsName) {
  trContextTrace(ctx_, record("http.badHost"), TR_LEVEL_CRITICAL, "%s-%s", "a", "b");
  ASSERT_EQ(1u, printed().size());
  EXPECT_EQ("CRITICAL", printed()[0].level);
  EXPECT_EQ("KYR0001", printed()[0].messageId);
  EXPECT_EQ("a-b", printed()[0].text);
}

TEST_F(TrContextTest, NothingIsWrittenWithoutAContextRecordOrPrintCallback) {
  trContextLog(nullptr, record("http.badHost"), "x");
  trContextLog(ctx_, nullptr, "x");
  trContextDebug(ctx_, nullptr, "x");
  trContextTrace(nullptr, record("http.badHost"), TR_LEVEL_ERROR, "x");
  trMgrSetPrintf(mgr_.get(), nullptr);
  trContextLog(ctx_, record("http.badHost"), "x");
  EXPECT_TRUE(printed().empty());
}

TEST_F(TrContextTest, PrintCallbackSeesTheContextsSpecificationAndManager) {
  static TrMgr* seenMgr;
  static TrSpec* seenSpec;
  trMgrSetPrintf(mgr_.get(), [](TrContext* c, va_list) {
    seenMgr = trContextGetMgr(c);
    seenSpec = c->spec;
  });
  TrSpec* current = trContextGetSpec(ctx_);
  trContextLog(ctx_, record("http.select"));
  EXPECT_EQ(mgr_.get(), seenMgr);
  EXPECT_EQ(current, seenSpec);
  trSpecRefRelease(current);
}

TEST_F(TrContextTest, GetSpecAddsAReferenceAndSetSpecReleasesTheOldOne) {
  use(":ERROR");
  kyr::trPurgeDeathRow();
  TrSpec* spec = trSpecCreate(mgr_.get(), ":DEBUG");
  trContextSetSpec(ctx_, spec);              // the context takes over our reference
  EXPECT_EQ(1, kyr::trSpecDeathRowCount());  // the ":ERROR" one it held before
  TrSpec* got = trContextGetSpec(ctx_);
  EXPECT_EQ(spec, got);
  EXPECT_EQ(1, trSpecRefRelease(got));  // only the context's reference is left
  trContextSetSpec(ctx_, trSpecCreate(mgr_.get(), ":INFO"));
  EXPECT_EQ(2, kyr::trSpecDeathRowCount());
}

TEST_F(TrContextTest, DeletingTheContextReleasesItsSpecification) {
  kyr::trPurgeDeathRow();
  TrContext* other = trContextCreate(mgr_.get());
  trContextSetSpec(other, trSpecCreate(mgr_.get(), ":DEBUG"));
  int before = kyr::trSpecDeathRowCount();
  trContextDelete(other);
  EXPECT_EQ(before + 1, kyr::trSpecDeathRowCount());
}

TEST(TrDefaultPrintf, WritesLevelMessageIdAndTextAsOneLineOnStandardError) {
  TestManager mgr(kyrtest::kCatalogue);
  trMgrSetPrintf(mgr.get(), trDefaultPrintf);
  TrContext* ctx = trMgrGetDefaultContext(mgr.get());
  testing::internal::CaptureStderr();
  trContextLog(ctx, trRecordGet(mgr.get(), "http.badHost"), "h1");
  trContextDebug(ctx, trRecordGet(mgr.get(), "http.select"), "ends with newline %d\n", 7);
  EXPECT_EQ("ERROR [KYR0001] Bad host h1\nWARNING [-1] ends with newline 7\n",
            testing::internal::GetCapturedStderr());
}

// Writers ask for enablement and write while another thread keeps replacing the context's
// specification; under ThreadSanitizer this shows the swap and the reads never race, and the
// death row keeps every dropped specification alive long enough.
TEST(TraceConcurrency, WritersRaceAThreadThatSwapsSpecifications) {
  static std::atomic<int> lines{0};
  static std::atomic<int> badLines{0};
  lines = 0;
  badLines = 0;
  kyr::trDestroy();
  int baseline = kyr::kyrGetMemCount();
  TrMgr* mgr = kyrtest::managerFrom(kyrtest::kCatalogue);
  trMgrSetPrintf(mgr, [](TrContext* c, va_list args) {
    char text[64];
    vsnprintf(text, sizeof text, trContextGetFormat(c), args);
    if (strcmp(text, "Bad host h") != 0 || strcmp(trContextGetLevel(c), "ERROR") != 0) ++badLines;
    ++lines;
  });
  TrContext* ctx = trContextCreate(mgr);
  TrRecord* badHost = trRecordGet(mgr, "http.badHost");  // ERROR
  TrRecord* select = trRecordGet(mgr, "http.select");    // WARNING

  std::atomic<bool> stop{false};
  std::atomic<int> enabledCount{0};
  std::atomic<int> selectSeenOn{0};
  std::atomic<int> selectSeenOff{0};
  std::vector<std::thread> writers;
  writers.reserve(4);
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&] {
      while (!stop.load()) {
        if (trContextLogEnabled(ctx, badHost)) {
          ++enabledCount;
          trContextLog(ctx, badHost, "h");
        }
        ++(trContextTraceEnabled(ctx, select, TR_LEVEL_WARNING) ? selectSeenOn : selectSeenOff);
      }
    });
  }
  std::thread swapper([&] {
    while (selectSeenOn.load() + selectSeenOff.load() < 1000) std::this_thread::yield();
    for (int i = 0; i < 2000; ++i) {
      trContextSetSpec(ctx, trSpecCreate(mgr, i % 2 == 0 ? ":ERROR" : ":WARNING"));
      TrSpec* held = trContextGetSpec(ctx);
      trSpecRefRelease(held);
    }
    stop = true;
  });
  swapper.join();
  for (std::thread& w : writers) w.join();

  EXPECT_GT(enabledCount.load(), 0);
  EXPECT_EQ(enabledCount.load(), lines.load());
  EXPECT_EQ(0, badLines.load());
  EXPECT_GT(selectSeenOn.load() + selectSeenOff.load(), 0);

  trContextDelete(ctx);
  trMgrDelete(mgr);
  kyr::trDestroy();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
