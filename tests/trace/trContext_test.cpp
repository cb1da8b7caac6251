// Trace contexts: enablement against the current trace specification, what the three writing
// functions hand the host's print callback, the default print callback, and writers racing a
// thread that swaps trace specifications.
#include "trace/trContext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
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

TEST_F(TrContextTest, EnablementUsesTheDefaultLevelUnlessOneIsGiven) {
  // A new context starts with ":NOTICE".
  EXPECT_TRUE(trContextLogEnabled(ctx_, record("http.select")));       // WARNING
  EXPECT_FALSE(trContextLogEnabled(ctx_, record("control.process")));  // INFO
  // control.json.applied is written at DEBUG but enabled from INFO on.
  use(":INFO");
  EXPECT_TRUE(trContextLogEnabled(ctx_, record("control.json.applied")));
  EXPECT_FALSE(trContextLogEnabled(ctx_, record("control.json.received")));
  use(":OFF,http.select:INFO");
  EXPECT_TRUE(trContextTraceEnabled(ctx_, record("http.select"), TR_LEVEL_INFO));
  EXPECT_FALSE(trContextTraceEnabled(ctx_, record("http.select"), TR_LEVEL_DEBUG));
  EXPECT_TRUE(trContextTraceEnabled(ctx_, record("http.badHost"), TR_LEVEL_OFF));
  EXPECT_FALSE(trContextLogEnabled(nullptr, record("http.select")));
  EXPECT_FALSE(trContextTraceEnabled(nullptr, record("http.select"), TR_LEVEL_ERROR));
}

TEST_F(TrContextTest, WritersPassFormatLevelAndMessageIdWithoutTestingEnablement) {
  use(":OFF");
  trContextLog(ctx_, record("http.badHost"), "example.org");
  trContextDebug(ctx_, record("control.process"), "pid %d", 42);
  trContextDebug(ctx_, record("http.quiet"), "q");
  trContextTrace(ctx_, record("http.badHost"), TR_LEVEL_CRITICAL, "%s-%s", "a", "b");
  std::vector<std::string> lines;  // format|message id|level|text
  for (const auto& p : printed())
    lines.push_back(p.format + "|" + p.messageId + "|" + p.level + "|" + p.text);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "Bad host %s|KYR0001|ERROR|Bad host example.org",  // the record's format
                       "pid %d|-1|INFO|pid 42",  // "-1": not from a message
                       "q|-1|NOTICE|q",          // a record without a level gives its default
                       "%s-%s|KYR0001|CRITICAL|a-b",
                   }));
}

TEST_F(TrContextTest, NothingIsWrittenWithoutAContextRecordOrPrintCallback) {
  trContextLog(nullptr, record("http.badHost"), "x");
  trContextDebug(ctx_, nullptr, "x");
  trContextTrace(nullptr, record("http.badHost"), TR_LEVEL_ERROR, "x");
  trMgrSetPrintf(mgr_.get(), nullptr);
  trContextLog(ctx_, record("http.badHost"), "x");
  EXPECT_TRUE(printed().empty());
}

TEST_F(TrContextTest, DefaultPrintfWritesLevelMessageIdAndTextAsOneLineOnStandardError) {
  trMgrSetPrintf(mgr_.get(), trDefaultPrintf);
  testing::internal::CaptureStderr();
  trContextLog(ctx_, record("http.badHost"), "h1");
  trContextDebug(ctx_, record("http.select"), "ends with newline %d\n", 7);
  EXPECT_EQ("ERROR [KYR0001] Bad host h1\nWARNING [-1] ends with newline 7\n",
            testing::internal::GetCapturedStderr());
}

// Writers ask for enablement and write while the test's thread keeps replacing the context's
// trace specification; under ThreadSanitizer this shows the swap and the reads never race, and
// the death row keeps every dropped trace specification alive long enough.
TEST(TraceConcurrency, WritersRaceAThreadThatSwapsTraceSpecifications) {
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
  TrRecord* badHost = trRecordGet(mgr, "http.badHost");  // ERROR: enabled under both
  TrRecord* select = trRecordGet(mgr, "http.select");    // WARNING: flips with every swap
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::atomic<int> selectSeen{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&] {
      while (!stop.load()) {
        if (trContextLogEnabled(ctx, badHost)) {
          ++written;
          trContextLog(ctx, badHost, "h");
        }
        selectSeen += trContextTraceEnabled(ctx, select, TR_LEVEL_WARNING) ? 1 : 0;
      }
    });
  }
  while (written.load() < 1000) std::this_thread::yield();  // swap while they are writing
  for (int i = 0; i < 2000; ++i) {
    trContextSetSpec(ctx, trSpecCreate(mgr, i % 2 == 0 ? ":ERROR" : ":WARNING"));
    trSpecRefRelease(trContextGetSpec(ctx));
  }
  stop = true;
  for (std::thread& w : writers) w.join();

  EXPECT_EQ(written.load(), lines.load());
  EXPECT_EQ(0, badLines.load());
  trContextDelete(ctx);
  trMgrDelete(mgr);
  kyr::trDestroy();
  EXPECT_EQ(baseline, kyr::kyrGetMemCount());
}

}  // namespace
