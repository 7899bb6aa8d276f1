#include "platform/security.h"

#include <iterator>

#include "diagnostics/debug_output.h"
#include "platform/token_handle.h"

namespace keldwick {

// ---- Security identifiers ----

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

// ---- Privileges ----

namespace {

// A set's bytes: the count, then an LUID and attributes for each privilege.
DWORD SetBytes(DWORD count) { return sizeof(DWORD) + count * sizeof(LUID_AND_ATTRIBUTES); }

PRIVILEGE_SET_OWNER AllocateSet(DWORD count) {
    return PRIVILEGE_SET_OWNER(static_cast<TOKEN_PRIVILEGES*>(std::calloc(1, SetBytes(count))));
}

}  // namespace

PRIVILEGE_SET_OWNER CreateTokenPrivilegesHelper(DWORD attributes, const WCHAR* name) {
    PRIVILEGE_SET_OWNER set = AllocateSet(1);
    if (!set) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return set;
    }
    if (!LookupPrivilegeValueW(nullptr, name, &set->Privileges[0].Luid)) {
        const ERROR_CODE error;
        DebugPrint(TEXT("CreateTokenPrivilegesHelper: "));  // the caller prints the reason
        set.Reset();
        error.Restore();
        return set;
    }
    set->Privileges[0].Attributes = attributes;
    set->PrivilegeCount = 1;
    return set;
}

DWORD SetTokenPrivileges(const PRIVILEGE_SET_OWNER& set, PRIVILEGE_SET_OWNER* previous) {
    TOKEN_HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put())) {
        return GetLastError();
    }
    DWORD size = SetBytes(set->PrivilegeCount);
    PRIVILEGE_SET_OWNER replaced;
    if (previous != nullptr) {
        replaced = AllocateSet(set->PrivilegeCount);
        if (!replaced) return ERROR_NOT_ENOUGH_MEMORY;
    }
    const bool adjusted = AdjustTokenPrivileges(token.Get(), FALSE, set.Get(), size, replaced.Get(), &size) != FALSE;
    const DWORD result = GetLastError();  // on success too: it says whether every privilege was assigned
    if (!adjusted) {
        DebugPrint(TEXT("SetTokenPrivileges: "));  // the caller prints the reason
        if (previous != nullptr) previous->Reset();
        return result;
    }
    if (previous != nullptr) *previous = std::move(replaced);
    return result;
}

}  // namespace keldwick
