// The commands that talk to a running publisher: apply (push a hand-written delta) and status
// (its /status as a table). Both use the library's own HTTP client, the one web servers use.
#pragma once

#include <string>

namespace kyrpublish {

// Each returns the exit status: 0 done, 1 the publisher refused, 2 no answer or bad input.
int applyCommand(const std::string& url, const std::string& deltaFile, const std::string& group);
int statusCommand(const std::string& url, bool json);

}  // namespace kyrpublish
