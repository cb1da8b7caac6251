// Detached threads that run the host's threadInit before their work, and one-shot alarms built
// on them (one sleeping thread per alarm).
#include "runtime/kyrThread.h"

#include <pthread.h>

#include <algorithm>

#include "runtime/kyrLibUtil.h"
#include "runtime/kyrTime.h"

namespace kyr {
namespace {

struct StartRecord {
  KyrRunFcn fn;
  void* arg;
  const EnvCallBacks* env;
};

static_assert(sizeof(pthread_t) <= sizeof(KyrThread*), "thread handles carry the pthread id");

void* threadMain(void* p) {
  // The creator has returned by the time this runs, so the record is ours to free.
  StartRecord start = *static_cast<StartRecord*>(p);
  kyrFree(p);
  if (start.env != nullptr && start.env->threadInit != nullptr) start.env->threadInit();
  start.fn(start.arg);
  return nullptr;
}

void alarmMain(void* p) {
  auto* alarm = static_cast<KyrAlarm*>(p);
  kyrSleep(static_cast<unsigned>(std::max(0, (alarm->milliseconds + 999) / 1000)));
  alarm->function(alarm->arg);
  kyrFree(alarm);
}

}  // namespace

KyrThread* kyrThreadCreate(KyrRunFcn run, void* args, const EnvCallBacks* env) {
  auto* start = static_cast<StartRecord*>(kyrMalloc(sizeof(StartRecord)));
  if (start == nullptr) return nullptr;
  *start = StartRecord{run, args, env};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t tid;
  int rc = pthread_create(&tid, &attr, threadMain, start);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    kyrFree(start);
    return nullptr;
  }
  // The handle is the thread's id; nothing dereferences it.
  return reinterpret_cast<KyrThread*>(tid);  // NOLINT(performance-no-int-to-ptr)
}

void kyrThreadDestroy(KyrThread* /*thread*/) {}

int kyrSetAlarm(KyrRunFcn function, void* arg, int milliseconds, const EnvCallBacks* env) {
  auto* alarm = static_cast<KyrAlarm*>(kyrMalloc(sizeof(KyrAlarm)));
  if (alarm == nullptr) return -1;
  *alarm = KyrAlarm{function, arg, milliseconds};
  if (kyrThreadCreate(alarmMain, alarm, env) == nullptr) {
    kyrFree(alarm);
    return -1;
  }
  return 0;
}

}  // namespace kyr
