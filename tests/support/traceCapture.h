// Trace capture for tests: a print callback that records what the library hands the host, and
// lookups over what it recorded. Callbacks carry no user data, so the record is process-wide.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "tr.h"

namespace kyrtest {

// What one call of the print callback received.
struct Printed {
  std::string format;
  std::string messageId;
  std::string level;
  std::string text;  // the format applied to the arguments
};

inline std::vector<Printed>& printed() {
  static std::vector<Printed> lines;
  return lines;
}

// Library threads (the worker, transport threads) print while a test reads: both sides take
// this lock, and readers work on a copy.
inline std::mutex& printedLock() {
  static std::mutex lock;
  return lock;
}

inline std::vector<Printed> printedLines() {
  std::lock_guard<std::mutex> guard(printedLock());
  return printed();
}

inline std::string orEmpty(const char* s) { return s != nullptr ? s : "(null)"; }

inline void capturePrintf(TrContext* context, va_list args) {
  Printed line{orEmpty(trContextGetFormat(context)), orEmpty(trContextGetMessageId(context)),
               orEmpty(trContextGetLevel(context)), ""};
  if (const char* format = trContextGetFormat(context)) {
    char buffer[512];
    vsnprintf(buffer, sizeof buffer, format, args);
    line.text = buffer;
  }
  std::lock_guard<std::mutex> guard(printedLock());
  printed().push_back(line);
}

// Whether any printed line contains the text.
inline bool printedContains(const std::string& needle) {
  for (const auto& line : printedLines()) {
    if (line.text.find(needle) != std::string::npos) return true;
  }
  return false;
}

}  // namespace kyrtest
