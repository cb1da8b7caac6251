// The publisher's log: one line per event on standard error, each starting with the UTC time to
// the millisecond, so the lines of several publishers can be merged and ordered.
#pragma once

#include <string>

namespace kyrpublish {

// printf-style; line breaks inside the text become spaces, so every event stays one line.
void logLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "2024-05-01T12:00:00.123Z" for a time in milliseconds since the epoch.
std::string formatTime(long long epochMs);
long long nowMs();

}  // namespace kyrpublish
