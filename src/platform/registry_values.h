// Values of a registry key. Each call gives true, or false with the reason as the thread's last error; a value of
// another type than asked for is ERROR_INVALID_DATATYPE. Nothing is logged.
#pragma once

#include "platform/string.h"

namespace keldwick {

bool RegGetDword(HKEY key, const WCHAR* name, DWORD& value);    // REG_DWORD of 4 bytes
bool RegGetString(HKEY key, const WCHAR* name, STRING& value);  // REG_SZ or REG_EXPAND_SZ, which is not expanded
bool RegGetValueInfo(HKEY key, const WCHAR* name, DWORD* type, DWORD* bytes);  // either may be null
bool RegSetDword(HKEY key, const WCHAR* name, DWORD value);
bool RegSetString(HKEY key, const WCHAR* name, const WCHAR* text);  // REG_SZ, terminator included

}  // namespace keldwick
