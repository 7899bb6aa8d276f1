#include "platform/account_names.h"

#include <ntsecapi.h>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/handles.h"

namespace keldwick {
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

}  // namespace keldwick
