// The steps that the logon events' handlers share.
#pragma once

#include <windows.h>

#include "diagnostics/debug_output.h"
#include "identity/identity_tables.h"
#include "platform/ip_address.h"
#include "platform/string.h"

namespace keldwick {

// ---- What the strings say ----

constexpr DWORD LOGON_TYPE_INTERACTIVE = 2;
constexpr DWORD LOGON_TYPE_NETWORK = 3;
constexpr DWORD LOGON_TYPE_REMOTE_INTERACTIVE = 10;
constexpr DWORD LOGON_TYPE_CACHED_INTERACTIVE = 11;

// The number in a logon type's text, decimal or hexadecimal after 0x; an empty text is 0. False: something is left
// after the number.
bool ParseLogonType(const WCHAR* text, DWORD& type);

// The type's name, or its number as decimal text, which is written into the place given.
using NUMBER_TEXT = WCHAR[11];
const WCHAR* LogonTypeName(DWORD type, NUMBER_TEXT& number);

// A person's logon at a screen or over the network: one of the four types above.
bool IsPersonalLogonType(DWORD type);

// What events write where there is nothing to say.
constexpr const WCHAR* NothingGiven = TEXT("-");

// Ignores the case of ASCII letters only.
bool EqualsText(const WCHAR* text, const WCHAR* expected);

// Whether the name is a computer account's: it ends in a dollar sign.
bool IsComputerAccount(const WCHAR* name);

STRING QualifiedName(const WCHAR* domain, const WCHAR* name);  // DOMAIN\name

// The address in the text; false, with a line of the handler's, when it is none.
bool ParseEventAddress(const DEBUG_PREFIX& handler, const WCHAR* ipText, IP_ADDRESS& address);

// ---- What becomes of a logon ----

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
