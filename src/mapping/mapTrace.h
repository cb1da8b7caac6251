// The trace context a matcher writes to for one call: the request's own when the call is made
// for a request, else the matcher's. Private to src/mapping.
#pragma once

#include "kyrlib.h"

namespace kyr {

inline TrContext* requestTrContext(KyrHttpContext* ctx, TrContext* own) {
  return ctx != nullptr ? kyrHttpContextGetTrContext(ctx) : own;
}

}  // namespace kyr
