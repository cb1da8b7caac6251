// The routing-data reader's rows for rules: web route work classes (an application's edition
// routing rules), trace rule sets of this web server ("vqTraceSpecs"), and the rules in both.
// A rule's parent is a wrapper that says which kind of rule set it belongs to.
#pragma once

#include "core/kyrObjectHandlers.h"
#include "lang/kyrRule.h"

namespace kyr {

extern const ObjectHandler kWebRouteWorkClassRow;
extern const ObjectHandler kRuleRow;
extern const ObjectHandler kRuleSetRow;

// The version's list destructor for rule parents: frees the wrapper, and a trace rule set.
void ruleParentFree(void* wrapper);

// Makes a rule take part in matching: false for a rule without action, which its caller drops;
// one without condition matches always and goes last ("true", order 999800).
bool kyrRuleInit(KyrRule* rule);

}  // namespace kyr
