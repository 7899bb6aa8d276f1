// Privileges of the running process.
#pragma once

#include <windows.h>

#include "platform/handles.h"

namespace keldwick {

using PRIVILEGE_SET = OWNER<HEAP_CLOSER<TOKEN_PRIVILEGES>>;

// A set of one privilege with those attributes, such as SE_PRIVILEGE_ENABLED. Empty: the last error says why.
PRIVILEGE_SET CreateTokenPrivilegesHelper(DWORD attributes, const WCHAR* name);

// Gives the process's token those privileges; `previous`, when given, receives what was changed. A Windows error code,
// 0 on full success only: 1300 when the account does not hold one of them.
DWORD SetTokenPrivileges(const PRIVILEGE_SET& set, PRIVILEGE_SET* previous = nullptr);

}  // namespace keldwick
