// Making security identifiers, and the privileges of the running process.
#pragma once

#include <windows.h>

#include <span>

#include "platform/handles.h"

namespace keldwick {

// ---- Security identifiers ----

constexpr DWORD SidNullAuthority = 0;  // indexes of the authorities that AllocateSid knows
constexpr DWORD SidNtAuthority = 5;
constexpr DWORD SidResourceManagerAuthority = 6;
constexpr DWORD SubAuthorityFollows = 0xFFFFFFFF;

// A new SID of that authority. The list holds, for each of at most 8 sub-authorities, SubAuthorityFollows and the
// value, and then 0. Null: the last error says why (87 for a list that is none); freed with FreeSid (SID_OWNER).
PSID AllocateSidV(DWORD authority, std::span<const DWORD> list);
template <typename... NUMBERS>
PSID AllocateSid(DWORD authority, NUMBERS... list) {
    const DWORD numbers[] = {static_cast<DWORD>(list)...};
    return AllocateSidV(authority, numbers);
}

// ---- Privileges ----

using PRIVILEGE_SET_OWNER = OWNER<HEAP_CLOSER<TOKEN_PRIVILEGES>>;

// A set of one privilege with those attributes, such as SE_PRIVILEGE_ENABLED. Empty: the last error says why.
PRIVILEGE_SET_OWNER CreateTokenPrivilegesHelper(DWORD attributes, const WCHAR* name);

// Gives the process's token those privileges; `previous`, when given, receives what was changed. A Windows error code,
// 0 on full success only: 1300 when the account does not hold one of them.
DWORD SetTokenPrivileges(const PRIVILEGE_SET_OWNER& set, PRIVILEGE_SET_OWNER* previous = nullptr);

}  // namespace keldwick
