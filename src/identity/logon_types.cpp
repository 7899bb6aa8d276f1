#include "identity/logon_types.h"

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

constexpr WCHAR Upper(WCHAR unit) {
    return unit >= TEXT('a') && unit <= TEXT('z') ? static_cast<WCHAR>(unit - (TEXT('a') - TEXT('A'))) : unit;
}
constexpr bool IsSpace(WCHAR unit) { return unit == TEXT(' ') || (unit >= TEXT('\t') && unit <= TEXT('\r')); }

// The unit's value as a digit; 36 or more for none.
constexpr DWORD DigitOf(WCHAR unit) {
    if (unit >= TEXT('0') && unit <= TEXT('9')) return unit - DWORD{TEXT('0')};
    const WCHAR upper = Upper(unit);
    return upper >= TEXT('A') && upper <= TEXT('Z') ? upper - DWORD{TEXT('A')} + 10 : 36;
}

// The C library's conversion to a 32-bit unsigned long: white space, a sign, digits; too large gives the largest. Gives
// where it stopped, which is the text's beginning when there is no digit.
const WCHAR* ReadUnsigned(const WCHAR* text, DWORD base, DWORD& number) {
    const WCHAR* at = text;
    while (IsSpace(*at)) ++at;
    const bool negative = *at == TEXT('-');
    if (negative || *at == TEXT('+')) ++at;
    const bool prefixed = base == 16 && at[0] == TEXT('0') && Upper(at[1]) == TEXT('X') && DigitOf(at[2]) < base;
    if (prefixed) at += 2;
    const WCHAR* const digits = at;
    ULONGLONG value = 0;
    for (; DigitOf(*at) < base; ++at) value = value > MAXDWORD ? value : value * base + DigitOf(*at);
    if (at == digits) return text;
    number = value > MAXDWORD ? MAXDWORD : static_cast<DWORD>(negative ? 0 - value : value);
    return at;
}

}  // namespace

bool ParseLogonType(const WCHAR* text, DWORD& type) {
    type = 0;
    const DWORD base = text[0] == TEXT('0') && Upper(text[1]) == TEXT('X') ? 16 : 10;
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

}  // namespace keldwick
