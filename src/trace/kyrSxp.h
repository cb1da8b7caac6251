// The catalogue's event parser: a 15-state machine over the lexer's tokens that calls a start
// callback (name and attributes) and an end callback (name and gathered text) per element.
// Deliberately minimal and strict: the first syntax error fails the whole parse.
#pragma once

#include <cstdio>

#include "runtime/kyrList.h"
#include "trace/kyrSxLex.h"

namespace kyr {

// One attribute; an element's attributes are a KyrList of these in the order written.
struct KyrNVPair {
  char* name;   // counted copy
  char* value;  // counted copy
};

KyrNVPair* kyrNvpairCreate();
const char* kyrNvpairGetName(const KyrNVPair* pair);
const char* kyrNvpairGetValue(const KyrNVPair* pair);
void kyrNvpairSetName(KyrNVPair* pair, const char* name);
void kyrNvpairSetValue(KyrNVPair* pair, const char* value);
void kyrNvpairDestroy(void* pair);  // a KyrList element destructor

// attributes may be null (an element without attributes). Returning false fails the parse.
using KyrSxpStartFcn = bool (*)(const char* name, KyrList* attributes, void* cbArg);
// text is null when no text was gathered since the previous end element.
using KyrSxpEndFcn = bool (*)(const char* name, const char* text, void* cbArg);

struct KyrSXParser {
  char* parseFilename;  // counted copy; the name used in messages
  FILE* parseFile;
  bool closeTraceXMLFile;  // close parseFile when the parser is destroyed
  KyrSXLex* lex;
  KyrSxpStartFcn startElement;
  KyrSxpEndFcn endElement;
  void* cbArg;
};

inline constexpr int kSxpTokenBufferSize = 4096;

// Null when file is null or the lexer cannot be made (the stream is then closed if asked).
KyrSXParser* kyrSxpCreate(FILE* file, bool closeTraceXMLFile);
void kyrSxpDestroy(KyrSXParser* parser);
void kyrSxpSetStartFunc(KyrSXParser* parser, KyrSxpStartFcn fcn);
void kyrSxpSetEndFunc(KyrSXParser* parser, KyrSxpEndFcn fcn);
void kyrSxpSetCallbackArg(KyrSXParser* parser, void* cbArg);
void kyrSxpSetFilename(KyrSXParser* parser, const char* filename);
const char* kyrSxpGetFilename(const KyrSXParser* parser);
int kyrSxpGetLineNumber(const KyrSXParser* parser);
KyrSXLex* kyrSxpGetLexer(const KyrSXParser* parser);

// 1 on success; 0 after printing the reason on standard output.
int kyrSxpParse(KyrSXParser* parser);

}  // namespace kyr
