// Tokenizer of the rule language: character classes, the one pass that builds the token list,
// the cursor over it, and syntax-error recording with its caret line.
#include "lang/kyrTokenizer.h"

#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// Runs of characters from one group form one sub-expression token; a change of group ends it.
// So "a<>b" is three tokens and "cookie$JSESSIONID" one.
constexpr const char* contiguousSubexprGroups[] = {
    "=<>", "/[]$.-:_ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "+", nullptr};

constexpr const char* kTokenTypeNames[] = {
    "Unknown", "EOF",       "Integer",       "Long",       "LeftParen",   "RightParen",
    "Comma",   "Literal",   "Subexpression", "Identifier", "FieldSep",    "FwdSlash",
    "Equals",  "LeftAngle", "RightAngle",    "LeftSquare", "RightSquare", "Star",
    "Dash",    "Period",    "Colon",         "Dollar",     "Plus"};

// A carriage return is deliberately not white space: outside a literal it is a syntax error.
bool isWhiteSpace(char c) { return c == '\t' || c == '\n' || c == ' '; }
bool isQuote(char c) { return c == '"' || c == '\''; }
bool isEscape(char c) { return c == '\\'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int subexprGroupOf(char c) {
  if (c == '\0') return -1;
  for (int g = 0; contiguousSubexprGroups[g] != nullptr; ++g) {
    if (strchr(contiguousSubexprGroups[g], c) != nullptr) return g;
  }
  return -1;
}

bool isValidSubexpressionChar(char c) { return subexprGroupOf(c) >= 0; }

bool isContiguousToSubexpression(char prev, char c) {
  int group = subexprGroupOf(prev);
  return group >= 0 && group == subexprGroupOf(c);
}

void freeTokens(Tokenizer* t) {
  Token* tok = t->firstTokenToConsume;
  while (tok != nullptr) {
    Token* next = tok->next;
    kyrFree(tok->string);
    kyrFree(tok);
    tok = next;
  }
  t->firstTokenToConsume = nullptr;
  t->nextTokenToConsume = nullptr;
}

// Appends to the list under construction; `tail` is the last token so far (null when empty).
void appendToken(Tokenizer* t, Token** tail, TOKEN_TYPE type, const char* text, size_t len,
                 size_t position) {
  auto* tok = static_cast<Token*>(kyrMalloc(sizeof(Token)));
  tok->type = type;
  tok->string = text != nullptr ? kyrStrndup(text, len) : nullptr;
  tok->position = static_cast<int>(position);
  if (*tail == nullptr) {
    t->firstTokenToConsume = tok;
  } else {
    (*tail)->next = tok;
  }
  *tail = tok;
}

// Reads the literal whose opening quote is at `open`. Escape characters are removed from the
// working copy as they are met, so positions after them shift left. Returns the index of the
// closing quote, or 0 after recording a syntax error.
size_t readLiteral(Tokenizer* t, size_t open) {
  char* s = t->expressionString;
  const char quote = s[open];
  size_t i = open + 1;
  for (;;) {
    if (s[i] == '\0') {
      syntaxError(t, "Literal has no terminating character.", static_cast<int>(i + 1));
      return 0;
    }
    if (s[i] == quote) return i;
    if (isEscape(s[i])) {
      memmove(s + i, s + i + 1, strlen(s + i + 1) + 1);
      if (s[i] == '\0') {
        syntaxError(t, "Last character in expression may not be an escape character.",
                    static_cast<int>(i + 1));
        return 0;
      }
    }
    ++i;  // the escaped character is stepped over unexamined
  }
}

// Builds the token list; returns false after recording a syntax error.
bool tokenize(Tokenizer* t) {
  const char* s = t->expressionString;
  Token* tail = nullptr;
  size_t i = 0;
  while (isWhiteSpace(s[i])) ++i;
  while (s[i] != '\0') {
    const char c = s[i];
    if (isQuote(c)) {
      size_t close = readLiteral(t, i);
      if (close == 0) return false;
      appendToken(t, &tail, TOKEN_LITERAL, s + i + 1, close - i - 1, close + 1);
      i = close + 1;
    } else if (c == '(' || c == ')' || c == ',') {
      TOKEN_TYPE type = c == '(' ? TOKEN_LT_PAREN : c == ')' ? TOKEN_RT_PAREN : TOKEN_COMMA;
      appendToken(t, &tail, type, s + i, 1, i + 1);
      ++i;
    } else if (isDigit(c)) {
      // Integer or long by the suffix alone; the digits are converted by the parser.
      size_t end = i;
      while (isDigit(s[end])) ++end;
      if (s[end] == 'L' || s[end] == 'l') {
        appendToken(t, &tail, TOKEN_LONG, s + i, end + 1 - i, end + 1);
        i = end + 1;
      } else {
        appendToken(t, &tail, TOKEN_INTEGER, s + i, end - i, end);
        i = end;
      }
    } else {
      if (!isValidSubexpressionChar(c)) {
        syntaxError(t, "Syntax error - unrecognized string.", static_cast<int>(i + 1));
        return false;
      }
      size_t end = i + 1;
      while (isContiguousToSubexpression(c, s[end])) ++end;
      appendToken(t, &tail, TOKEN_SUBEXPRESSION, s + i, end - i, end);
      i = end;
    }
    while (isWhiteSpace(s[i])) ++i;
  }
  appendToken(t, &tail, TOKEN_EOF, nullptr, 0, i + 1);
  return true;
}

void printTokenList(FILE* out, Tokenizer* t) {
  char buffer[512];
  fprintf(out, "{Tokens:");
  while (Token* tok = tokenizerConsumeNextToken(t)) {
    fprintf(out, "%s", tokenToString(tok, buffer, sizeof buffer));
  }
  fprintf(out, "}");
}

}  // namespace

Tokenizer* tokenizerCreate(const char* expr) {
  if (expr == nullptr) return nullptr;
  auto* t = static_cast<Tokenizer*>(kyrMalloc(sizeof(Tokenizer)));
  t->expressionString = kyrStrdup(expr);
  t->errorPosition = -1;
  if (tokenize(t)) tokenizerRewind(t);
  return t;
}

void tokenizerFree(Tokenizer* t) {
  if (t == nullptr) return;
  freeTokens(t);
  kyrFree(t->expressionString);
  kyrFree(t->errorString);
  kyrFree(t->posString);
  kyrFree(t);
}

bool tokenizerIsError(const Tokenizer* t) { return t == nullptr || t->errorString != nullptr; }

const char* tokenizerGetErrorMessage(const Tokenizer* t) {
  return t != nullptr ? t->errorString : nullptr;
}

int tokenizerGetErrorPosition(const Tokenizer* t) { return t != nullptr ? t->errorPosition : -1; }

const char* tokenizerGetErrorPositionIndicatorString(const Tokenizer* t) {
  return t != nullptr ? t->posString : nullptr;
}

const char* tokenizerGetExpressionString(const Tokenizer* t) {
  return t != nullptr ? t->expressionString : nullptr;
}

bool tokenizerHasMoreTokens(const Tokenizer* t) {
  return t != nullptr && t->nextTokenToConsume != nullptr;
}

Token* tokenizerPeekNextToken(const Tokenizer* t) {
  return t != nullptr ? t->nextTokenToConsume : nullptr;
}

Token* tokenizerConsumeNextToken(Tokenizer* t) {
  if (t == nullptr || t->nextTokenToConsume == nullptr) return nullptr;
  Token* tok = t->nextTokenToConsume;
  t->nextTokenToConsume = tok->next;
  return tok;
}

void tokenizerRewind(Tokenizer* t) {
  if (t != nullptr) t->nextTokenToConsume = t->firstTokenToConsume;
}

TOKEN_TYPE tokenGetType(const Token* tok) { return tok != nullptr ? tok->type : TOKEN_UNKNOWN; }

const char* tokenGetString(const Token* tok) { return tok != nullptr ? tok->string : nullptr; }

int tokenGetPosition(const Token* tok) { return tok != nullptr ? tok->position : -1; }

const char* tokenTypeToString(int type) {
  if (type < TOKEN_UNKNOWN || type > TOKEN_PLUS) return kTokenTypeNames[TOKEN_UNKNOWN];
  return kTokenTypeNames[type];
}

const char* tokenToString(const Token* tok, char* buffer, size_t size) {
  if (tok == nullptr) return "{token: NULL}";
  if (buffer == nullptr) return nullptr;
  if (tok->string != nullptr) {
    snprintf(buffer, size, "{token: type=%s value={%s}}", tokenTypeToString(tok->type),
             tok->string);
  } else {
    snprintf(buffer, size, "{token: type=%s}", tokenTypeToString(tok->type));
  }
  return buffer;
}

void syntaxError(Tokenizer* t, const char* message, int pos) {
  if (t == nullptr) return;
  freeTokens(t);
  kyrFree(t->errorString);
  t->errorString = kyrStrdup(message != nullptr ? message : "");
  t->errorPosition = pos;
  kyrFree(t->posString);
  size_t width = pos > 0 ? static_cast<size_t>(pos) : 0;
  t->posString = static_cast<char*>(kyrMalloc(width + 1));
  if (width > 0) {
    memset(t->posString, ' ', width - 1);
    t->posString[width - 1] = '^';
  }
}

void tokenizerPrintErrorPosition(FILE* /*out*/, const Tokenizer* /*t*/) {}

void tokenizerPrint(FILE* out, Tokenizer* t) {
  if (t == nullptr) {
    fprintf(out, "{Tokenizer:NULL}\n");
    return;
  }
  fprintf(out, "{Tokenizer:expression=%s,errStr=%s,tokens=", t->expressionString,
          t->errorString != nullptr ? t->errorString : "NULL");
  printTokenList(out, t);
  fprintf(out, "}\n");
}

}  // namespace kyr
