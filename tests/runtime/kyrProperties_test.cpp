// Property sets: which sets the owner's callback allows, where values are kept (copy under the
// canonical key, or the caller's pointer under the given name) and the 0/1/-1 results.
#include "runtime/kyrProperties.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// An owner that knows "timeout" (canonical "Timeout") and "name" (canonical itself).
struct Owner {
  int calls = 0;
  const char* lastValue = nullptr;
};

const char* ownerSetter(void* passback, const char* propName, const char* propValue) {
  auto* owner = static_cast<Owner*>(passback);
  owner->calls++;
  owner->lastValue = propValue;
  if (strcmp(propName, "timeout") == 0) return "Timeout";
  if (strcmp(propName, "name") == 0) return "name";
  return nullptr;
}

class PropertiesTest : public ::testing::Test {
 protected:
  // Validated values are plain copies that deleting the set does not release.
  void TearDown() override {
    for (const char* key : {"Timeout", "name"})
      free(const_cast<char*>(kyrPropertyGet(props_, key)));
    kyrPropertiesDelete(props_);
    EXPECT_EQ(kyrGetMemCount(), before_);
  }
  int before_ = kyrGetMemCount();
  Owner owner_;
  KyrProperties* props_ = kyrPropertiesCreate(ownerSetter, &owner_);
};

TEST_F(PropertiesTest, ValidatedSetStoresACopyUnderTheCanonicalKey) {
  char value[] = "30";
  EXPECT_EQ(kyrPropertySet(props_, "timeout", value, true), 0);
  EXPECT_EQ(owner_.calls, 1);
  EXPECT_EQ(owner_.lastValue, value);
  EXPECT_STREQ(kyrPropertyGet(props_, "Timeout"), "30");
  EXPECT_NE(kyrPropertyGet(props_, "Timeout"), value);
  EXPECT_EQ(kyrPropertyGet(props_, "timeout"), nullptr);
  EXPECT_EQ(kyrPropertySet(props_, "timeout", "60", true), 0);  // old copy released
  EXPECT_STREQ(kyrPropertyGet(props_, "Timeout"), "60");
}

TEST_F(PropertiesTest, UnvalidatedSetKeepsTheCallersPointerUnderItsName) {
  static const char value[] = "v";
  EXPECT_EQ(kyrPropertySet(props_, "custom", value, false), 0);
  EXPECT_EQ(kyrPropertyGet(props_, "custom"), value);
  EXPECT_EQ(kyrPropertySet(props_, "custom", nullptr, false), 0);
  EXPECT_EQ(kyrPropertyGet(props_, "custom"), nullptr);
}

TEST_F(PropertiesTest, EachSideRefusesTheOthersNamesAndRemovingNothingReturnsOne) {
  EXPECT_EQ(kyrPropertySet(props_, "unknown", "1", true), -1);
  EXPECT_EQ(kyrPropertySet(props_, "timeout", "1", false), -1);
  EXPECT_EQ(kyrPropertyGet(props_, "Timeout"), nullptr);
  EXPECT_EQ(kyrPropertySet(props_, "custom", nullptr, false), 1);
  EXPECT_EQ(kyrPropertySet(props_, "name", nullptr, true), 1);
  EXPECT_EQ(kyrPropertySet(props_, "name", "n1", true), 0);
  EXPECT_EQ(kyrPropertySet(props_, "name", nullptr, true), 0);  // copy released
  EXPECT_EQ(kyrPropertyGet(props_, "name"), nullptr);
}

}  // namespace
}  // namespace kyr
