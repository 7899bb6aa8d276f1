// Logon types as the logon events give them.
#pragma once

#include <windows.h>

namespace keldwick {

constexpr DWORD LOGON_TYPE_INTERACTIVE = 2;
constexpr DWORD LOGON_TYPE_NETWORK = 3;
constexpr DWORD LOGON_TYPE_REMOTE_INTERACTIVE = 10;
constexpr DWORD LOGON_TYPE_CACHED_INTERACTIVE = 11;

// The number in a logon type's text, decimal or hexadecimal behind 0x; an empty text is 0. False: something is left
// after the number.
bool ParseLogonType(const WCHAR* text, DWORD& type);

// The type's name, or its number as decimal text, which is written into the place given.
using NUMBER_TEXT = WCHAR[11];
const WCHAR* LogonTypeName(DWORD type, NUMBER_TEXT& number);

// A person's logon at a screen or over the network: one of the four types above.
bool IsPersonalLogonType(DWORD type);

}  // namespace keldwick
