#include "identity/logon_strings.h"

#include <iterator>

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

STRING QualifiedName(const WCHAR* domain, const WCHAR* name) { return STRING::Join({domain, TEXT("\\"), name}); }

}  // namespace keldwick
