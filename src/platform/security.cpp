#include "platform/security.h"

#include <ntsecapi.h>

#include <iterator>

#include "diagnostics/debug_output.h"

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

// ---- Names of accounts ----

namespace {

template <typename POINTED>
struct LSA_CLOSER {
    using TYPE = POINTED*;
    static void Close(TYPE block) { LsaFreeMemory(block); }
};

LSA_HANDLE Policy = nullptr;  // stays open for the life of the process

ERROR_CODE LsaError(NTSTATUS status) { return {LsaNtStatusToWinError(status), ERROR_CODE::FORM::HEXADECIMAL}; }

void Assign(STRING& text, const LSA_UNICODE_STRING& name) {
    text.Assign(name.Buffer, static_cast<DWORD>(name.Length / sizeof(WCHAR)));
}

bool LookupFailed() {
    DebugPrintError(ERROR_CODE(), TEXT("LookupAccountSid failed"));
    return false;
}

// For a size that counts the terminator.
DWORD WithoutTerminator(DWORD units) { return units != 0 ? units - 1 : 0; }

}  // namespace

bool OpenLsaPolicy() {
    if (Policy != nullptr) return true;
    LSA_OBJECT_ATTRIBUTES attributes{};
    const NTSTATUS status = LsaOpenPolicy(nullptr, &attributes, POLICY_LOOKUP_NAMES, &Policy);
    if (status >= 0) return true;
    Policy = nullptr;
    DebugPrintError(LsaError(status), TEXT("Unable to open LSA policy"));
    return false;
}

bool LsaLookupSidName(PSID sid, STRING& domain, STRING& account, SID_NAME_USE* type) {
    if (type != nullptr) *type = SidTypeUnknown;  // a look-up that maps nothing is a failing status
    if (Policy == nullptr) {
        domain.Clear();
        account.Clear();
        return false;
    }
    OWNER<LSA_CLOSER<LSA_REFERENCED_DOMAIN_LIST>> domains;
    OWNER<LSA_CLOSER<LSA_TRANSLATED_NAME>> names;
    const NTSTATUS status = LsaLookupSids(Policy, 1, &sid, domains.Put(), names.Put());
    if (status < 0) {
        DebugPrintError(LsaError(status), TEXT("Unable to open lookup SID"));
        return false;
    }
    const LSA_TRANSLATED_NAME& name = *names.Get();
    if (type != nullptr) *type = name.Use;
    if (name.Use == SidTypeInvalid || name.Use == SidTypeUnknown) {
        domain.Clear();
        account.Clear();
        return false;
    }
    if (domains && name.DomainIndex >= 0 && static_cast<ULONG>(name.DomainIndex) < domains->Entries) {
        Assign(domain, domains->Domains[name.DomainIndex].Name);
    }
    Assign(account, name.Name);
    return true;
}

bool LookupSidAccount(PSID sid, STRING* account, STRING* domain, SID_NAME_USE* type) {
    if (account != nullptr) account->Clear();
    if (domain != nullptr) domain->Clear();
    if (type != nullptr) *type = static_cast<SID_NAME_USE>(0);
    DWORD accountSize = 0;
    DWORD domainSize = 0;
    SID_NAME_USE use{};
    if (LookupAccountSidW(nullptr, sid, nullptr, &accountSize, nullptr, &domainSize, &use)) return true;
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return LookupFailed();
    STRING accountName(WithoutTerminator(accountSize));
    STRING domainName(WithoutTerminator(domainSize));
    if (!LookupAccountSidW(nullptr, sid, accountName.Buffer(), &accountSize, domainName.Buffer(), &domainSize, &use)) {
        return LookupFailed();
    }
    if (account != nullptr) *account = std::move(accountName);
    if (domain != nullptr) *domain = std::move(domainName);
    if (type != nullptr) *type = use;
    return true;
}

// ---- Tokens ----

namespace {

constexpr DWORD ErrorInvalidSid = 4312;  // the reason given when the token's SID has no length

bool InformationFailed(TOKEN_INFORMATION_CLASS what) {
    DebugPrintError(ERROR_CODE(), TEXT("TOKEN_HANDLE::GetInformation: GetTokenInformation class = %d failed"), what);
    return false;
}

bool OutOfMemory() {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
}

}  // namespace

bool TOKEN_HANDLE::GetInformation(TOKEN_INFORMATION_CLASS what, HEAP_BUFFER& information) const {
    DWORD needed = 0;
    if (GetTokenInformation(Get(), what, nullptr, 0, &needed)) return false;
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;
    HEAP_BUFFER buffer;
    if (!buffer.Resize(needed)) return OutOfMemory();
    if (!GetTokenInformation(Get(), what, buffer.Data(), needed, &needed)) return InformationFailed(what);
    information = std::move(buffer);
    return true;
}

bool TOKEN_HANDLE::GetSessionId(DWORD& session) const {
    DWORD found = 0;
    DWORD needed = 0;
    if (!GetTokenInformation(Get(), TokenSessionId, &found, sizeof(found), &needed)) {
        return InformationFailed(TokenSessionId);
    }
    session = found;
    return true;
}

bool TOKEN_HANDLE::GetUserSid(HEAP_BUFFER& sid) const {
    HEAP_BUFFER information;
    if (!GetInformation(TokenUser, information)) return false;
    const bool holdsUser = information.Size() >= sizeof(TOKEN_USER);
    const PSID user = holdsUser ? information.As<TOKEN_USER>()->User.Sid : nullptr;
    const DWORD length = holdsUser ? GetLengthSid(user) : 0;
    if (length == 0) {
        SetLastError(ErrorInvalidSid);
        return false;
    }
    return sid.Assign(user, length) || OutOfMemory();
}

bool GetProcessUserSid(HEAP_BUFFER& sid, DWORD& session) {
    TOKEN_HANDLE token;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Put()) && token.GetSessionId(session) &&
           token.GetUserSid(sid);
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
