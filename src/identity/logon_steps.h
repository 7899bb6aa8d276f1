// The steps that the logon events' handlers share.
#pragma once

#include <windows.h>

#include "diagnostics/debug_output.h"
#include "identity/identity_tables.h"
#include "identity/logon_strings.h"
#include "platform/ip_address.h"
#include "platform/string.h"

namespace keldwick {

// The address in the text; false, with a line of the handler's, when it is none.
bool ParseEventAddress(const DEBUG_PREFIX& handler, const WCHAR* ipText, IP_ADDRESS& address);

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
