// The shipped trace catalogue (data/kyr-trace.xml) against the records the library looks up and
// the arguments it logs them with. An undeclared record ends the process at start-up, and a text
// whose conversions do not match the arguments prints garbage or crashes on the first message.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tr.h"
#include "trace/traceTestUtil.h"

namespace {

// Records the library writes with a format the caller supplies (off by default), blank-separated.
const char* const kDebugRecords =
    "control.process control.json.received control.json.updated control.json.sent control.ipc "
    "control.mapper control.selector control.health control.rules.parsing.process "
    "control.rules.insertAndRemove control.rules.list control.rules.process "
    "http.request.map.url http.request.select.process http.request.select.editionRollout "
    "http.request.select.affinity.process http.request.select.affinity.keep "
    "http.request.select.balance http.stateChange http.request.rules.process "
    "http.request.process http.response.process http.response.health";

std::vector<std::string> debugRecords() {
  std::istringstream words(kDebugRecords);
  return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
}

enum class Use {
  Log,    // trContextLog with the record's own format
  Error,  // an error the operator must see without asking for it
};

struct LoggedRecord {
  const char* path;
  Use use;
  // The conversion characters of the arguments the code passes, in order ("sd": a string, then
  // an int). Error records written with their own per-call wording have no text and pass "".
  const char* arguments;
};

const LoggedRecord kLoggedRecords[] = {
    {"control.stateChange", Use::Log, "sss"},          // old state, new state, reason
    {"control.error.invalidJSON", Use::Error, "sss"},  // source, message, document text
    {"control.error.invalidAction", Use::Error, ""},
    {"control.error.invalidKey", Use::Error, ""},
    {"control.error.noConnectorError", Use::Error, ""},
    {"control.badportpath", Use::Error, ""},
    // Order, condition, trace specification.
    {"control.trace.requestTraceSpecAdded", Use::Log, "dss"},
    {"control.trace.requestTraceSpecRemoved", Use::Log, ""},
    {"control.trace.defaultReqTraceSpecSet", Use::Log, ""},
    {"control.trace.defaultReqTraceSpecReset", Use::Log, ""},
    {"control.trace.defaultTraceSpecSet", Use::Log, "s"},  // the trace specification text
    {"control.trace.defaultTraceSpecReset", Use::Log, ""},
    {"http.request.select.affinity.break", Use::Log, "s"},  // why affinity could not be kept
    {"http.response.error.503", Use::Error, ""},
    {"control.serverStateChange", Use::Log, "sss"},             // new state, old state, server name
    {"http.request.rules.traceRuleMatch", Use::Log, "dsssds"},  // order, type, condition,
                                                                // host, port, path
    {"http.request.connectFailure", Use::Log, "ss"},            // server name, host's message
    {"control.rules.parsing.error", Use::Error, "sds"},         // expression, position, message
    {"control.connectorStateChange", Use::Log, "ssss"},  // group, old state, new state, reason
    // Policy, server, node, node's parent, threshold, measured value.
    {"control.responseHealthPolicyTriggered", Use::Log, "ssssdu"},
    {"control.timeoutHealthPolicyTriggered", Use::Log, "ssssdd"},
};

// The conversion characters of a printf format, in order; "%%" is a literal percent sign and a
// '%' left dangling at the end shows as '?'.
std::string conversionsOf(const std::string& format) {
  static const std::regex conversion(R"(%(%|[-+ #0]*[0-9.*]*[hlLqjzt]*(.?)))");
  std::string conversions;
  for (std::sregex_iterator m(format.begin(), format.end(), conversion), end; m != end; ++m) {
    if ((*m)[1] != "%") conversions += (*m)[2].length() != 0 ? (*m)[2].str() : "?";
  }
  return conversions;
}

std::string shippedCatalogue() {
  std::ifstream in(KYR_TRACE_CATALOGUE);
  EXPECT_TRUE(in) << "cannot open " << KYR_TRACE_CATALOGUE;
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class KyrTraceCatalogue : public ::testing::Test {
 protected:
  kyrtest::TestManager mgr_{shippedCatalogue()};
  TrContext* ctx_ = trMgrGetDefaultContext(mgr_.get());  // starts with ":NOTICE"
};

TEST_F(KyrTraceCatalogue, DebugRecordsAreDeclaredAndHiddenByDefault) {
  for (const std::string& path : debugRecords()) {
    SCOPED_TRACE(path);
    TrRecord* rec = trMgrGetRecord(mgr_.get(), path.c_str());
    ASSERT_NE(rec, nullptr) << "not declared in the catalogue";
    EXPECT_EQ(trRecordGetPath(rec), path);
    EXPECT_GT(trRecordGetDefaultLevel(rec), TR_LEVEL_NOTICE);
    EXPECT_LE(trRecordGetDefaultLevel(rec), TR_LEVEL_DEBUG);
    EXPECT_FALSE(trContextLogEnabled(ctx_, rec));
  }
}

TEST_F(KyrTraceCatalogue, LoggedRecordsHaveASingleLineTextTakingTheArgumentsTheCodePasses) {
  for (const LoggedRecord& use : kLoggedRecords) {
    SCOPED_TRACE(use.path);
    TrRecord* rec = trMgrGetRecord(mgr_.get(), use.path);
    ASSERT_NE(rec, nullptr) << "not declared in the catalogue";
    EXPECT_STREQ(trRecordGetPath(rec), use.path);
    const int level = trRecordGetDefaultLevel(rec);
    EXPECT_GE(level, TR_LEVEL_EMERG);
    EXPECT_LE(level, use.use == Use::Error ? TR_LEVEL_ERROR : TR_LEVEL_DEBUG);
    EXPECT_TRUE(use.use != Use::Error || trContextLogEnabled(ctx_, rec)) << "hidden by default";
    const char* format = trRecordGetFormat(rec);
    if (format == nullptr) {
      EXPECT_EQ(use.use, Use::Error) << "logged through its own format but has none";
      EXPECT_STREQ(use.arguments, "");
      continue;
    }
    ASSERT_NE(format[0], '\0');
    EXPECT_EQ(conversionsOf(format), use.arguments) << "text '" << format << "'";
    // The catalogue reader keeps no line breaks and processes no escapes, so a backslash would
    // reach the output verbatim.
    EXPECT_EQ(std::strpbrk(format, "\\\n"), nullptr) << "text '" << format << "'";
    EXPECT_FALSE(std::isspace(static_cast<unsigned char>(format[std::strlen(format) - 1])));
  }
}

TEST_F(KyrTraceCatalogue, EveryPrefixOfARecordPathIsAGroupAnOperatorCanTrace) {
  // Operators enable whole areas by group path ("control.json:DEBUG").
  std::vector<std::string> paths = debugRecords();
  for (const LoggedRecord& use : kLoggedRecords) paths.emplace_back(use.path);
  for (const std::string& path : paths) {
    for (std::size_t dot = path.find('.'); dot != std::string::npos;
         dot = path.find('.', dot + 1)) {
      const std::string prefix = path.substr(0, dot);
      EXPECT_NE(trMgrGetGroup(mgr_.get(), prefix.c_str()), nullptr)
          << prefix << " (prefix of " << path << ") is not a group";
    }
  }
  TrSpec* spec = trSpecCreate(mgr_.get(), ":NOTICE,control.json:DEBUG,http.request.select:INFO");
  ASSERT_NE(spec, nullptr);
  trSpecRefRelease(spec);
}

}  // namespace
