// The catalogue lexer and event parser on their own: tokens, the state machine's exact failure
// messages, and the deliberate quirks catalogue authors rely on.
#include "trace/kyrSxp.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "trace/kyrSxLex.h"
#include "trace/traceTestUtil.h"

namespace {

using Strings = std::vector<std::string>;

struct Lexed {
  Strings tokens;
  int lastLine;
  int error;
};

// Every token up to the end of input, each read in `state`.
Lexed lexAll(const std::string& text, int state) {
  FILE* file = kyrtest::streamOf(text);
  kyr::KyrSXLex* lex = kyr::kyrLexCreate(file);
  char buffer[kyr::kSxpTokenBufferSize];
  Lexed out;
  while (const char* t = kyr::kyrLexFile(lex, buffer, sizeof buffer, state))
    out.tokens.push_back(t);
  out.lastLine = kyr::kyrLexGetLineNumber(lex);
  out.error = kyr::kyrLexGetError(lex);
  kyr::kyrLexDestroy(lex);
  fclose(file);
  return out;
}

struct LexRow {
  std::string text;
  int state;
  Strings tokens;
  int lastLine;
  bool tooLong = false;  // the lexer stops with its one error
};

TEST(KyrSxLex, TokensLineNumbersAndTheLengthLimit) {
  const std::string longest(kyr::kSxpTokenBufferSize - 1, 'w');  // one short of the buffer
  const LexRow rows[] = {
      {"<a b=c/><!--?>", 1, {"<", "a", "b", "=", "c", "/", ">", "<", "!", "-", "-", "?", ">"}, 1},
      {"control.json_x:1 :lead", 1, {"control.json_x:1", ":lead"}, 1},
      {".a [b] $c", 1, {"a", "b", "c"}, 1},  // other characters are skipped before a token
      {"Hello %s, world (it's 1/2; a-b\\c)<",
       kyr::kSxpStateText,
       {"Hello %s, world (it's 1/2; a-b\\c)", "<"},
       1},
      {"\"a <b>\n= c\" \"\"", 1, {"a <b>\n= c", ""}, 2},  // quotes keep everything
      {"a \"open", 1, {"a"}, 1},                          // unterminated quote: end, no error
      {std::string("a\0b", 3), 1, {"a"}, 1},              // NUL ends the input
      {"a\nb\r\n\nc", 1, {"a", "b", "c"}, 4},
      {longest, 1, {longest}, 1},
      {longest + "w", 1, {}, 1, true},
      {"\"" + longest + "q\"", 1, {}, 1, true},
  };
  for (const LexRow& row : rows) {
    SCOPED_TRACE(row.text);
    Lexed lexed = lexAll(row.text, row.state);
    EXPECT_EQ(row.tokens, lexed.tokens);
    EXPECT_EQ(row.lastLine, lexed.lastLine);
    EXPECT_EQ(row.tooLong ? kyr::kLexErrorTokenTooLong : 0, lexed.error);
  }
}

// The parser's callbacks, recorded as "+name a=v" and "-name [text]"; the one equal to `refuse`
// returns false.
struct Recorder {
  Strings events;
  std::string refuse;
};

bool recordStart(const char* name, kyr::KyrList* attributes, void* arg) {
  auto* r = static_cast<Recorder*>(arg);
  std::string event = "+" + kyrtest::orEmpty(name);
  for (kyr::KyrListEle* e = kyr::kyrListGetHead(attributes); e != nullptr;
       e = kyr::kyrListGetNext(e)) {
    auto* pair = static_cast<kyr::KyrNVPair*>(kyr::kyrListEleGetObject(e));
    event += std::string(" ") + kyr::kyrNvpairGetName(pair) + "=" + kyr::kyrNvpairGetValue(pair);
  }
  r->events.push_back(event);
  return event != r->refuse;
}

bool recordEnd(const char* name, const char* text, void* arg) {
  auto* r = static_cast<Recorder*>(arg);
  r->events.push_back("-" + kyrtest::orEmpty(name) +
                      (text != nullptr ? std::string(" [") + text + "]" : ""));
  return r->events.back() != r->refuse;
}

// The events of an accepted input; of a refused one, only what the parser printed.
Strings parse(const std::string& text, const std::string& refuse = "") {
  Recorder recorder{{}, refuse};
  kyr::KyrSXParser* parser = kyr::kyrSxpCreate(kyrtest::streamOf(text), true);
  kyr::kyrSxpSetFilename(parser, "test.xml");
  kyr::kyrSxpSetStartFunc(parser, recordStart);
  kyr::kyrSxpSetEndFunc(parser, recordEnd);
  kyr::kyrSxpSetCallbackArg(parser, &recorder);
  testing::internal::CaptureStdout();
  int ok = kyr::kyrSxpParse(parser);
  std::string output = testing::internal::GetCapturedStdout();
  kyr::kyrSxpDestroy(parser);
  EXPECT_EQ(ok == 1, output.empty()) << "ok=" << ok;  // every failure says why, nothing else does
  return ok == 1 ? recorder.events : Strings{output};
}

Strings failure(const std::string& message) {
  return {"kyrSxpParse: " + message + " of test.xml\n"};
}

TEST(KyrSxp, InputsGiveTheseEventsOrThisFailure) {
  const std::string longest(kyr::kSxpTokenBufferSize - 1, 'w');
  const std::pair<std::string, Strings> rows[] = {
      {"<group name=a><record name=r level=INFO/></group>",
       {"+group name=a", "+record name=r level=INFO", "-record", "-group"}},
      {"<e z=1 a=\"two words\" m=x.y/>", {"+e z=1 a=two words m=x.y", "-e"}},
      {"<text>a [b]</text>", {"+text", "-text [a b]"}},
      // Text is gathered across start tags until the next end element takes it.
      {"<entry>lead <text>x</text></entry>", {"+entry", "+text", "-text [lead x]", "-entry"}},
      {"<?xml version=\"1.0\" ?? x ?>\n<!-- a - b -->\n<!----><a/>", {"+a", "-a"}},
      {"<a><b>t</></>", {"+a", "+b", "-b [t]", "-a"}},
      {"<Group></gROUP>", {"+Group", "-Group"}},
      // After any end tag the machine is between elements, so the end of input is fine there.
      {"<a><b/>", {"+a", "+b", "-b"}},
      {"  \n", {}},
      {"<t>" + longest + "</t>", {"+t", "-t [" + longest + "]"}},
      // Deliberate: a lexer failure between elements reads as the end of the file.
      {"<a/>" + longest + "w<b/>", {"+a", "-a"}},
      {"<t>" + longest + "w</t>", failure("Lexer returned NULL. Line 1")},
      {"<a>\n<b>\n", failure("Lexer returned NULL. Line 3")},
      {"<entry>\n<text>x</text> y</entry>", failure("Expected '<' token; got 'y'. line 2")},
      {"<!-- a -- b -->", failure("Expected comment end; got 'b'. line 1")},
      {"<!- x>", failure("Expected second dash of comment start; got 'x'. line 1")},
      {"<! x>", failure("Expected first dash of comment start; got 'x'. line 1")},
      {"<a>\n</b>", failure("Expected '>' token or a; got 'b'. line 2")},
      {"<a></a x>", failure("Expected '>' token; got 'x'. line 1")},
      {"<a n b/>", failure("Expected '=' token; got 'b'. line 1")},
  };
  for (const auto& [text, outcome] : rows) EXPECT_EQ(outcome, parse(text)) << text;
}

TEST(KyrSxp, CallbackThatReturnsFalseStopsTheParse) {
  EXPECT_EQ(failure("Start element returned FALSE for b. line 1"), parse("<a><b/></a>", "+b"));
  EXPECT_EQ(failure("End element returned FALSE for a. line 1"), parse("<a><b/></a>", "-a"));
}

TEST(KyrSxp, ParserWithoutAStreamIsNotMadeAndParsingReturnsEveryCountedBlock) {
  EXPECT_EQ(nullptr, kyr::kyrSxpCreate(nullptr, true));
  int before = kyr::kyrGetMemCount();
  parse("<a x=1><b y=2>text</b>tail<c/></a>");
  parse("<a x=1 y");  // fails half-way through an attribute
  EXPECT_EQ(before, kyr::kyrGetMemCount());
}

}  // namespace
