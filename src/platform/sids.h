// Making security identifiers.
#pragma once

#include <windows.h>

#include <span>

#include "platform/handles.h"

namespace keldwick {

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

}  // namespace keldwick
