// Privileges: their names and numbers, and which of them this process holds.
#pragma once

#include <windows.h>

namespace win32 {

constexpr DWORD SecurityPrivilege = 8;       // the low part of SeSecurityPrivilege's LUID; high parts are all 0
constexpr DWORD ChangeNotifyPrivilege = 23;  // every process holds it, enabled

// Asked anew each time: the security privilege stands for being able to read the Security log.
bool HoldsPrivilege(DWORD privilege);

}  // namespace win32
