// LookupAccountSidW: the name of one SID, by the two-call pattern of size and text.
#include <cstring>

#include "win32/security/accounts.h"
#include "win32/text/last_error.h"

namespace {

constexpr DWORD NoSuchServer = 1722;  // RPC_S_SERVER_UNAVAILABLE

// Whether the text fits with its terminator.
bool Fits(const std::u16string& text, LPCWSTR buffer, DWORD units) { return buffer && units > text.size(); }

// Sets units to the length without the terminator when copied, otherwise to the size needed.
void Put(const std::u16string& text, LPWSTR buffer, LPDWORD units, bool copy) {
    if (copy) memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    *units = static_cast<DWORD>(text.size() + (copy ? 0 : 1));
}

}  // namespace

BOOL WINAPI LookupAccountSidW(LPCWSTR system, PSID sid, LPWSTR account, LPDWORD accountUnits, LPWSTR domain,
                              LPDWORD domainUnits, PSID_NAME_USE use) {
    win32::SID_VALUE value;
    if (!accountUnits || !domainUnits || !use || !value.Load(sid)) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!win32::IsThisSystem(system)) return win32::FailWith(NoSuchServer);
    const auto found = win32::FindAccount(value);
    if (!found) return win32::FailWith(ERROR_NONE_MAPPED);
    const bool fits = Fits(found->name, account, *accountUnits) && Fits(found->domain, domain, *domainUnits);
    Put(found->name, account, accountUnits, fits);
    Put(found->domain, domain, domainUnits, fits);
    if (!fits) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    *use = found->use;
    return TRUE;
}
