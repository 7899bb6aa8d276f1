// The local security authority: a policy handle and the name of one SID.
#include <ntsecapi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "win32/security/accounts.h"
#include "win32/sync/kernel_object.h"

namespace win32 {
namespace {

constexpr NTSTATUS Status(DWORD code) { return static_cast<NTSTATUS>(code); }
constexpr NTSTATUS StatusSuccess = Status(0);
constexpr NTSTATUS StatusInvalidHandle = Status(0xC0000008);
constexpr NTSTATUS StatusInvalidParameter = Status(0xC000000D);
constexpr NTSTATUS StatusNoMemory = Status(0xC0000017);
constexpr NTSTATUS StatusAccessDenied = Status(0xC0000022);
constexpr NTSTATUS StatusNoneMapped = Status(0xC0000073);
constexpr NTSTATUS StatusNotSupported = Status(0xC00000BB);
constexpr NTSTATUS StatusServerUnavailable = Status(0xC0020017);

struct POLICY final : KERNEL_OBJECT {
    explicit POLICY(ACCESS_MASK granted) : access(granted) {}
    const ACCESS_MASK access;
};

constexpr size_t MaxNameUnits = 256;  // longer than any account's or domain's name here

// The two results, each in one block that everything it points to lives in, so that LsaFreeMemory frees it as a whole.
struct TRANSLATED_BLOCK {
    LSA_TRANSLATED_NAME name;
    WCHAR text[MaxNameUnits];
};
struct DOMAIN_BLOCK {
    LSA_REFERENCED_DOMAIN_LIST list;
    LSA_TRUST_INFORMATION domain;
    WCHAR text[MaxNameUnits];
    DWORD sid[32];  // more than the longest has
};

// The text that is copied into a block.
LSA_UNICODE_STRING Put(const std::u16string& text, WCHAR* block) {
    const size_t units = text.copy(block, MaxNameUnits);
    const USHORT bytes = static_cast<USHORT>(units * sizeof(WCHAR));
    return {bytes, bytes, block};
}

void Fill(const SID_VALUE& sid, const ACCOUNT& account, TRANSLATED_BLOCK& name, DOMAIN_BLOCK& domain) {
    name.name = {account.use, Put(account.name, name.text), 0};
    const std::string bytes = sid.Domain().Bytes();
    memcpy(domain.sid, bytes.data(), bytes.size());
    domain.domain = {Put(account.domain, domain.text), domain.sid};
    domain.list = {1, &domain.domain};
}

}  // namespace
}  // namespace win32

NTSTATUS NTAPI LsaOpenPolicy(PLSA_UNICODE_STRING system, PLSA_OBJECT_ATTRIBUTES attributes, ACCESS_MASK access,
                             PLSA_HANDLE policy) {
    if (attributes == nullptr || policy == nullptr) return win32::StatusInvalidParameter;
    if (system != nullptr) return win32::StatusServerUnavailable;
    *policy = win32::NewHandle(std::make_shared<win32::POLICY>(access));
    return win32::StatusSuccess;
}

// One SID at a time. A SID that is not known gives both results all the same, as on Windows, and a failing status.
NTSTATUS NTAPI LsaLookupSids(LSA_HANDLE policy, ULONG count, PSID* sids, PLSA_REFERENCED_DOMAIN_LIST* domains,
                             PLSA_TRANSLATED_NAME* names) {
    const auto object = win32::ObjectAs<win32::POLICY>(policy);
    if (!object) return win32::StatusInvalidHandle;
    if ((object->access & POLICY_LOOKUP_NAMES) == 0) return win32::StatusAccessDenied;
    if (count == 0 || !sids || !domains || !names) return win32::StatusInvalidParameter;
    if (count > 1) return win32::StatusNotSupported;
    const auto sid = win32::SID_VALUE::At(*sids);
    if (!sid) return win32::StatusInvalidParameter;
    const auto account = win32::FindAccount(*sid);

    auto* const name = static_cast<win32::TRANSLATED_BLOCK*>(calloc(1, sizeof(win32::TRANSLATED_BLOCK)));
    auto* const domain = static_cast<win32::DOMAIN_BLOCK*>(calloc(1, sizeof(win32::DOMAIN_BLOCK)));
    if (name == nullptr || domain == nullptr) {
        free(name);
        free(domain);
        return win32::StatusNoMemory;
    }
    name->name = {SidTypeUnknown, {}, -1};
    if (account) win32::Fill(*sid, *account, *name, *domain);
    *names = &name->name;
    *domains = &domain->list;
    return account ? win32::StatusSuccess : win32::StatusNoneMapped;
}

NTSTATUS NTAPI LsaFreeMemory(PVOID buffer) {
    free(buffer);
    return win32::StatusSuccess;
}

NTSTATUS NTAPI LsaClose(LSA_HANDLE policy) {
    const bool closed = win32::ObjectAs<win32::POLICY>(policy) && win32::RemoveHandle(policy);
    return closed ? win32::StatusSuccess : win32::StatusInvalidHandle;
}

ULONG NTAPI LsaNtStatusToWinError(NTSTATUS status) {
    static constexpr struct {
        NTSTATUS status;
        ULONG error;
    } rows[] = {
        {win32::StatusSuccess, ERROR_SUCCESS},
        {win32::StatusInvalidHandle, ERROR_INVALID_HANDLE},
        {win32::StatusInvalidParameter, ERROR_INVALID_PARAMETER},
        {win32::StatusNoMemory, ERROR_NOT_ENOUGH_MEMORY},
        {win32::StatusAccessDenied, ERROR_ACCESS_DENIED},
        {win32::StatusNoneMapped, ERROR_NONE_MAPPED},
        {win32::StatusNotSupported, ERROR_NOT_SUPPORTED},
        {win32::StatusServerUnavailable, win32::RpcServerUnavailable},
    };
    for (const auto& row : rows)
        if (row.status == status) return row.error;
    return ERROR_MR_MID_NOT_FOUND;
}
