// The local security authority: a policy handle and the names of several SIDs at once.
#include <ntsecapi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "win32/security/accounts.h"
#include "win32/sync/kernel_object.h"

namespace win32 {
namespace {

constexpr NTSTATUS Status(DWORD code) { return static_cast<NTSTATUS>(code); }
constexpr NTSTATUS StatusSuccess = Status(0);
constexpr NTSTATUS StatusSomeNotMapped = Status(0x00000107);  // a success: the unknown ones have SidTypeUnknown
constexpr NTSTATUS StatusInvalidHandle = Status(0xC0000008);
constexpr NTSTATUS StatusInvalidParameter = Status(0xC000000D);
constexpr NTSTATUS StatusNoMemory = Status(0xC0000017);
constexpr NTSTATUS StatusAccessDenied = Status(0xC0000022);
constexpr NTSTATUS StatusNoneMapped = Status(0xC0000073);
constexpr NTSTATUS StatusNotSupported = Status(0xC00000BB);
constexpr NTSTATUS StatusServerUnavailable = Status(0xC0020017);

constexpr ULONG MaxSids = 0x5000;  // of one look-up, as Windows limits it

struct POLICY final : KERNEL_OBJECT {
    explicit POLICY(ACCESS_MASK granted) : access(granted) {}
    const ACCESS_MASK access;
};

// One block that a result and everything it points to live in, so that LsaFreeMemory frees it as a whole.
class RESULT_BLOCK {
public:
    explicit RESULT_BLOCK(size_t bytes) : memory(static_cast<BYTE*>(calloc(1, bytes + 1))), next(memory) {}
    ~RESULT_BLOCK() { free(memory); }
    RESULT_BLOCK(const RESULT_BLOCK&) = delete;
    RESULT_BLOCK& operator=(const RESULT_BLOCK&) = delete;

    explicit operator bool() const { return memory != nullptr; }

    // Parts are taken in order of falling alignment.
    template <typename T>
    T* Take(size_t count) {
        T* part = reinterpret_cast<T*>(next);
        next += count * sizeof(T);
        return part;
    }
    LSA_UNICODE_STRING TakeText(const std::u16string& text) {
        const USHORT bytes = TextBytes(text);
        WCHAR* buffer = Take<WCHAR>(bytes / sizeof(WCHAR));
        std::copy_n(text.data(), bytes / sizeof(WCHAR), buffer);
        return {bytes, bytes, buffer};
    }
    static USHORT TextBytes(const std::u16string& text) {
        constexpr size_t limit = std::numeric_limits<USHORT>::max() / sizeof(WCHAR);
        return static_cast<USHORT>(std::min(text.size(), limit) * sizeof(WCHAR));
    }
    BYTE* Release() { return std::exchange(memory, nullptr); }

private:
    BYTE* memory;
    BYTE* next;
};

struct FOUND {
    ACCOUNT account;
    LONG domain = -1;  // index among the referenced domains; unknown accounts have none
};

struct DOMAIN {
    std::u16string name;
    SID_VALUE sid;
};

struct LOOKUP {
    std::vector<FOUND> names;
    std::vector<DOMAIN> domains;

    void Add(const SID_VALUE& sid) {
        const auto account = FindAccount(sid);
        if (!account) {
            names.emplace_back();
            return;
        }
        const SID_VALUE owner = account->use == SidTypeDomain ? sid : sid.Domain();
        auto domain = std::find_if(domains.begin(), domains.end(),
                                   [&](const DOMAIN& d) { return d.sid == owner && d.name == account->domain; });
        if (domain == domains.end()) domain = domains.insert(domains.end(), {account->domain, owner});
        names.push_back({*account, static_cast<LONG>(domain - domains.begin())});
    }

    NTSTATUS Status() const {
        const auto mapped = [](const FOUND& found) { return found.domain >= 0; };
        if (std::none_of(names.begin(), names.end(), mapped)) return StatusNoneMapped;
        return std::all_of(names.begin(), names.end(), mapped) ? StatusSuccess : StatusSomeNotMapped;
    }

