// Detached library threads and one-shot alarms. Every thread the library starts first calls
// the host's threadInit callback, so hosts can attach their per-thread state.
#pragma once

#include "kyrlib.h"

namespace kyr {

using KyrRunFcn = void (*)(void* arg);

// The thread identifier itself, cast to a pointer; no record is allocated behind it.
struct KyrThread;

KyrThread* kyrThreadCreate(KyrRunFcn run, void* args, const EnvCallBacks* env);
void kyrThreadDestroy(KyrThread* thread);  // threads are detached: nothing to do

struct KyrAlarm {
  KyrRunFcn function;
  void* arg;
  int milliseconds;
};

// Calls function(arg) once after the delay, rounded up to whole seconds, on its own thread.
// 0 on success, -1 if no thread could be started. An alarm cannot be cancelled.
int kyrSetAlarm(KyrRunFcn function, void* arg, int milliseconds, const EnvCallBacks* env);

}  // namespace kyr
