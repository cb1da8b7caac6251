// Checks the trace catalogue that ships with the library (data/kyr-trace.xml) against the trace
// records the library looks up and the arguments it logs them with.
//
// trRecordGet ends the process on an unknown path, and trContextLog hands the record's format to
// the host's printf together with the caller's arguments. A record missing from the catalogue
// therefore shows up only as a crash at start-up, and a format whose conversions do not match the
// arguments as garbage or a crash on the first message; these tests catch both at build time.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tr.h"

namespace {

// How the library writes to a record.
enum class Use {
  Debug,  // debug lines with a format the caller supplies; off by default
  Log,    // trContextLog with the record's own format and the arguments below
  Error,  // an error the operator must see without asking for it
};

struct RecordUse {
  const char* path;
  Use use;
  // For records logged through their own format: the conversion characters of the arguments the
  // code passes, in order ("ssd": two strings, then an int). Ignored for records without a format.
  const char* arguments;
};

// Every trace record name the library's code looks up, with the way it writes to it.
const std::vector<RecordUse>& recordsTheLibraryUses() {
  static const std::vector<RecordUse> uses = {
      // Library handle.
      {"control.process", Use::Debug, ""},
      {"control.stateChange", Use::Log, "sss"},  // old state, new state, reason
      {"control.json.received", Use::Debug, ""},
      {"control.json.updated", Use::Debug, ""},
      {"control.error.invalidJSON", Use::Error, "sss"},  // source, message, document text
      {"control.error.invalidAction", Use::Error, ""},
      {"control.error.invalidKey", Use::Error, ""},
      {"control.ipc", Use::Debug, ""},
      {"control.trace.requestTraceSpecAdded", Use::Log, "dss"},  // order, condition, trace specification
      {"control.trace.requestTraceSpecRemoved", Use::Log, ""},
      {"control.trace.defaultReqTraceSpecSet", Use::Log, ""},
      {"control.trace.defaultReqTraceSpecReset", Use::Log, ""},
      {"control.trace.defaultTraceSpecSet", Use::Log, "s"},  // the trace specification text
      {"control.trace.defaultTraceSpecReset", Use::Log, ""},
      // Request mapping.
      {"control.mapper", Use::Debug, ""},
      {"http.request.map.url", Use::Debug, ""},
      // Target model and selection.
      {"http.request.select.process", Use::Debug, ""},
      {"http.request.select.editionRollout", Use::Debug, ""},
      {"http.request.select.affinity.process", Use::Debug, ""},
      {"http.request.select.affinity.keep", Use::Debug, ""},
      {"http.request.select.affinity.break", Use::Log, "s"},  // why affinity could not be kept
      {"http.request.select.balance", Use::Debug, ""},
      {"http.response.error.503", Use::Error, ""},
      {"control.selector", Use::Debug, ""},
      {"control.serverStateChange", Use::Log, "sss"},  // new state, old state, server name
      // Request context and response processing.
      {"http.stateChange", Use::Debug, ""},
      {"http.request.rules.traceRuleMatch", Use::Log, "dsssds"},  // order, type, condition,
                                                                  // host, port, path
      {"http.request.rules.process", Use::Debug, ""},
      {"http.response.process", Use::Debug, ""},
      {"http.request.process", Use::Debug, ""},
      {"http.request.connectFailure", Use::Log, "ss"},  // server name, host's message
      // Rules.
      {"control.rules.parsing.error", Use::Error, "sds"},  // expression, position, message
      {"control.rules.parsing.process", Use::Debug, ""},
      {"control.rules.insertAndRemove", Use::Debug, ""},
      {"control.rules.list", Use::Debug, ""},
      {"control.rules.process", Use::Debug, ""},
      // Connector groups.
      {"control.error.noConnectorError", Use::Error, ""},
      {"control.json.sent", Use::Debug, ""},
      {"control.connectorStateChange", Use::Log, "ssss"},  // group, old state, new state, reason
      // Multi-process operation: three set-up failures with their own wording each.
      {"control.badportpath", Use::Error, ""},
      // Health monitoring: policy, server, node, node's parent, threshold, measured value.
      {"control.health", Use::Debug, ""},
      {"http.response.health", Use::Debug, ""},
      {"control.responseHealthPolicyTriggered", Use::Log, "ssssdu"},
      {"control.timeoutHealthPolicyTriggered", Use::Log, "ssssdd"},
  };
  return uses;
}

// The conversion characters of a printf format, in order; "%%" is a literal percent sign.
std::string conversionsOf(const char* format) {
  std::string conversions;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    while (*p != '\0' && std::strchr("-+ #0", *p) != nullptr) ++p;
    while (*p != '\0' && (std::isdigit(static_cast<unsigned char>(*p)) || *p == '.' || *p == '*'))
      ++p;
    while (*p != '\0' && std::strchr("hlLqjzt", *p) != nullptr) ++p;
    if (*p == '\0') {
      conversions += '?';  // a dangling '%' at the end
      break;
    }
    conversions += *p;
  }
  return conversions;
}

class KyrTraceCatalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    FILE* fp = std::fopen(KYR_TRACE_CATALOGUE, "r");
    ASSERT_NE(fp, nullptr) << "cannot open " << KYR_TRACE_CATALOGUE;
    mgr_ = trMgrCreate(fp, 1);
    ASSERT_NE(mgr_, nullptr);
  }

  void TearDown() override {
    if (mgr_ != nullptr) trMgrDelete(mgr_);
  }

  TrMgr* mgr_ = nullptr;
};

TEST(KyrTraceCatalogueFormat, ConversionsAreReadInOrderAndPercentSignsAreNotArguments) {
  EXPECT_EQ(conversionsOf("plain text"), "");
  EXPECT_EQ(conversionsOf("%s went from %s to %s"), "sss");
  EXPECT_EQ(conversionsOf("100%% of %d, %-10s, %5.2f, %lu, %lld, %p"), "dsfudp");
  EXPECT_EQ(conversionsOf("ends in %"), "?");
}

TEST_F(KyrTraceCatalogue, EveryRecordTheLibraryUsesIsDeclared) {
  for (const RecordUse& use : recordsTheLibraryUses()) {
    TrRecord* rec = trMgrGetRecord(mgr_, use.path);
    ASSERT_NE(rec, nullptr) << use.path << " is not declared in the catalogue";
    EXPECT_STREQ(trRecordGetPath(rec), use.path);
  }
}

TEST_F(KyrTraceCatalogue, RecordsLoggedWithArgumentsHaveAMatchingMessageText) {
  for (const RecordUse& use : recordsTheLibraryUses()) {
    if (use.use == Use::Debug) continue;
    TrRecord* rec = trMgrGetRecord(mgr_, use.path);
    ASSERT_NE(rec, nullptr) << use.path;
    const char* format = trRecordGetFormat(rec);
    if (format == nullptr) {
      // Only error records written with their own per-call wording may go without a text.
      EXPECT_EQ(use.use, Use::Error) << use.path << " is logged through its own format but has none";
      EXPECT_STREQ(use.arguments, "") << use.path;
      continue;
    }
    EXPECT_NE(format[0], '\0') << use.path << " has an empty message text";
    const std::string conversions = conversionsOf(format);
    EXPECT_EQ(conversions.size(), std::strlen(use.arguments))
        << use.path << ": text '" << format << "' does not take the arguments the code passes";
    EXPECT_EQ(conversions, use.arguments) << use.path << ": text '" << format << "'";
  }
}

TEST_F(KyrTraceCatalogue, MessageTextsAreSingleLinesWithoutEscapes) {
  // The catalogue reader keeps no line breaks and processes no escapes, so a backslash in a text
  // would reach the output verbatim.
  for (const RecordUse& use : recordsTheLibraryUses()) {
    TrRecord* rec = trMgrGetRecord(mgr_, use.path);
    ASSERT_NE(rec, nullptr) << use.path;
    const char* format = trRecordGetFormat(rec);
    if (format == nullptr) continue;
    EXPECT_EQ(std::strchr(format, '\\'), nullptr) << use.path << ": '" << format << "'";
    EXPECT_EQ(std::strchr(format, '\n'), nullptr) << use.path << ": '" << format << "'";
    EXPECT_FALSE(std::isspace(static_cast<unsigned char>(format[std::strlen(format) - 1])))
        << use.path << ": '" << format << "' ends in white space";
  }
}

