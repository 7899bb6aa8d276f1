// What the strings of logon events say.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

constexpr DWORD LOGON_TYPE_INTERACTIVE = 2;
constexpr DWORD LOGON_TYPE_NETWORK = 3;
constexpr DWORD LOGON_TYPE_REMOTE_INTERACTIVE = 10;
constexpr DWORD LOGON_TYPE_CACHED_INTERACTIVE = 11;

// The number in a logon type's text, decimal or hexadecimal after 0x; an empty text is 0. False: something is left
// after the number.
bool ParseLogonType(const WCHAR* text, DWORD& type);

// The type's name, or its number as decimal text, which is written into the place given.
using NUMBER_TEXT = WCHAR[11];
const WCHAR* LogonTypeName(DWORD type, NUMBER_TEXT& number);

// A person's logon at a screen or over the network: one of the four types above.
bool IsPersonalLogonType(DWORD type);

// What events write where there is nothing to say.
constexpr const WCHAR* NothingGiven = TEXT("-");

// Ignores the case of ASCII letters only.
bool EqualsText(const WCHAR* text, const WCHAR* expected);

// Whether the name is a computer account's: it ends in a dollar sign.
bool IsComputerAccount(const WCHAR* name);

STRING QualifiedName(const WCHAR* domain, const WCHAR* name);  // DOMAIN\name

}  // namespace keldwick
