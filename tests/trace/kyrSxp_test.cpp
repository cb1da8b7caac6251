// The catalogue lexer and event parser on their own: tokens, the 15-state machine, its exact
// failure messages, and the deliberate quirks catalogue authors rely on.
#include "trace/kyrSxp.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "runtime/kyrLibUtil.h"
#include "trace/kyrSxLex.h"
#include "trace/traceTestUtil.h"

namespace {

using kyr::KyrList;

// ---- Lexer ----

class Lexer {
 public:
  explicit Lexer(const std::string& text)
      : file_(kyrtest::streamOf(text)), lex_(kyr::kyrLexCreate(file_)) {}
  ~Lexer() {
    kyr::kyrLexDestroy(lex_);
    fclose(file_);
  }
  Lexer(const Lexer&) = delete;
  Lexer& operator=(const Lexer&) = delete;

  // Every token up to the end of input, each read in `state`.
  std::vector<std::string> tokens(int state = 1) {
    std::vector<std::string> out;
    while (const char* t = kyr::kyrLexFile(lex_, buffer_, sizeof buffer_, state)) out.push_back(t);
    return out;
  }
  kyr::KyrSXLex* lex() { return lex_; }

 private:
  FILE* file_;
  kyr::KyrSXLex* lex_;
  char buffer_[kyr::kSxpTokenBufferSize];
};

using Tokens = std::vector<std::string>;

TEST(KyrSxLex, MarkupCharactersAreTokensByThemselves) {
  Lexer lexer("<a b=c/><!--?>");
  EXPECT_EQ((Tokens{"<", "a", "b", "=", "c", "/", ">", "<", "!", "-", "-", "?", ">"}),
            lexer.tokens());
}

TEST(KyrSxLex, WordsTakePointsColonsAndUnderscores) {
  Lexer lexer("control.json_x:1 :lead");
  EXPECT_EQ((Tokens{"control.json_x:1", ":lead"}), lexer.tokens());
}

TEST(KyrSxLex, OtherCharactersAreSkippedAtTheStartOfAToken) {
  Lexer lexer(".a [b] $c");
  EXPECT_EQ((Tokens{"a", "b", "c"}), lexer.tokens());
}

TEST(KyrSxLex, TextStateWordsRunOnOverBlanksAndPunctuation) {
  Lexer lexer("Hello %s, world (it's 1/2; a-b\\c)<");
  EXPECT_EQ((Tokens{"Hello %s, world (it's 1/2; a-b\\c)", "<"}), lexer.tokens(kyr::kSxpStateText));
}

TEST(KyrSxLex, QuotedTokenKeepsEverythingAndCountsItsNewlines) {
  Lexer lexer("\"a <b>\n= c\" \"\"");
  EXPECT_EQ((Tokens{"a <b>\n= c", ""}), lexer.tokens());
  EXPECT_EQ(2, kyr::kyrLexGetLineNumber(lexer.lex()));
}

TEST(KyrSxLex, EndOfInputInsideQuotesGivesNull) {
  Lexer lexer("a \"open");
  EXPECT_EQ((Tokens{"a"}), lexer.tokens());
  EXPECT_EQ(0, kyr::kyrLexGetError(lexer.lex()));
}

TEST(KyrSxLex, NulByteEndsTheInput) {
  Lexer lexer(std::string("a\0b", 3));
  EXPECT_EQ((Tokens{"a"}), lexer.tokens());
}

TEST(KyrSxLex, NewlinesRaiseTheLineNumberOnce) {
  Lexer lexer("a\nb\r\n\nc");
  EXPECT_EQ((Tokens{"a", "b", "c"}), lexer.tokens());
  EXPECT_EQ(4, kyr::kyrLexGetLineNumber(lexer.lex()));
}

TEST(KyrSxLex, LongestTokenIsOneShorterThanTheBuffer) {
  Lexer fits(std::string(kyr::kSxpTokenBufferSize - 1, 'w'));
  Tokens tokens = fits.tokens();
  ASSERT_EQ(1u, tokens.size());
  EXPECT_EQ(size_t{kyr::kSxpTokenBufferSize - 1}, tokens[0].size());
  EXPECT_EQ(0, kyr::kyrLexGetError(fits.lex()));

  Lexer tooLong(std::string(kyr::kSxpTokenBufferSize, 'w'));
  EXPECT_TRUE(tooLong.tokens().empty());
  EXPECT_EQ(kyr::kLexErrorTokenTooLong, kyr::kyrLexGetError(tooLong.lex()));
  EXPECT_STREQ("token exceeded maximum token length", kyr::kyrLexGetErrorString(tooLong.lex()));

  Lexer quoted("\"" + std::string(kyr::kSxpTokenBufferSize, 'q') + "\"");
  EXPECT_TRUE(quoted.tokens().empty());
  EXPECT_EQ(kyr::kLexErrorTokenTooLong, kyr::kyrLexGetError(quoted.lex()));
}

// ---- Parser ----

// Runs the parser over `text` and records its callbacks as "+name a=v" and "-name [text]".
struct ParseResult {
  int ok;
  std::vector<std::string> events;
  std::string output;  // what the parser printed on standard output
  std::string lexerError;
};

struct Recorder {
  std::vector<std::string> events;
  std::string refuseStart;
  std::string refuseEnd;
};

bool recordStart(const char* name, KyrList* attributes, void* arg) {
  auto* r = static_cast<Recorder*>(arg);
  std::string event = std::string("+") + (name != nullptr ? name : "(null)");
  for (kyr::KyrListEle* e = kyr::kyrListGetHead(attributes); e != nullptr;
       e = kyr::kyrListGetNext(e)) {
    auto* pair = static_cast<kyr::KyrNVPair*>(kyr::kyrListEleGetObject(e));
    event += std::string(" ") + kyr::kyrNvpairGetName(pair) + "=" + kyr::kyrNvpairGetValue(pair);
  }
  r->events.push_back(event);
  return name == nullptr || r->refuseStart != name;
}

bool recordEnd(const char* name, const char* text, void* arg) {
  auto* r = static_cast<Recorder*>(arg);
  r->events.push_back(std::string("-") + (name != nullptr ? name : "(null)") +
                      (text != nullptr ? std::string(" [") + text + "]" : ""));
  return name == nullptr || r->refuseEnd != name;
}

ParseResult parse(const std::string& text, const std::string& refuseStart = "",
                  const std::string& refuseEnd = "") {
  Recorder recorder{{}, refuseStart, refuseEnd};
  kyr::KyrSXParser* parser = kyr::kyrSxpCreate(kyrtest::streamOf(text), true);
  kyr::kyrSxpSetFilename(parser, "test.xml");
  kyr::kyrSxpSetStartFunc(parser, recordStart);
  kyr::kyrSxpSetEndFunc(parser, recordEnd);
  kyr::kyrSxpSetCallbackArg(parser, &recorder);
  testing::internal::CaptureStdout();
  int ok = kyr::kyrSxpParse(parser);
  std::string output = testing::internal::GetCapturedStdout();
  const char* lexerError = kyr::kyrLexGetErrorString(kyr::kyrSxpGetLexer(parser));
  ParseResult result{ok, recorder.events, output, lexerError != nullptr ? lexerError : ""};
  kyr::kyrSxpDestroy(parser);
  return result;
}

using Events = std::vector<std::string>;

TEST(KyrSxp, UnquotedAttributeValuesAndSelfClosingElements) {
  ParseResult r = parse("<group name=a><record name=r level=INFO/></group>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+group name=a", "+record name=r level=INFO", "-record", "-group"}), r.events);
  EXPECT_EQ("", r.output);
}

