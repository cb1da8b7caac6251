// Mirroring a delta into a complete document, the way a web server's library keeps its stored
// copy of the publisher's document current. The publisher needs it for deltas it did not diff
// itself (pushed by hand) and to rebuild the document a web server holds at an older version.
#pragma once

#include <jansson.h>

namespace kyrpublish {

// Applies the delta's "del", "add" and "set", in that order, to the complete document. What
// the library would skip (an unknown type, a missing name, an add of an existing object, a set
// or delete of a missing one) is skipped here too.
void applyDelta(json_t* document, const json_t* delta);

}  // namespace kyrpublish
