// The catalogue's event parser and its attribute pairs. One parse is a ParseRun: a 15-state
// machine fed by the lexer, holding the open element names, the attributes being built and the
// element text being gathered, all released when the run ends however it ends.
#include "trace/kyrSxp.h"

#include <cstdio>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrStringBuffer.h"
#include "runtime/kyrUtil.h"

namespace kyr {

namespace {

enum State {
  kBetweenElements = 1,
  kAfterOpen = 2,   // "<"
  kAfterSlash = 3,  // "</" or "<name .../"
  kInStartTag = 4,
  kAfterAttrName = 5,
  kAttrValue = 6,
  kAfterEndName = 7,   // "</name"
  kAfterBang = 8,      // "<!"
  kAfterBangDash = 9,  // "<!-"
  kInComment = 10,
  kCommentDash = 11,
  kCommentDashDash = 12,
  kInQuestion = 13,  // "<?"
  kQuestionSeen = 14,
  kText = kSxpStateText,
};

bool is(const char* token, const char* expected) {
  return kyrStrCmpIgnoreCase(token, expected) == 0;
}

const char* shown(const char* text) { return text != nullptr ? text : "(null)"; }

void freeName(void* name) { kyrFree(name); }

class ParseRun {
 public:
  explicit ParseRun(KyrSXParser* parser) : parser_(parser), names_(kyrListCreate(freeName)) {}

  ~ParseRun() {
    kyrListDestroy(names_);
    kyrListDestroy(attributes_);
    kyrNvpairDestroy(pair_);
    sbDelete(text_);
  }

  ParseRun(const ParseRun&) = delete;
  ParseRun& operator=(const ParseRun&) = delete;

  bool run() {
    for (;;) {
      char* token = kyrLexFile(parser_->lex, token_, sizeof token_, state_);
      if (token == nullptr) {
        // Only between elements is the end of input (or an overlong token, deliberately
        // treated the same there) a proper end.
        if (state_ == kBetweenElements) return true;
        printf("kyrSxpParse: Lexer returned NULL. Line %d of %s\n", line(), file());
        return false;
      }
      if (!step(token)) return false;
    }
  }

 private:
  int line() const { return kyrSxpGetLineNumber(parser_); }
  const char* file() const { return shown(parser_->parseFilename); }
  const char* current() const {
    return static_cast<const char*>(kyrListEleGetObject(kyrListGetHead(names_)));
  }

  bool step(const char* token) {
    switch (state_) {
      case kBetweenElements:
        if (!is(token, "<")) {
          printf("kyrSxpParse: Expected '<' token; got '%s'. line %d of %s\n", token, line(),
                 file());
          return false;
        }
        state_ = kAfterOpen;
        return true;
      case kAfterOpen:
        if (is(token, "!")) {
          state_ = kAfterBang;
        } else if (is(token, "?")) {
          state_ = kInQuestion;
        } else if (is(token, "/")) {
          state_ = kAfterSlash;
        } else {
          kyrListAddHead(names_, kyrStrdup(token));
          state_ = kInStartTag;
        }
        return true;
      case kAfterSlash:
        return afterSlash(token);
      case kInStartTag:
        return inStartTag(token);
      case kAfterAttrName:
        if (!is(token, "=")) {
          printf("kyrSxpParse: Expected '=' token; got '%s'. line %d of %s\n", token, line(),
                 file());
          return false;
        }
        state_ = kAttrValue;
        return true;
      case kAttrValue:
        kyrNvpairSetValue(pair_, token);
        kyrListAddTail(attributes_, pair_);
        pair_ = nullptr;
        state_ = kInStartTag;
        return true;
      case kAfterEndName:
        if (!is(token, ">")) {
          printf("kyrSxpParse: Expected '>' token; got '%s'. line %d of %s\n", token, line(),
                 file());
          return false;
        }
        state_ = kBetweenElements;
        return true;
      default:
        return inCommentOrQuestion(token);
    }
  }

  bool afterSlash(const char* token) {
    // "</>" closes whatever element is open; a name must match the open one, ignoring case.
    if (is(token, ">")) {
      state_ = kBetweenElements;
      return endElement();
    }
    if (current() != nullptr && is(token, current())) {
      state_ = kAfterEndName;
      return endElement();
    }
    printf("kyrSxpParse: Expected '>' token or %s; got '%s'. line %d of %s\n", shown(current()),
           token, line(), file());
    return false;
  }

  bool inStartTag(const char* token) {
    if (is(token, "/")) {
      state_ = kAfterSlash;  // "<name .../>" or "<name .../name>"
      return startElement();
    }
    if (is(token, ">")) {
      state_ = kText;
      return startElement();
    }
    if (attributes_ == nullptr) attributes_ = kyrListCreate(kyrNvpairDestroy);
    pair_ = kyrNvpairCreate();
    kyrNvpairSetName(pair_, token);
    state_ = kAfterAttrName;
    return true;
  }

