// One line per event: the time, the tool's name and the text, written with one call so lines
// from the server's threads never interleave.
#include "log.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kyrpublish {

long long nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string formatTime(long long epochMs) {
  time_t seconds = static_cast<time_t>(epochMs / 1000);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(text + n, sizeof text - n, ".%03lldZ", epochMs % 1000);
  return text;
}

void logLine(const char* format, ...) {
  char message[1024];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(message, sizeof message, format, args);
  va_end(args);
  if (length < 0) return;
  for (char* c = message; *c != '\0'; ++c) {
    if (*c == '\n' || *c == '\r') *c = ' ';
  }
  size_t end = strlen(message);
  while (end > 0 && message[end - 1] == ' ') message[--end] = '\0';
  // A long text is cut at the buffer: a log line names the event, it does not carry documents.
  fprintf(stderr, "%s kyrpublish: %s\n", formatTime(nowMs()).c_str(), message);
}

}  // namespace kyrpublish
