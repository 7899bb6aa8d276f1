#include "identity/logon_steps.h"

#include <iterator>

#include "protocol/identity_reports.h"

namespace keldwick {

namespace {

struct LOGON_TYPE_NAME {
    DWORD type;
    const WCHAR* name;
};

constexpr LOGON_TYPE_NAME LOGON_TYPE_NAMES[] = {
    {LOGON_TYPE_INTERACTIVE, TEXT("INTERACTIVE")},
    {LOGON_TYPE_NETWORK, TEXT("NETWORK")},
    {4, TEXT("BATCH")},
    {5, TEXT("SERVICE")},
    {7, TEXT("UNLOCK")},
    {8, TEXT("NETWORK_CLEARTEXT")},
    {9, TEXT("NEW_CREDENTIALS")},
    {LOGON_TYPE_REMOTE_INTERACTIVE, TEXT("REMOTE_INTERACTIVE")},
    {LOGON_TYPE_CACHED_INTERACTIVE, TEXT("CACHED_INTERACTIVE")},
};

constexpr WCHAR Lower(WCHAR unit) {
    return unit >= TEXT('A') && unit <= TEXT('Z') ? static_cast<WCHAR>(unit + (TEXT('a') - TEXT('A'))) : unit;
}
constexpr bool IsSpace(WCHAR unit) { return unit == TEXT(' ') || (unit >= TEXT('\t') && unit <= TEXT('\r')); }

// The C library's conversion to a 32-bit unsigned long: white space, a sign, digits; too large gives the largest. Gives
// where it stopped, which is the text's beginning when there is no digit.
const WCHAR* ReadUnsigned(const WCHAR* text, DWORD base, DWORD& number) {
    const WCHAR* at = text;
    while (IsSpace(*at)) ++at;
    const bool negative = *at == TEXT('-');
    if (negative || *at == TEXT('+')) ++at;
    ULONGLONG value = 0;
    const WCHAR* digits = at;
    if (base == 16 && at[0] == TEXT('0') && Lower(at[1]) == TEXT('x')) digits += 2;
    at = ReadDigits(digits, base, value);
    if (at == digits) return text;
    number = value > MAXDWORD ? MAXDWORD : static_cast<DWORD>(negative ? 0 - value : value);
    return at;
}

}  // namespace

bool ParseLogonType(const WCHAR* text, DWORD& type) {
    type = 0;
    const DWORD base = text[0] == TEXT('0') && Lower(text[1]) == TEXT('x') ? 16 : 10;
    return *ReadUnsigned(text, base, type) == 0;
}

const WCHAR* LogonTypeName(DWORD type, NUMBER_TEXT& number) {
    for (const LOGON_TYPE_NAME& row : LOGON_TYPE_NAMES)
        if (row.type == type) return row.name;
    WCHAR* at = std::end(number);
    *--at = 0;
    do {
        *--at = static_cast<WCHAR>(TEXT('0') + type % 10);
        type /= 10;
    } while (type != 0);
    return at;
}

bool IsPersonalLogonType(DWORD type) {
    return type == LOGON_TYPE_INTERACTIVE || type == LOGON_TYPE_NETWORK || type == LOGON_TYPE_REMOTE_INTERACTIVE ||
           type == LOGON_TYPE_CACHED_INTERACTIVE;
}

bool EqualsText(const WCHAR* text, const WCHAR* expected) {
    while (Lower(*text) == Lower(*expected)) {
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

bool ParseEventAddress(const DEBUG_PREFIX& handler, const WCHAR* ipText, IP_ADDRESS& address) {
    return ParseAddress(address, ipText) || handler.Refuse(TEXT("\n    Invalid IP address = \"%s\""), ipText);
}

STRING QualifiedName(const WCHAR* domain, const WCHAR* name) { return FormatString(TEXT("%s\\%s"), domain, name); }

bool RenewOrReplace(LOGON_TABLE& logons, const IP_ADDRESS& address, const WCHAR* ipText, const STRING& userName) {
    constexpr DEBUG_PREFIX handler(TEXT("Do_EVENT_ACCOUNT_LOGON:"));  // whichever handler it is
    LOGON_ENTRY* const known = logons.Find(address);
    if (known == nullptr) return false;
    if (known->request.HasUserName(userName)) {
        logons.Renew(known);
        handler.Print(TEXT(" Reset TTL,\n    User name = \"%s\",\n    IP Address = \"%s\""), userName, ipText);
        return true;
    }
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
