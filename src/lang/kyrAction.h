// Actions of work-class routing rules, made from the action texts of the routing data:
// "permit:", "permitsticky:", "reject:<code>" and "redirect:<url>".
#pragma once

#include "kyrlib.h"

namespace kyr {

struct Action {
  KyrAction type;
  union {
    struct {
      char* edition;  // owned
      bool sticky;
    } permit;
    struct {
      int errorCode;
    } reject;
    struct {
      char* url;  // owned
    } redirect;
  } data;
};

// Null for any other text (prefixes are case-sensitive).
Action* actionCreate(const char* text);
void actionDelete(Action* action);

KyrAction actionGetType(const Action* action);       // NONE for null
const char* actionGetEdition(const Action* action);  // null unless a permit
bool actionGetPermitSticky(const Action* action);
int actionGetRejectErrorCode(const Action* action);      // 0 unless a reject
const char* actionGetRedirectUrl(const Action* action);  // null unless a redirect

}  // namespace kyr
