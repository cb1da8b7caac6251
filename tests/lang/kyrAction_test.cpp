// Actions from their texts: each prefix, the edition after "-edition", unchecked reject codes,
// case-sensitive prefixes, and getters that answer only for their own kind of action.
#include "lang/kyrAction.h"

#include <gtest/gtest.h>

#include <memory>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

struct ActionFree {
  void operator()(Action* a) const { actionDelete(a); }
};
using ActionPtr = std::unique_ptr<Action, ActionFree>;

ActionPtr make(const char* text) { return ActionPtr(actionCreate(text)); }

TEST(Action, PermitTakesTheEditionAfterTheFirstEditionMarker) {
  ActionPtr a = make("permit:shop-edition2.0");
  ASSERT_TRUE(a);
  EXPECT_EQ(actionGetType(a.get()), PERMIT);
  EXPECT_STREQ(actionGetEdition(a.get()), "2.0");
  EXPECT_FALSE(actionGetPermitSticky(a.get()));
  EXPECT_STREQ(actionGetEdition(make("permit:app").get()), "");
  EXPECT_STREQ(actionGetEdition(make("permit:").get()), "");
  EXPECT_STREQ(actionGetEdition(make("permit:a-edition1-edition2").get()), "1-edition2");
  EXPECT_STREQ(actionGetEdition(make("permit:-edition").get()), "");
}

TEST(Action, PermitStickyIsAStickyPermit) {
  ActionPtr a = make("permitsticky:app-edition1");
  ASSERT_TRUE(a);
  EXPECT_EQ(actionGetType(a.get()), PERMIT);
  EXPECT_STREQ(actionGetEdition(a.get()), "1");
  EXPECT_TRUE(actionGetPermitSticky(a.get()));
}

TEST(Action, RejectCodeIsConvertedWithoutCheck) {
  ActionPtr a = make("reject:503");
  ASSERT_TRUE(a);
  EXPECT_EQ(actionGetType(a.get()), REJECT);
  EXPECT_EQ(actionGetRejectErrorCode(a.get()), 503);
  EXPECT_EQ(actionGetRejectErrorCode(make("reject:abc").get()), 0);
  EXPECT_EQ(actionGetRejectErrorCode(make("reject:").get()), 0);
  EXPECT_EQ(actionGetRejectErrorCode(make("reject:404x").get()), 404);
  EXPECT_EQ(actionGetType(make("reject:abc").get()), REJECT);
}

TEST(Action, RedirectKeepsTheRestAsUrl) {
  ActionPtr a = make("redirect:http://shop/closed?x=1");
  ASSERT_TRUE(a);
  EXPECT_EQ(actionGetType(a.get()), REDIRECT);
  EXPECT_STREQ(actionGetRedirectUrl(a.get()), "http://shop/closed?x=1");
  EXPECT_STREQ(actionGetRedirectUrl(make("redirect:").get()), "");
}

TEST(Action, OtherTextsAreNoAction) {
  for (const char* text : {"PERMIT:x", "Reject:500", "permit", "permitsticky", "redirect", "",
                           " permit:x", "suspend:1"}) {
    EXPECT_EQ(actionCreate(text), nullptr) << text;
  }
  EXPECT_EQ(actionCreate(nullptr), nullptr);
}

TEST(Action, GettersAnswerOnlyForTheirOwnKind) {
  ActionPtr reject = make("reject:500");
  ActionPtr permit = make("permitsticky:a-edition1");
  EXPECT_EQ(actionGetEdition(reject.get()), nullptr);
  EXPECT_FALSE(actionGetPermitSticky(reject.get()));
  EXPECT_EQ(actionGetRedirectUrl(permit.get()), nullptr);
  EXPECT_EQ(actionGetRejectErrorCode(permit.get()), 0);
  EXPECT_EQ(actionGetType(nullptr), NONE);
  EXPECT_EQ(actionGetEdition(nullptr), nullptr);
  actionDelete(nullptr);
}

TEST(Action, CreateAndDeleteLeaveTheCounterWhereItWas) {
  int before = kyrGetMemCount();
  for (const char* text : {"permit:a-edition1", "permitsticky:b", "reject:1", "redirect:/x"}) {
    actionDelete(actionCreate(text));
  }
  EXPECT_EQ(kyrGetMemCount(), before);
}

}  // namespace
}  // namespace kyr
