// Single-resume wildcard scan behind "like", "likeignorecase" and "likein".
#include "lang/kyrWildcard.h"

namespace kyr {
namespace {

bool isWildcard(char c) { return c == '*' || c == '%'; }

// Only "A" to "Z" fold; other characters compare as they are.
char fold(char c, bool isCaseSensitive) {
  return !isCaseSensitive && c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool wildcardTextCompare(const char* targetText, const char* patternText, bool isCaseSensitive) {
  if (targetText == nullptr || patternText == nullptr) return false;
  const char* t = targetText;
  const char* p = patternText;
  const char* resume = nullptr;  // the pattern position after the last wildcard seen
  for (;;) {
    if (*t == '\0') {
      if (*p == '\0') return true;
      if (!isWildcard(*p)) return false;
      ++p;
      continue;
    }
    if (fold(*t, isCaseSensitive) == fold(*p, isCaseSensitive)) {
      ++t;
      ++p;
      continue;
    }
    if (isWildcard(*p)) {
      ++p;
      if (*p == '\0') return true;
      resume = p;
      continue;
    }
    if (resume == nullptr) return false;
    if (p != resume) {
      p = resume;
      if (fold(*t, isCaseSensitive) == fold(*p, isCaseSensitive)) ++p;
    }
    ++t;
  }
}

}  // namespace kyr
