// The interest specification a connector group sends its publisher with the initial request:
// the object types this library reads, with the properties it wants and the conditions that
// filter them, and the relationships it reads. Written as JSON with single quotes, the form
// publishers read.
#pragma once

#include "kyrlib.h"

namespace kyr {

// A new counted text for the group (its admin-traffic setting decides whether deployment
// managers count as cluster members).
char* kyrGetInterestSpec(KyrConnectorGroup* cg);

}  // namespace kyr
