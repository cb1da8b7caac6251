// Time specifications of the `time` and `rampup` operands: "weekday/day/month/year/hh:mm:ss"
// with any field left open, their comparison with the current local time, and their
// conversion to seconds since the epoch.
#pragma once

#include <ctime>

namespace kyr {

// -1 in a field means "not given".
struct time_op {
  int wday;   // 0 = Sunday ... 6 = Saturday
  int day;    // 1-31
  int month;  // 0 = January ... 11 = December
  int year;   // four digits
  int hour;
  int min;
  int sec;
};

// Splits at "/" and ":" (runs count as one) into weekday name, day, month name, year, hour,
// minute, second; anything unrecognised or missing leaves its field at -1.
void convertTimeToStruct(const char* spec, time_op* out);
// The whole field as a decimal number, else -1.
int convertTimeNum(const char* field);
// Whether `curr` is not earlier than `parm`, comparing only the fields `parm` gives.
bool diffTimeOps(const time_op& curr, const time_op& parm);
// Local calendar time of `spec` in seconds, open fields filled in (see the definition).
time_t timeToNum(const time_op& spec);
// The local calendar fields of `t`.
time_op localTimeOp(time_t t);
// Now is not earlier than `start` and earlier than `stop`; there is no wrap past midnight.
bool timeInInterval(const time_op& now, const time_op& start, const time_op& stop);

}  // namespace kyr