TEST(KyrSxp, ElementTextWithBlanksAndPunctuationIsOnePiece) {
  ParseResult r = parse("<text>Hello %s, world</text>");
  EXPECT_EQ((Events{"+text", "-text [Hello %s, world]"}), r.events);
}

TEST(KyrSxp, SkippedCharactersDisappearFromElementText) {
  ParseResult r = parse("<text>a [b]</text>");
  EXPECT_EQ((Events{"+text", "-text [a b]"}), r.events);
}

TEST(KyrSxp, LeadingTextIsHandedToTheFirstChildsEndElement) {
  // Deliberate: text is gathered across start tags until the next end element takes it.
  ParseResult r = parse("<entry>lead <text>x</text></entry>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+entry", "+text", "-text [lead x]", "-entry"}), r.events);
}

TEST(KyrSxp, TextAfterAChildElementIsASyntaxError) {
  ParseResult r = parse("<entry>\n<text>x</text> y</entry>");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: Expected '<' token; got 'y'. line 2 of test.xml\n", r.output);
}

TEST(KyrSxp, CommentsAndProcessingInstructionsAreSkipped) {
  ParseResult r = parse("<?xml version=\"1.0\" ?? x ?>\n<!-- a - b -->\n<!----><a/>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+a", "-a"}), r.events);
}

TEST(KyrSxp, TwoDashesInsideACommentMustEndIt) {
  ParseResult r = parse("<!-- a -- b -->");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: Expected comment end; got 'b'. line 1 of test.xml\n", r.output);
}

