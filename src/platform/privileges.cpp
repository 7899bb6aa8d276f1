#include "platform/privileges.h"

#include "diagnostics/debug_output.h"
#include "platform/error_code.h"
#include "platform/token_handle.h"

namespace keldwick {
namespace {

// A set's bytes: the count, then an LUID and attributes for each privilege.
DWORD SetBytes(DWORD count) { return sizeof(DWORD) + count * sizeof(LUID_AND_ATTRIBUTES); }

PRIVILEGE_SET AllocateSet(DWORD count) {
    return PRIVILEGE_SET(static_cast<TOKEN_PRIVILEGES*>(std::calloc(1, SetBytes(count))));
}

}  // namespace

PRIVILEGE_SET CreateTokenPrivilegesHelper(DWORD attributes, const WCHAR* name) {
    PRIVILEGE_SET set = AllocateSet(1);
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

DWORD SetTokenPrivileges(const PRIVILEGE_SET& set, PRIVILEGE_SET* previous) {
    TOKEN_HANDLE token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put())) {
        return GetLastError();
    }
    DWORD size = SetBytes(set->PrivilegeCount);
    PRIVILEGE_SET replaced;
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
