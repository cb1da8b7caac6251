// Tokenizer of the rule language: splits one rule expression into its whole token list when
// it is created. It knows nothing of operators or operands (the language core gives words
// their meaning); on a syntax error it keeps the message, the position and a caret line.
#pragma once

#include <cstddef>
#include <cstdio>

namespace kyr {

// Values are fixed. Identifier through Plus are never produced: their single characters are
// swallowed into sub-expression tokens, but the enumeration and its print names keep them.
enum TOKEN_TYPE {
  TOKEN_UNKNOWN = 0,
  TOKEN_EOF = 1,
  TOKEN_INTEGER = 2,
  TOKEN_LONG = 3,
  TOKEN_LT_PAREN = 4,
  TOKEN_RT_PAREN = 5,
  TOKEN_COMMA = 6,
  TOKEN_LITERAL = 7,
  TOKEN_SUBEXPRESSION = 8,
  TOKEN_IDENTIFIER = 9,
  TOKEN_FIELDSEPARATOR = 10,
  TOKEN_FWDSLASH = 11,
  TOKEN_EQUALS = 12,
  TOKEN_LESSTHAN = 13,
  TOKEN_GREATERTHAN = 14,
  TOKEN_LT_SQUAREBRACKET = 15,
  TOKEN_RT_SQUAREBRACKET = 16,
  TOKEN_STAR = 17,
  TOKEN_DASH = 18,
  TOKEN_PERIOD = 19,
  TOKEN_COLON = 20,
  TOKEN_DOLLAR = 21,
  TOKEN_PLUS = 22
};

// One token; owned by its tokenizer.
struct Token {
  TOKEN_TYPE type;
  char* string;  // owned copy of the text; null for the EOF token
  int position;  // 1-based position of the token's last character in the working copy
  Token* next;
};

struct Tokenizer {
  char* expressionString;  // working copy; escape characters are removed from it in place
  char* errorString;       // null unless a syntax error was recorded
  char* posString;         // caret line under the error position
  int errorPosition;       // -1 until a syntax error is recorded
  Token* firstTokenToConsume;
  Token* nextTokenToConsume;  // the cursor; null when every token (EOF included) is consumed
};

// Null for a null expression. A syntax error still yields a tokenizer, with no tokens.
Tokenizer* tokenizerCreate(const char* expr);
void tokenizerFree(Tokenizer* t);

bool tokenizerIsError(const Tokenizer* t);
const char* tokenizerGetErrorMessage(const Tokenizer* t);
int tokenizerGetErrorPosition(const Tokenizer* t);
const char* tokenizerGetErrorPositionIndicatorString(const Tokenizer* t);
const char* tokenizerGetExpressionString(const Tokenizer* t);

bool tokenizerHasMoreTokens(const Tokenizer* t);
Token* tokenizerPeekNextToken(const Tokenizer* t);
Token* tokenizerConsumeNextToken(Tokenizer* t);
void tokenizerRewind(Tokenizer* t);

TOKEN_TYPE tokenGetType(const Token* tok);
const char* tokenGetString(const Token* tok);
int tokenGetPosition(const Token* tok);

const char* tokenTypeToString(int type);
// "{token: type=<name> value={<text>}}" into `buffer` (truncated to `size`); a null token gives
// the constant "{token: NULL}" and leaves the buffer alone; a null buffer gives null.
const char* tokenToString(const Token* tok, char* buffer, size_t size);

// Records a syntax error: frees every token, keeps a copy of `message`, and builds the caret
// line of `pos` characters (pos - 1 blanks and a "^").
void syntaxError(Tokenizer* t, const char* message, int pos);

// Deliberately prints nothing; the language core calls it where a caret print once was.
void tokenizerPrintErrorPosition(FILE* out, const Tokenizer* t);

// Debug dump "{Tokenizer:expression=...,errStr=...,tokens={Tokens:...}}". Printing the token
// list consumes the tokens and does not rewind.
void tokenizerPrint(FILE* out, Tokenizer* t);

// Self-test over a fixed set of expressions; prints a line per case and returns the failures.
int testTokenizer();

}  // namespace kyr
