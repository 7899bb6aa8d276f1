#include "identity/logon_steps.h"

#include "diagnostics/debug_output.h"
#include "protocol/identity_reports.h"

namespace keldwick {

bool EqualsText(const WCHAR* text, const WCHAR* expected) {
    const auto lower = [](WCHAR unit) {
        return unit >= TEXT('A') && unit <= TEXT('Z') ? static_cast<WCHAR>(unit + (TEXT('a') - TEXT('A'))) : unit;
    };
    while (lower(*text) == lower(*expected)) {
        if (*text == 0) return true;
        ++text;
        ++expected;
    }
    return false;
}

bool IsComputerAccount(const WCHAR* name) {
    const TEXT_VIEW text = name;
    return !text.empty() && text.back() == TEXT('$');
}

STRING QualifiedName(const WCHAR* domain, const WCHAR* name) { return FormatString(TEXT("%s\\%s"), domain, name); }

// Both kinds of logon event that search the table write these messages under one name.
bool RenewOrReplace(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName) {
    LOGON_ENTRY* const known = logons.Find(address);
    if (known == nullptr) return false;
    if (known->request.HasUserName(userName)) {
        logons.Renew(known);
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Reset TTL,\n    User name = \"%s\",\n    IP Address = \"%s\""),
                   userName, ipText);
        return true;
    }
    DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: User name changed \n    from \"%s\" to \"%s\" for IP address %s"),
               known->request.UserName(), userName, ipText);
    IdentityReportLogoff(known->request);
    logons.Remove(known);
    return false;
}

NEW_LOGON::~NEW_LOGON() {
    if (!taken) logons.Remove(entry);
}

LOGON_ENTRY* NEW_LOGON::Report(const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName,
                               const WCHAR* computerName) {
    taken = IdentityReportLogon(entry->request, address, ipText, userName.Text(), computerName);
    if (!taken) return nullptr;
    logons.Index(entry);
    return entry;
}

LOGON_ENTRY* AddReportedLogon(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText,
                              const STRING& userName, const WCHAR* computerName) {
    return NEW_LOGON(logons).Report(address, ipText, userName, computerName);
}

}  // namespace keldwick
