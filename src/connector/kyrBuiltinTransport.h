// The connector callbacks the library brings for hosts that bring none: each connector gets
// its own built-in HTTP client, and each request runs on a new library thread that hands the
// response to the connector's callback.
#pragma once

#include "kyrlib.h"

namespace kyr {

// Fills the four http.connector members of the table with the built-in transport.
void kyrUseBuiltinConnectorTransport(EnvCallBacks* env);

}  // namespace kyr
