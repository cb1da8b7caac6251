// The operators and operands every rule language has: comparisons, wildcard matching, boolean
// logic, list membership, null tests, concatenation, and the operands `true`, `false`,
// `percentage`, `time`, `rampup` and `nulloperand`.
#pragma once

#include "lang/kyrLanguage.h"

namespace kyr {

// Registers the 25 common operators in their fixed order, which is the grammar's precedence.
void langRegisterCommonOperators(Language* lang);
void langRegisterCommonOperands(Language* lang);

}  // namespace kyr
