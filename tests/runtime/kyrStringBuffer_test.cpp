// The growable string buffer: appending, the growth rule (the larger of doubling and what the
// text needs) and its counted storage.
#include "runtime/kyrStringBuffer.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

TEST(RuntimeStringBuffer, GrowsToTheLargerOfDoubleAndWhatTheTextNeeds) {
  int before = kyrGetMemCount();
  KyrStringBuffer* sb = sbCreate(4);
  EXPECT_STREQ(sbStr(sb), "");
  EXPECT_EQ(sbAdd(sbAdd(sb, "ab"), "cd"), sb);
  EXPECT_EQ(sb->max, 4);  // filling exactly to capacity does not grow
  sbAdd(sb, "e");         // doubling suffices
  EXPECT_EQ(sb->max, 8);
  std::string longText(20, 'x');
  sbAdd(sb, longText.c_str());  // needs more than double
  EXPECT_EQ(sb->max, 28);
  EXPECT_EQ(sbStr(sb), "abcde" + longText);
  sbDelete(sb);
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr
