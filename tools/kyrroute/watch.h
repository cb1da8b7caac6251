// kyrroute watch: one line for every routing document the library applies from its publishers'
// stream, and one for every change of the library's state. The documents are seen by wrapping
// the library's built-in connector transport (watch.cpp).
#pragma once

#include "kyrlib.h"
#include "library.h"

namespace kyrroute {

struct WatchOptions {
  bool json = false;
  int count = 0;         // documents to print before ending; 0: until SIGINT or SIGTERM
  int timeoutSecs = 10;  // for the first document; 0: no limit
};

// SIGINT and SIGTERM are taken by watch's own wait, never by a handler: blocked here, before
// the library starts a thread, every thread inherits the mask.
void blockStopSignals();

// Puts the watching transport in the table's connector callbacks and the printer of state
// lines in its state-change callback. Once per process, before the handle is created.
void watchCallbacks(EnvCallBacks& env, const WatchOptions& options);

// Starts the library on the publishers and prints until a stop signal or `count` documents;
// returns the exit status (2 when no document came within the time-out or every publisher
// failed before one did).
int watch(Library& library, const Publishers& publishers, const WatchOptions& options);

}  // namespace kyrroute