  bool inCommentOrQuestion(const char* token) {
    switch (state_) {
      case kAfterBang:
        if (!is(token, "-")) {
          printf("kyrSxpParse: Expected first dash of comment start; got '%s'. line %d of %s\n",
                 token, line(), file());
          return false;
        }
        state_ = kAfterBangDash;
        return true;
      case kAfterBangDash:
        if (!is(token, "-")) {
          printf("kyrSxpParse: Expected second dash of comment start; got '%s'. line %d of %s\n",
                 token, line(), file());
          return false;
        }
        state_ = kInComment;
        return true;
      case kInComment:
        if (is(token, "-")) state_ = kCommentDash;
        return true;
      case kCommentDash:
        state_ = is(token, "-") ? kCommentDashDash : kInComment;
        return true;
      case kCommentDashDash:
        if (!is(token, ">")) {
          printf("kyrSxpParse: Expected comment end; got '%s'. line %d of %s\n", token, line(),
                 file());
          return false;
        }
        state_ = kBetweenElements;
        return true;
      case kInQuestion:
        if (is(token, "?")) state_ = kQuestionSeen;
        return true;
      case kQuestionSeen:
        if (is(token, ">")) {
          state_ = kBetweenElements;
        } else if (!is(token, "?")) {
          state_ = kInQuestion;
        }
        return true;
      default:  // kText
        if (is(token, "<")) {
          state_ = kAfterOpen;
        } else {
          // Pieces join without a separator; the text stays gathered across start tags until
          // the next end element takes it (deliberate: leading text joins the first child's).
          if (text_ == nullptr) text_ = sbCreate(64);
          sbAdd(text_, token);
        }
        return true;
    }
  }

  bool startElement() {
    bool ok = parser_->startElement == nullptr ||
              parser_->startElement(current(), attributes_, parser_->cbArg);
    kyrListDestroy(attributes_);
    attributes_ = nullptr;
    if (!ok) {
      printf("kyrSxpParse: Start element returned FALSE for %s. line %d of %s\n", shown(current()),
             line(), file());
    }
    return ok;
  }

  bool endElement() {
    const char* text = text_ != nullptr ? sbStr(text_) : nullptr;
    bool ok =
        parser_->endElement == nullptr || parser_->endElement(current(), text, parser_->cbArg);
    if (!ok) {
      printf("kyrSxpParse: End element returned FALSE for %s. line %d of %s\n", shown(current()),
             line(), file());
      return false;
    }
    if (KyrListEle* top = kyrListGetHead(names_)) kyrListDelete(names_, top);
    sbDelete(text_);
    text_ = nullptr;
    return true;
  }

  KyrSXParser* parser_;
  char token_[kSxpTokenBufferSize];  // the longest token is one character shorter
  int state_ = kBetweenElements;
  KyrList* names_;                   // open element names, owned copies, newest at the head
  KyrList* attributes_ = nullptr;    // of the start tag being read
  KyrNVPair* pair_ = nullptr;        // the attribute waiting for its "=" and value
  KyrStringBuffer* text_ = nullptr;  // element text gathered since the last end element
};

}  // namespace

KyrNVPair* kyrNvpairCreate() { return static_cast<KyrNVPair*>(kyrMalloc(sizeof(KyrNVPair))); }

const char* kyrNvpairGetName(const KyrNVPair* pair) { return pair->name; }

const char* kyrNvpairGetValue(const KyrNVPair* pair) { return pair->value; }

void kyrNvpairSetName(KyrNVPair* pair, const char* name) {
  kyrFree(pair->name);
  pair->name = kyrStrdup(name);
}

void kyrNvpairSetValue(KyrNVPair* pair, const char* value) {
  kyrFree(pair->value);
  pair->value = kyrStrdup(value);
}

void kyrNvpairDestroy(void* pair) {
  auto* nv = static_cast<KyrNVPair*>(pair);
  if (nv == nullptr) return;
  kyrFree(nv->name);
  kyrFree(nv->value);
  kyrFree(nv);
}

KyrSXParser* kyrSxpCreate(FILE* file, bool closeTraceXMLFile) {
  if (file == nullptr) return nullptr;
  KyrSXLex* lex = kyrLexCreate(file);
  auto* parser =
      lex != nullptr ? static_cast<KyrSXParser*>(kyrMalloc(sizeof(KyrSXParser))) : nullptr;
  if (parser == nullptr) {
    kyrLexDestroy(lex);
    if (closeTraceXMLFile) fclose(file);
    return nullptr;
  }
  parser->parseFile = file;
  parser->closeTraceXMLFile = closeTraceXMLFile;
  parser->lex = lex;
  return parser;
}

void kyrSxpDestroy(KyrSXParser* parser) {
  if (parser == nullptr) return;
  if (parser->closeTraceXMLFile) fclose(parser->parseFile);
  kyrLexDestroy(parser->lex);
  kyrFree(parser->parseFilename);
  kyrFree(parser);
}

void kyrSxpSetStartFunc(KyrSXParser* parser, KyrSxpStartFcn fcn) { parser->startElement = fcn; }

void kyrSxpSetEndFunc(KyrSXParser* parser, KyrSxpEndFcn fcn) { parser->endElement = fcn; }

void kyrSxpSetCallbackArg(KyrSXParser* parser, void* cbArg) { parser->cbArg = cbArg; }

void kyrSxpSetFilename(KyrSXParser* parser, const char* filename) {
  kyrFree(parser->parseFilename);
  parser->parseFilename = kyrStrdup(filename);
}

const char* kyrSxpGetFilename(const KyrSXParser* parser) { return parser->parseFilename; }

int kyrSxpGetLineNumber(const KyrSXParser* parser) { return kyrLexGetLineNumber(parser->lex); }

KyrSXLex* kyrSxpGetLexer(const KyrSXParser* parser) { return parser->lex; }

int kyrSxpParse(KyrSXParser* parser) {
  if (parser == nullptr) return 0;
  ParseRun run(parser);
  return run.run() ? 1 : 0;
}

}  // namespace kyr
