// The catalogue lexer: cuts the element-file stream into one token per call. Text content
// (parser state 15) is cut differently from markup, so the parser passes its state in.
#pragma once

#include <cstdio>

namespace kyr {

// The parser state in which words run on over blanks and punctuation (element text).
inline constexpr int kSxpStateText = 15;
inline constexpr int kLexErrorTokenTooLong = 1;

struct KyrSXLex {
  FILE* inputFile;    // borrowed; the parser owns the stream
  int lineNumber;     // starts at 1, raised at every newline read
  int errorNumber;    // 0 until an error
  char* errorString;  // counted copy or null
};

KyrSXLex* kyrLexCreate(FILE* inputFile);
void kyrLexDestroy(KyrSXLex* lex);
int kyrLexGetError(const KyrSXLex* lex);
void kyrLexSetError(KyrSXLex* lex, int errorCode);
const char* kyrLexGetErrorString(const KyrSXLex* lex);
void kyrLexSetErrorString(KyrSXLex* lex, const char* text);
int kyrLexGetLineNumber(const KyrSXLex* lex);

// Reads the next token into `token`, a buffer of maxTokenLength bytes (so the longest token is
// maxTokenLength - 1 characters), and returns it; null at the end of input or on an error.
char* kyrLexFile(KyrSXLex* lex, char* token, int maxTokenLength, int state);

}  // namespace kyr
