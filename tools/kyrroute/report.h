// Printing what kyrroute found: routing decisions, the spread of repeated requests over
// servers, and the reader's diagnostics, as readable text or as JSON.
#pragma once

#include <ostream>
#include <vector>

#include "library.h"

namespace kyrroute {

void printDecisions(std::ostream& out, const std::vector<Decision>& decisions, bool json);
// One decision as it is made: the text of printDecisions, or one JSON object on one line.
void printDecision(std::ostream& out, const Decision& d, bool json);
// How often each server (or each reject) was chosen over all decisions.
void printDistribution(std::ostream& out, const std::vector<Decision>& decisions, bool json);
void printDiagnostics(std::ostream& out, const std::vector<Diagnostic>& diagnostics, bool json);

}  // namespace kyrroute
