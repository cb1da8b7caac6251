// The rule language's wildcard comparison ("like"): "*" and "%" each stand for any run of
// characters. Deliberately a single-resume scan, not a full glob: it never backtracks within
// the target, so "aaab" does not match "*aab"; rules in the field are written against that.
#pragma once

namespace kyr {

bool wildcardTextCompare(const char* targetText, const char* patternText, bool isCaseSensitive);

}  // namespace kyr
