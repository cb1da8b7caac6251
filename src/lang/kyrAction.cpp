// Parsing of action texts and the action getters.
#include "lang/kyrAction.h"

#include <cstdlib>
#include <cstring>

#include "runtime/kyrLibUtil.h"

namespace kyr {
namespace {

// The rest of `text` after `prefix`, or null when it does not start with it.
const char* after(const char* text, const char* prefix) {
  size_t n = strlen(prefix);
  return strncmp(text, prefix, n) == 0 ? text + n : nullptr;
}

// "shop-edition2.0" names edition "2.0"; without "-edition" the edition is "".
char* editionOf(const char* rest) {
  const char* marker = strstr(rest, "-edition");
  return kyrStrdup(marker != nullptr ? marker + strlen("-edition") : "");
}

}  // namespace

Action* actionCreate(const char* text) {
  if (text == nullptr) return nullptr;
  const char* rest = after(text, "permit:");
  bool sticky = false;
  if (rest == nullptr) {
    rest = after(text, "permitsticky:");
    sticky = rest != nullptr;
  }
  if (rest != nullptr) {
    auto* action = static_cast<Action*>(kyrMalloc(sizeof(Action)));
    action->type = PERMIT;
    action->data.permit.edition = editionOf(rest);
    action->data.permit.sticky = sticky;
    return action;
  }
  if ((rest = after(text, "reject:")) != nullptr) {
    auto* action = static_cast<Action*>(kyrMalloc(sizeof(Action)));
    action->type = REJECT;
    action->data.reject.errorCode = atoi(rest);  // deliberately unchecked: "abc" gives 0
    return action;
  }
  if ((rest = after(text, "redirect:")) != nullptr) {
    auto* action = static_cast<Action*>(kyrMalloc(sizeof(Action)));
    action->type = REDIRECT;
    action->data.redirect.url = kyrStrdup(rest);
    return action;
  }
  return nullptr;
}

void actionDelete(Action* action) {
  if (action == nullptr) return;
  if (action->type == PERMIT) kyrFree(action->data.permit.edition);
  if (action->type == REDIRECT) kyrFree(action->data.redirect.url);
  kyrFree(action);
}

KyrAction actionGetType(const Action* action) { return action != nullptr ? action->type : NONE; }

const char* actionGetEdition(const Action* action) {
  return action != nullptr && action->type == PERMIT ? action->data.permit.edition : nullptr;
}

bool actionGetPermitSticky(const Action* action) {
  return action != nullptr && action->type == PERMIT && action->data.permit.sticky;
}

int actionGetRejectErrorCode(const Action* action) {
  return action != nullptr && action->type == REJECT ? action->data.reject.errorCode : 0;
}

const char* actionGetRedirectUrl(const Action* action) {
  return action != nullptr && action->type == REDIRECT ? action->data.redirect.url : nullptr;
}

}  // namespace kyr
