// MultiByteToWideChar and WideCharToMultiByte. The machine's narrow code page is UTF-8, so CP_ACP and CP_UTF8 are one.
#include <unicode/ustring.h>
#include <windows.h>

#include <cstring>

#include "win32/text/last_error.h"

namespace {

constexpr DWORD InvalidFlags = 1004;  // ERROR_INVALID_FLAGS
constexpr UChar32 Replacement = 0xFFFD;

// Checks what both directions have in common; false: last error set.
bool CheckArguments(UINT codePage, DWORD flags, DWORD allowed, const void* from, int count, const void* to, int room) {
    if (codePage != CP_ACP && codePage != CP_UTF8) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if ((flags & ~allowed) != 0) return win32::FailWith(InvalidFlags);
    if (from == nullptr || count == 0 || count < -1 || room < 0 || (to == nullptr && room > 0) || from == to)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    return true;
}

// room 0 asks for the size, which ICU calls an overflow.
int Result(int32_t length, int room, UErrorCode status) {
    if (status == U_INVALID_CHAR_FOUND || status == U_ILLEGAL_CHAR_FOUND)
        return win32::FailWith(ERROR_NO_UNICODE_TRANSLATION);
    if (status == U_BUFFER_OVERFLOW_ERROR && room > 0) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    if (U_FAILURE(status) && status != U_BUFFER_OVERFLOW_ERROR) return win32::FailWith(ERROR_INVALID_PARAMETER);
    return length;
}

// A count of -1 includes the terminator, which is converted with the rest.
template <typename LENGTH>
bool CountUnits(LENGTH length, int& count) {
    if (count >= 0) return true;
    const size_t units = length() + 1;
    if (units > 0x7FFFFFFF) return win32::FailWith(ERROR_INVALID_PARAMETER);
    count = static_cast<int>(units);
    return true;
}

}  // namespace

int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int bytes, LPWSTR wide, int units) {
    if (!CheckArguments(codePage, flags, MB_ERR_INVALID_CHARS, text, bytes, wide, units)) return 0;
    if (!CountUnits([&] { return strlen(text); }, bytes)) return 0;
    const bool strict = (flags & MB_ERR_INVALID_CHARS) != 0;
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(units > 0 ? wide : nullptr, units, &length, text, bytes, strict ? U_SENTINEL : Replacement,
                         nullptr, &status);
    return Result(length, units, status);
}

int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int units, LPSTR text, int bytes,
                               LPCSTR defaultChar, LPBOOL usedDefault) {
    if (!CheckArguments(codePage, flags, WC_ERR_INVALID_CHARS, wide, units, text, bytes)) return 0;
    // UTF-8 can express everything: a default character has no meaning for it.
    if (defaultChar != nullptr || usedDefault != nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!CountUnits([&] { return static_cast<size_t>(u_strlen(wide)); }, units)) return 0;
    const bool strict = (flags & WC_ERR_INVALID_CHARS) != 0;
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(bytes > 0 ? text : nullptr, bytes, &length, wide, units, strict ? U_SENTINEL : Replacement,
                       nullptr, &status);
    return Result(length, bytes, status);
}