TEST_F(KyrTraceCatalogue, MessageTextsReadBackAsWritten) {
  // Blanks, apostrophes, commas, colons and parentheses must survive the reader; these texts use
  // all of them.
  TrRecord* stateChange = trMgrGetRecord(mgr_, "control.stateChange");
  ASSERT_NE(stateChange, nullptr);
  EXPECT_STREQ(trRecordGetFormat(stateChange), "Library state changed from %s to %s, reason: %s");
  TrRecord* added = trMgrGetRecord(mgr_, "control.trace.requestTraceSpecAdded");
  ASSERT_NE(added, nullptr);
  EXPECT_STREQ(trRecordGetFormat(added),
               "Request trace rule %d added: condition '%s', trace specification '%s'");
  TrRecord* server = trMgrGetRecord(mgr_, "control.serverStateChange");
  ASSERT_NE(server, nullptr);
  EXPECT_STREQ(trRecordGetFormat(server), "New state %s (previously %s) for application server %s");
}

TEST_F(KyrTraceCatalogue, DefaultLevelsAreSane) {
  for (const RecordUse& use : recordsTheLibraryUses()) {
    TrRecord* rec = trMgrGetRecord(mgr_, use.path);
    ASSERT_NE(rec, nullptr) << use.path;
    const int level = trRecordGetDefaultLevel(rec);
    EXPECT_GE(level, TR_LEVEL_EMERG) << use.path;
    EXPECT_LE(level, TR_LEVEL_DEBUG) << use.path;
    switch (use.use) {
      case Use::Error:
        EXPECT_LE(level, TR_LEVEL_ERROR) << use.path << " is an error but its level is "
                                         << trLevelIndexToName(level);
        break;
      case Use::Debug:
        EXPECT_GT(level, TR_LEVEL_NOTICE) << use.path << " is debug output but is written by default";
        break;
      case Use::Log:
        break;
    }
  }
}

TEST_F(KyrTraceCatalogue, TheDefaultTraceSpecificationWritesErrorsAndHidesDebugOutput) {
  // The manager starts with ":NOTICE" on its default context.
  TrContext* ctx = trMgrGetDefaultContext(mgr_);
  ASSERT_NE(ctx, nullptr);
  for (const RecordUse& use : recordsTheLibraryUses()) {
    TrRecord* rec = trMgrGetRecord(mgr_, use.path);
    ASSERT_NE(rec, nullptr) << use.path;
    if (use.use == Use::Error) {
      EXPECT_TRUE(trContextLogEnabled(ctx, rec)) << use.path;
    } else if (use.use == Use::Debug) {
      EXPECT_FALSE(trContextLogEnabled(ctx, rec)) << use.path;
    }
  }
}

TEST_F(KyrTraceCatalogue, EveryPrefixOfARecordPathIsAGroupAnOperatorCanTrace) {
  // Operators enable whole areas by group path ("control.json:DEBUG"), so each dotted prefix of
  // a record path must be a group, and a specification naming it must be accepted.
  for (const RecordUse& use : recordsTheLibraryUses()) {
    const std::string path = use.path;
    for (std::size_t dot = path.find('.'); dot != std::string::npos;
         dot = path.find('.', dot + 1)) {
      const std::string prefix = path.substr(0, dot);
      EXPECT_NE(trMgrGetGroup(mgr_, prefix.c_str()), nullptr)
          << prefix << " (prefix of " << path << ") is not a group";
    }
  }
  TrSpec* spec = trSpecCreate(mgr_, ":NOTICE,control.json:DEBUG,http.request.select:INFO");
  ASSERT_NE(spec, nullptr);
  trSpecRefRelease(spec);
}

TEST_F(KyrTraceCatalogue, AGroupSpecificationReachesTheRecordsBelowIt) {
  TrRecord* received = trMgrGetRecord(mgr_, "control.json.received");
  TrRecord* mapper = trMgrGetRecord(mgr_, "control.mapper");
  ASSERT_NE(received, nullptr);
  ASSERT_NE(mapper, nullptr);
  TrContext* ctx = trContextCreate(mgr_);
  ASSERT_NE(ctx, nullptr);
  TrSpec* spec = trSpecCreate(mgr_, ":NOTICE,control.json:DEBUG");
  ASSERT_NE(spec, nullptr);
  trContextSetSpec(ctx, spec);
  EXPECT_TRUE(trContextLogEnabled(ctx, received));
  EXPECT_FALSE(trContextLogEnabled(ctx, mapper));
  trContextDelete(ctx);
}

}  // namespace
