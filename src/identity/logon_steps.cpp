#include "identity/logon_steps.h"

#include "protocol/identity_reports.h"

namespace keldwick {

bool ParseEventAddress(const DEBUG_PREFIX& handler, const WCHAR* ipText, IP_ADDRESS& address) {
    return ParseAddress(address, ipText) || handler.Refuse(TEXT("\n    Invalid IP address = \"%s\""), ipText);
}

bool RenewOrReplace(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName) {
    constexpr DEBUG_PREFIX handler(TEXT("Do_EVENT_ACCOUNT_LOGON:"));  // whichever handler it is
    if (logons.Renew(address, userName)) {
        handler.Print(TEXT(" Reset TTL,\n    User name = \"%s\",\n    IP Address = \"%s\""), userName, ipText);
        return true;
    }
    LOGON_ENTRY* const known = logons.Find(address);
    if (known == nullptr) return false;
    handler.Print(TEXT(" User name changed \n    from \"%s\" to \"%s\" for IP address %s"), known->request.UserName(),
                  userName, ipText);
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