    PLSA_TRANSLATED_NAME Names() const {
        size_t bytes = names.size() * sizeof(LSA_TRANSLATED_NAME);
        for (const FOUND& found : names) bytes += RESULT_BLOCK::TextBytes(found.account.name);
        RESULT_BLOCK block(bytes);
        if (!block) return nullptr;
        auto* name = block.Take<LSA_TRANSLATED_NAME>(names.size());
        for (const FOUND& found : names)
            *name++ = {found.account.use, block.TakeText(found.account.name), found.domain};
        return reinterpret_cast<PLSA_TRANSLATED_NAME>(block.Release());
    }

    PLSA_REFERENCED_DOMAIN_LIST Domains() const {
        size_t bytes = sizeof(LSA_REFERENCED_DOMAIN_LIST) + domains.size() * sizeof(LSA_TRUST_INFORMATION);
        for (const DOMAIN& domain : domains) bytes += domain.sid.Bytes() + RESULT_BLOCK::TextBytes(domain.name);
        RESULT_BLOCK block(bytes);
        if (!block) return nullptr;
        auto* list = block.Take<LSA_REFERENCED_DOMAIN_LIST>(1);
        *list = {static_cast<ULONG>(domains.size()), block.Take<LSA_TRUST_INFORMATION>(domains.size())};
        for (size_t i = 0; i < domains.size(); ++i) {
            list->Domains[i].Sid = block.Take<BYTE>(domains[i].sid.Bytes());
            domains[i].sid.Store(list->Domains[i].Sid);
        }
        for (size_t i = 0; i < domains.size(); ++i) list->Domains[i].Name = block.TakeText(domains[i].name);
        return reinterpret_cast<PLSA_REFERENCED_DOMAIN_LIST>(block.Release());
    }
};

}  // namespace
}  // namespace win32

NTSTATUS NTAPI LsaOpenPolicy(PLSA_UNICODE_STRING system, PLSA_OBJECT_ATTRIBUTES attributes, ACCESS_MASK access,
                             PLSA_HANDLE policy) {
    if (attributes == nullptr || policy == nullptr) return win32::StatusInvalidParameter;
    if (system != nullptr && system->Length != 0) {
        const std::u16string name(system->Buffer, system->Length / sizeof(WCHAR));
        if (!win32::IsThisSystem(name.c_str())) return win32::StatusServerUnavailable;
    }
    *policy = win32::NewHandle(std::make_shared<win32::POLICY>(access));
    return win32::StatusSuccess;
}

NTSTATUS NTAPI LsaLookupSids(LSA_HANDLE policy, ULONG count, PSID* sids, PLSA_REFERENCED_DOMAIN_LIST* domains,
                             PLSA_TRANSLATED_NAME* names) {
    const auto object = win32::ObjectAs<win32::POLICY>(policy);
    if (!object) return win32::StatusInvalidHandle;
    if ((object->access & POLICY_LOOKUP_NAMES) == 0) return win32::StatusAccessDenied;
    if (count == 0 || count > win32::MaxSids || !sids || !domains || !names) return win32::StatusInvalidParameter;

    win32::LOOKUP lookup;
    for (ULONG i = 0; i < count; ++i) {
        win32::SID_VALUE sid;
        if (!sid.Load(sids[i])) return win32::StatusInvalidParameter;
        lookup.Add(sid);
    }
    *domains = lookup.Domains();
    *names = lookup.Names();
    if (*domains == nullptr || *names == nullptr) {
        LsaFreeMemory(std::exchange(*domains, nullptr));
        LsaFreeMemory(std::exchange(*names, nullptr));
        return win32::StatusNoMemory;
    }
    return lookup.Status();
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
        {win32::StatusSomeNotMapped, 1301},  // ERROR_SOME_NOT_MAPPED
        {win32::StatusInvalidHandle, ERROR_INVALID_HANDLE},
        {win32::StatusInvalidParameter, ERROR_INVALID_PARAMETER},
        {win32::StatusNoMemory, ERROR_NOT_ENOUGH_MEMORY},
        {win32::StatusAccessDenied, ERROR_ACCESS_DENIED},
        {win32::StatusNoneMapped, ERROR_NONE_MAPPED},
        {win32::StatusNotSupported, ERROR_NOT_SUPPORTED},
        {win32::StatusServerUnavailable, 1722},  // RPC_S_SERVER_UNAVAILABLE
    };
    for (const auto& row : rows)
        if (row.status == status) return row.error;
    return ERROR_MR_MID_NOT_FOUND;
}
