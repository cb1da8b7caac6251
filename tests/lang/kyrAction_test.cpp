// Actions from their texts as routing data writes them: the edition after the first
// "-edition", unchecked reject codes, case-sensitive prefixes, and getters that answer only for
// their own kind of action (a router must not take a reject for a permit to edition "").
#include "lang/kyrAction.h"

#include <gtest/gtest.h>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

TEST(Action, EachTextGivesItsKindAndValues) {
  struct Row {
    const char* text;
    KyrAction type;
    const char* edition;  // null: not a permit
    bool sticky;
    int rejectCode;
    const char* redirectUrl;  // null: not a redirect
  } rows[] = {
      {"permit:shop-edition2.0", PERMIT, "2.0", false, 0, nullptr},
      {"permit:app", PERMIT, "", false, 0, nullptr},
      {"permit:a-edition1-edition2", PERMIT, "1-edition2", false, 0, nullptr},
      {"permit:-edition", PERMIT, "", false, 0, nullptr},
      {"permitsticky:app-edition1", PERMIT, "1", true, 0, nullptr},
      {"reject:503", REJECT, nullptr, false, 503, nullptr},
      {"reject:abc", REJECT, nullptr, false, 0, nullptr},
      {"reject:404x", REJECT, nullptr, false, 404, nullptr},
      {"redirect:http://shop/closed?x=1", REDIRECT, nullptr, false, 0, "http://shop/closed?x=1"},
      {"redirect:", REDIRECT, nullptr, false, 0, ""},
  };
  int before = kyrGetMemCount();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    Action* a = actionCreate(row.text);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(actionGetType(a), row.type);
    EXPECT_STREQ(actionGetEdition(a), row.edition);
    EXPECT_EQ(actionGetPermitSticky(a), row.sticky);
    EXPECT_EQ(actionGetRejectErrorCode(a), row.rejectCode);
    EXPECT_STREQ(actionGetRedirectUrl(a), row.redirectUrl);
    actionDelete(a);
  }
  EXPECT_EQ(kyrGetMemCount(), before) << "deleting an action gives back all it took";
}

TEST(Action, OtherTextsAreNoAction) {
  for (const char* text : {"PERMIT:x", "Reject:500", "permit", "permitsticky", "redirect", "",
                           " permit:x", "suspend:1"}) {
    EXPECT_EQ(actionCreate(text), nullptr) << text;
  }
  EXPECT_EQ(actionCreate(nullptr), nullptr);
  EXPECT_EQ(actionGetType(nullptr), NONE);
}

}  // namespace
}  // namespace kyr
