// Time specifications: parsing, comparison with now, and conversion to seconds.
#include "lang/kyrLangTime.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "lang/kyrLangHooks.h"
#include "runtime/kyrLibUtil.h"
#include "runtime/kyrTime.h"
#include "runtime/kyrUtil.h"

namespace kyr {
namespace {

constexpr const char* kWeekdays[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

template <size_t N>
int nameIndex(const char* const (&names)[N], const char* field) {
  for (size_t i = 0; i < N; ++i) {
    if (kyrStrCmpIgnoreCase(names[i], field) == 0) return static_cast<int>(i);
  }
  return -1;
}

int clampField(int value, int low, int high, int fallback) {
  return value < low || value > high ? fallback : value;
}

}  // namespace

int convertTimeNum(const char* field) {
  if (field == nullptr || *field == '\0') return -1;
  errno = 0;
  char* end = nullptr;
  long value = strtol(field, &end, 10);
  if (*end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX) return -1;
  return static_cast<int>(value);
}

void convertTimeToStruct(const char* spec, time_op* out) {
  *out = time_op{-1, -1, -1, -1, -1, -1, -1};
  if (spec == nullptr) return;
  char* copy = kyrStrdup(spec);
  char* last = nullptr;
  char* fields[7] = {};
  int n = 0;
  for (char* f = kyrStrtok(copy, "/:", &last); f != nullptr && n < 7;
       f = kyrStrtok(nullptr, "/:", &last)) {
    fields[n++] = f;
  }
  if (fields[0] != nullptr) out->wday = nameIndex(kWeekdays, fields[0]);
  out->day = convertTimeNum(fields[1]);
  if (fields[2] != nullptr) out->month = nameIndex(kMonths, fields[2]);
  out->year = convertTimeNum(fields[3]);
  out->hour = convertTimeNum(fields[4]);
  out->min = convertTimeNum(fields[5]);
  out->sec = convertTimeNum(fields[6]);
  kyrFree(copy);
}

bool diffTimeOps(const time_op& curr, const time_op& parm) {
  // Deliberately no weekday: a weekday in a specification has no effect.
  const int currFields[] = {curr.year, curr.month, curr.day, curr.hour, curr.min};
  const int parmFields[] = {parm.year, parm.month, parm.day, parm.hour, parm.min};
  for (size_t i = 0; i < 5; ++i) {
    if (parmFields[i] < 0 || currFields[i] == parmFields[i]) continue;
    return currFields[i] > parmFields[i];
  }
  return curr.sec >= parm.sec;  // the second is never skipped
}

time_t timeToNum(const time_op& spec) {
  // Open or out-of-range fields deliberately take the latest value of their range.
  struct tm tm {};
  tm.tm_year = (spec.year < 0 ? localTimeOp(langNow()).year : spec.year) - 1900;
  tm.tm_mon = clampField(spec.month, 0, 11, 11);
  tm.tm_mday = clampField(spec.day, 1, 31, 31);
  tm.tm_hour = clampField(spec.hour, 0, 23, 23);
  tm.tm_min = clampField(spec.min, 0, 59, 59);
  tm.tm_sec = clampField(spec.sec, 0, 59, 59);
  tm.tm_isdst = -1;
  return mktime(&tm);
}

time_op localTimeOp(time_t t) {
  struct tm tm {};
  kyrLocalTime(&t, &tm);
  return time_op{tm.tm_wday, tm.tm_mday, tm.tm_mon, tm.tm_year + 1900,
                 tm.tm_hour, tm.tm_min,  tm.tm_sec};
}

bool timeInInterval(const time_op& now, const time_op& start, const time_op& stop) {
  return diffTimeOps(now, start) && !diffTimeOps(now, stop);
}

}  // namespace kyr
