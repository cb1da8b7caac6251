// The tokenizer's built-in self-test: a fixed set of expressions with the outcome each must
// have, run on demand (for instance from a host's diagnostics), reporting on standard output.
#include <cstdio>

#include "lang/kyrTokenizer.h"
#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct TokenizerCase {
  const char* expr;
  bool expectError;
};

constexpr TokenizerCase kCases[] = {
    {"A=2", false},
    {"'abc' = \"def\"", false},
    {"'it\\'s' = \"say \\\"hi\\\"\"", false},
    {"'abc", true},
    {"'abc\\", true},
    {"'a\\ b\\ c'", false},
    {"('a')", false},
    {"('a', 'b', \"c\")", false},
    {"(1, 2, 3)", false},
    {"123,123L", false},
    {"node1$server1:colony1", false},
    {"1node1$server1:colony1", false},
};

// Runs one case; returns the number of failures it produced (0 to 2).
int runCase(const TokenizerCase& c) {
  int before = kyrGetMemCount();
  int failures = 0;
  Tokenizer* t = tokenizerCreate(c.expr);
  bool error = tokenizerIsError(t);
  if (error) {
    printf("SYNTAX ERROR: %s\n%s\n%s\n", tokenizerGetErrorMessage(t),
           tokenizerGetExpressionString(t), tokenizerGetErrorPositionIndicatorString(t));
  }
  if (error == c.expectError) {
    printf(error ? "TEST PASS: (Expected syntax error) expr={%s}\n" : "TEST PASS: expr={%s}\n",
           c.expr);
  } else {
    printf(error ? "TEST FAIL: Unexpected Syntax Error: expr={%s}\n"
                 : "TEST FAIL: Expecting syntax error, but string parsed OK. expr={%s}\n",
           c.expr);
    ++failures;
  }
  tokenizerFree(t);
  if (kyrGetMemCount() != before) {
    printf("\n!!!!  ERROR! **** MEMORY LEAK ****\n");
    ++failures;
  }
  return failures;
}

}  // namespace

int testTokenizer() {
  printf("\n**********  TOKENIZER TESTS ***********\n");
  int failures = 0;
  for (const auto& c : kCases) failures += runCase(c);
  printf("\n*********  TOKENIZER TESTS FINISHED WITH %d ERRORS ***********\n", failures);
  return failures;
}

}  // namespace kyr
