// The handle's custom properties: the property table, web-server values that win over cell
// values, and the server name from which the cell and server paths are derived.
#pragma once

#include "core/kyr.h"

namespace kyr {

// The setter behind the handle's property set (`props`), with the handle as pass-back: applies
// one property to the handle's fields and answers its canonical name. kyrSetProperty goes
// through `props`, which calls it and then keeps the value.
const char* kyrSetPropertyFcn(void* kyr, const char* name, const char* value);

// The names of the property table, in matching order, null-terminated: the custom properties a
// publisher is asked for.
const char* const* kyrHandlePropertyNames();

// Frees serverProps, including the key copies kept for names outside the property table.
void serverPropsDestroy(Kyr* kyr);

}  // namespace kyr
