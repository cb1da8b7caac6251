// A publisher's /status, printed for people: its groups, its web servers, and the route
// changes and health policy triggers it received.
#pragma once

#include <jansson.h>

#include <ostream>

namespace kyrpublish {

void printStatusTable(std::ostream& out, json_t* status);

}  // namespace kyrpublish
