// The catalogue lexer: single-character markup tokens, quoted tokens and words, read one
// character at a time from the stream. Words in element text run on over blanks and punctuation
// so that a message format arrives as few pieces as possible.
#include "trace/kyrSxLex.h"

#include <cctype>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {

namespace {

// The stream ends at EOF and also at a byte of value 0 or 255 (deliberately: the catalogue is
// text, and these bytes only appear in a damaged file).
bool endsInput(int c) { return c == EOF || c == 0 || c == 255; }

bool isMarkup(int c) { return c != 0 && strchr("<=/!->?", c) != nullptr; }

bool startsWord(int c) { return isalnum(c) != 0 || c == ':'; }

bool continuesWord(int c, int state) {
  if (isalnum(c) != 0 || c == '.' || c == ':' || c == '_') return true;
  return state == kSxpStateText && c != 0 && strchr(" /%-,\\';()", c) != nullptr;
}

char* tooLong(KyrSXLex* lex) {
  kyrLexSetError(lex, kLexErrorTokenTooLong);
  kyrLexSetErrorString(lex, "token exceeded maximum token length");
  return nullptr;
}

// Everything up to the next double quote; there is no escape character.
char* readQuoted(KyrSXLex* lex, char* token, int maxTokenLength) {
  int length = 0;
  for (;;) {
    int c = getc(lex->inputFile);
    if (endsInput(c)) return nullptr;
    if (c == '"') break;
    if (c == '\n') ++lex->lineNumber;
    if (length >= maxTokenLength - 1) return tooLong(lex);
    token[length++] = static_cast<char>(c);
  }
  token[length] = '\0';
  return token;
}

char* readWord(KyrSXLex* lex, char* token, int maxTokenLength, int first, int state) {
  int length = 0;
  for (int c = first;; c = getc(lex->inputFile)) {
    if (length > 0 && !continuesWord(c, state)) {
      ungetc(c, lex->inputFile);  // the next token starts here; newlines are counted then
      break;
    }
    if (length >= maxTokenLength - 1) return tooLong(lex);
    token[length++] = static_cast<char>(c);
  }
  token[length] = '\0';
  return token;
}

}  // namespace

KyrSXLex* kyrLexCreate(FILE* inputFile) {
  auto* lex = static_cast<KyrSXLex*>(kyrMalloc(sizeof(KyrSXLex)));
  if (lex == nullptr) return nullptr;
  lex->inputFile = inputFile;
  lex->lineNumber = 1;
  return lex;
}

void kyrLexDestroy(KyrSXLex* lex) {
  if (lex == nullptr) return;
  kyrFree(lex->errorString);
  kyrFree(lex);
}

int kyrLexGetError(const KyrSXLex* lex) { return lex->errorNumber; }

void kyrLexSetError(KyrSXLex* lex, int errorCode) { lex->errorNumber = errorCode; }

const char* kyrLexGetErrorString(const KyrSXLex* lex) { return lex->errorString; }

void kyrLexSetErrorString(KyrSXLex* lex, const char* text) {
  kyrFree(lex->errorString);
  lex->errorString = kyrStrdup(text);
}

int kyrLexGetLineNumber(const KyrSXLex* lex) { return lex->lineNumber; }

char* kyrLexFile(KyrSXLex* lex, char* token, int maxTokenLength, int state) {
  for (;;) {
    int c = getc(lex->inputFile);
    if (endsInput(c)) return nullptr;
    if (c == '\n') {
      ++lex->lineNumber;
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\r') continue;
    if (isMarkup(c)) {
      token[0] = static_cast<char>(c);
      token[1] = '\0';
      return token;
    }
    if (c == '"') return readQuoted(lex, token, maxTokenLength);
    if (startsWord(c)) return readWord(lex, token, maxTokenLength, c, state);
    // Anything else ("[", "." ...) cannot start a token and is skipped silently.
  }
}

}  // namespace kyr
