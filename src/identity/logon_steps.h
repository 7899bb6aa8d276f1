// The steps that the logon events' handlers share.
#pragma once

#include <windows.h>

#include "eventlog/event_log.h"
#include "identity/logon_table.h"
#include "platform/ip_address.h"
#include "platform/string.h"

namespace keldwick {

// What events write where there is nothing to say.
constexpr const WCHAR* NothingGiven = TEXT("-");

// Ignores the case of ASCII letters only.
bool EqualsText(const WCHAR* text, const WCHAR* expected);

// Whether the name is a computer account's: it ends in a dollar sign.
bool IsComputerAccount(const WCHAR* name);

STRING QualifiedName(const WCHAR* domain, const WCHAR* name);  // DOMAIN\name

// Looks at who is known at the address. The same user's time-to-live starts again: true, and there is nothing more to
// do. Another user is reported as logged off and removed.
bool RenewOrReplace(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName);

// A logon that stands in the table from now on, both its times now, and leaves it again unless the server takes its
// report.
class NEW_LOGON {
public:
    explicit NEW_LOGON(LOGON_TABLE& table) : logons(table), entry(table.Append()) {}
    ~NEW_LOGON();
    NEW_LOGON(const NEW_LOGON&) = delete;
    NEW_LOGON& operator=(const NEW_LOGON&) = delete;

    // The reported entry, which the table keeps, or null. Called once.
    LOGON_ENTRY* Report(const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName,
                        const WCHAR* computerName);

private:
    LOGON_TABLE& logons;
    LOGON_ENTRY* const entry;
    bool taken = false;
};

// Adds a logon and reports it. Null: the server did not take the report, and the logon is not in the table.
LOGON_ENTRY* AddReportedLogon(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText,
                              const STRING& userName, const WCHAR* computerName);

}  // namespace keldwick
