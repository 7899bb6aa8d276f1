#include "platform/sids.h"

#include <iterator>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"

namespace keldwick {
namespace {

constexpr BYTE MaxSubAuthorities = 8;

PSID Refuse() {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
}

}  // namespace

PSID AllocateSidV(DWORD authority, std::span<const DWORD> list) {
    SID_IDENTIFIER_AUTHORITY authorities[] = {
        SECURITY_NULL_SID_AUTHORITY,         SECURITY_WORLD_SID_AUTHORITY,  SECURITY_LOCAL_SID_AUTHORITY,
        SECURITY_CREATOR_SID_AUTHORITY,      SECURITY_NON_UNIQUE_AUTHORITY, SECURITY_NT_AUTHORITY,
        SECURITY_RESOURCE_MANAGER_AUTHORITY,
    };
    DWORD sub[MaxSubAuthorities] = {};
    BYTE count = 0;
    size_t at = 0;
    for (; at + 1 < list.size() && list[at] == SubAuthorityFollows; at += 2) {
        if (count == MaxSubAuthorities) return Refuse();
        sub[count++] = list[at + 1];
    }
    if (at >= list.size() || list[at] != 0 || authority >= std::size(authorities)) return Refuse();
    PSID sid = nullptr;
    if (!AllocateAndInitializeSid(&authorities[authority], count, sub[0], sub[1], sub[2], sub[3], sub[4], sub[5],
                                  sub[6], sub[7], &sid)) {
        DebugPrintError(ERROR_CODE(), TEXT("AllocateAndInitializeSid failed"));
        return nullptr;
    }
    return sid;
}

}  // namespace keldwick
