// Logon types as the logon events give them.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

// The number in a logon type's text, decimal or hexadecimal behind 0x; an empty text is 0. False: something is left
// after the number.
bool ParseLogonType(const WCHAR* text, DWORD& type);

// The type's name, or its number as decimal text.
STRING LogonTypeName(DWORD type);

// A person's logon at a screen or over the network: INTERACTIVE, NETWORK, REMOTE_INTERACTIVE or CACHED_INTERACTIVE.
bool IsPersonalLogonType(DWORD type);

}  // namespace keldwick
