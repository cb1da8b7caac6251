// Millisecond time, the interval averagers (first-sample rule, interval boundary, reset) and
// the random source.
#include "runtime/kyrTime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

namespace kyr {
namespace {

constexpr KyrTime kNoResult = static_cast<KyrTime>(-1);

TEST(Time, CurrentTimeIsEpochMillisecondsTruncatedTo32Bits) {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::system_clock::now().time_since_epoch())
                .count();
  KyrTime diff = kyrGetCurrentTime() - static_cast<KyrTime>(ms);
  EXPECT_LT(diff, 1000u);
  EXPECT_EQ(kyrTimeFromSeconds(3), 3000u);
  EXPECT_EQ(kyrTimeFromMilliSeconds(7), 7u);
}

TEST(Time, ElapsedIsUnsignedDifferenceFromNow) {
  KyrTime elapsed = kyrTimeElapsedMilliSeconds(kyrGetCurrentTime() - 50);
  EXPECT_GE(elapsed, 50u);
  EXPECT_LT(elapsed, 1050u);
}

TEST(Time, LocalTimeFillsTheCallersStructure) {
  time_t epoch = 0;
  struct tm result {};
  EXPECT_EQ(kyrLocalTime(&epoch, &result), &result);
  EXPECT_TRUE(result.tm_year == 70 || result.tm_year == 69);
}

TEST(TimeAverager, FirstSampleClosesAnIntervalByItself) {
  KyrAvgCalc calc;
  kyrAvgCalcInit(&calc, 1000);
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 5000, 40), 40u);
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 5100, 10), kNoResult);
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 5999, 20), kNoResult);
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 6000, 31), 20u);  // (10 + 20 + 31) / 3, truncated
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 6100, 99), kNoResult);
  EXPECT_EQ(kyrAvgCalcAddSample(&calc, 7000, 1), 50u);  // earlier samples were reset
}

TEST(TimeAverager, TimeoutRatioIsATruncatedPercentagePerInterval) {
  KyrTimeoutCalc calc;
  kyrTimeoutCalcInit(&calc, 1000);
  EXPECT_EQ(kyrTimeoutCalcAddSample(&calc, 100, true), 100);
  EXPECT_EQ(kyrTimeoutCalcAddSample(&calc, 200, false), -1);
  EXPECT_EQ(kyrTimeoutCalcAddSample(&calc, 300, true), -1);
  EXPECT_EQ(kyrTimeoutCalcAddSample(&calc, 1100, false), 33);
  EXPECT_EQ(kyrTimeoutCalcAddSample(&calc, 2100, false), 0);
}

TEST(Time, RandomStaysInRangeAndVariesOverTime) {
  std::set<int> values;
  for (int i = 0; i < 5; ++i) {
    int r = kyrRandom();
    EXPECT_GE(r, 0);
    EXPECT_LE(r, RAND_MAX);
    values.insert(r);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_GT(values.size(), 1u);
}

}  // namespace
}  // namespace kyr