TEST(KyrSxp, CommentStartNeedsBothDashes) {
  EXPECT_EQ("kyrSxpParse: Expected second dash of comment start; got 'x'. line 1 of test.xml\n",
            parse("<!- x>").output);
  EXPECT_EQ("kyrSxpParse: Expected first dash of comment start; got 'x'. line 1 of test.xml\n",
            parse("<! x>").output);
}

TEST(KyrSxp, SlashGreaterThanClosesTheCurrentElement) {
  ParseResult r = parse("<a><b>t</></>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+a", "+b", "-b [t]", "-a"}), r.events);
}

TEST(KyrSxp, EndTagMatchesTheOpenElementIgnoringCase) {
  ParseResult r = parse("<Group></gROUP>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+Group", "-Group"}), r.events);
}

TEST(KyrSxp, EndTagOfAnotherElementIsAnError) {
  ParseResult r = parse("<a>\n</b>");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: Expected '>' token or a; got 'b'. line 2 of test.xml\n", r.output);
}

TEST(KyrSxp, EndTagNameMustBeFollowedByGreaterThan) {
  EXPECT_EQ("kyrSxpParse: Expected '>' token; got 'x'. line 1 of test.xml\n",
            parse("<a></a x>").output);
}

TEST(KyrSxp, AttributeNameMustBeFollowedByEquals) {
  EXPECT_EQ("kyrSxpParse: Expected '=' token; got 'b'. line 1 of test.xml\n",
            parse("<a n b/>").output);
}

TEST(KyrSxp, EndOfInputInsideAnOpenElementFails) {
  ParseResult r = parse("<a>\n<b>\n");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: Lexer returned NULL. Line 3 of test.xml\n", r.output);
  EXPECT_EQ("kyrSxpParse: Lexer returned NULL. Line 1 of test.xml\n", parse("<a b=").output);
}

TEST(KyrSxp, EndOfInputRightAfterAnEndTagPassesEvenWithElementsOpen) {
  // Only the state decides: after any end tag the machine is between elements.
  ParseResult r = parse("<a><b/>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+a", "+b", "-b"}), r.events);
}

TEST(KyrSxp, EmptyInputParses) { EXPECT_EQ(1, parse("  \n").ok); }

TEST(KyrSxp, OverlongTokenInElementTextFails) {
  ParseResult r = parse("<t>" + std::string(kyr::kSxpTokenBufferSize, 'w') + "</t>");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("token exceeded maximum token length", r.lexerError);
  EXPECT_EQ("kyrSxpParse: Lexer returned NULL. Line 1 of test.xml\n", r.output);
}

TEST(KyrSxp, LongestTokenInElementTextIsAccepted) {
  std::string word(kyr::kSxpTokenBufferSize - 1, 'w');
  ParseResult r = parse("<t>" + word + "</t>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+t", "-t [" + word + "]"}), r.events);
}

TEST(KyrSxp, OverlongTokenBetweenElementsEndsTheInputAndTheParseSucceeds) {
  // Deliberate: between elements a lexer failure reads as the end of the file.
  ParseResult r = parse("<a/>" + std::string(kyr::kSxpTokenBufferSize, 'w') + "<b/>");
  EXPECT_EQ(1, r.ok);
  EXPECT_EQ((Events{"+a", "-a"}), r.events);
  EXPECT_EQ("token exceeded maximum token length", r.lexerError);
}

TEST(KyrSxp, RefusedStartElementFailsWithItsName) {
  ParseResult r = parse("<a><b/></a>", "b");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: Start element returned FALSE for b. line 1 of test.xml\n", r.output);
}

TEST(KyrSxp, RefusedEndElementFailsWithItsName) {
  ParseResult r = parse("<a><b/></a>", "", "a");
  EXPECT_EQ(0, r.ok);
  EXPECT_EQ("kyrSxpParse: End element returned FALSE for a. line 1 of test.xml\n", r.output);
}

TEST(KyrSxp, AttributesArriveInTheOrderWritten) {
  ParseResult r = parse("<e z=1 a=\"two words\" m=x.y/>");
  EXPECT_EQ((Events{"+e z=1 a=two words m=x.y", "-e"}), r.events);
}

TEST(KyrSxp, ParserWithoutAStreamIsNotMade) {
  EXPECT_EQ(nullptr, kyr::kyrSxpCreate(nullptr, true));
}

TEST(KyrSxp, ParsingReturnsEveryCountedBlock) {
  int before = kyr::kyrGetMemCount();
  parse("<a x=1><b y=2>text</b>tail<c/></a>");
  parse("<a x=1 y");  // fails half-way through an attribute
  EXPECT_EQ(before, kyr::kyrGetMemCount());
}

}  // namespace
