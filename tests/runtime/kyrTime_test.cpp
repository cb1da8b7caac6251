// Millisecond time and the interval averagers (first-sample rule, interval boundary, reset).
#include "runtime/kyrTime.h"

#include <gtest/gtest.h>

#include <chrono>

namespace kyr {
namespace {

constexpr KyrTime kNoResult = static_cast<KyrTime>(-1);

TEST(Time, CurrentTimeIsEpochMillisecondsTruncatedTo32Bits) {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::system_clock::now().time_since_epoch())
                .count();
  EXPECT_LT(kyrGetCurrentTime() - static_cast<KyrTime>(ms), 1000u);
  EXPECT_EQ(kyrTimeFromSeconds(3), 3000u);
  KyrTime elapsed = kyrTimeElapsedMilliSeconds(kyrGetCurrentTime() - 50);
  EXPECT_GE(elapsed, 50u);
  EXPECT_LT(elapsed, 1050u);
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

}  // namespace
}  // namespace kyr
