// The plain text calls: conversion, length, copy, upper case, and the memory that texts are handed out in.
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "win32/text/last_error.h"

namespace {

constexpr DWORD InvalidFlags = 1004;     // ERROR_INVALID_FLAGS
constexpr UChar32 Replacement = 0xFFFD;  // in the place of what is malformed

// Checks what both directions have in common; false: last error set.
bool CheckArguments(UINT codePage, DWORD flags, const void* from, int count, const void* to, int room) {
    if (codePage != CP_UTF8) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (flags != 0) return win32::FailWith(InvalidFlags);
    if (from == nullptr || count == 0 || count < -1 || room < 0 || (to == nullptr && room > 0) || from == to)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    return true;
}

// room 0 asks for the size, which ICU calls an overflow.
int Result(int32_t length, int room, UErrorCode status) {
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

// Only what keeps the text's length changes case, as in CharUpperW: no letter becomes two.
UChar32 Upper(UChar32 point) {
    const UChar32 upper = u_toupper(point);
    return U16_LENGTH(upper) == U16_LENGTH(point) ? upper : point;
}

}  // namespace

// UTF-8 is the one narrow code page, and what is malformed is replaced.
int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int bytes, LPWSTR wide, int units) {
    if (!CheckArguments(codePage, flags, text, bytes, wide, units)) return 0;
    if (!CountUnits([&] { return strlen(text); }, bytes)) return 0;
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(units > 0 ? wide : nullptr, units, &length, text, bytes, Replacement, nullptr, &status);
    return Result(length, units, status);
}

int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int units, LPSTR text, int bytes,
                               LPCSTR defaultChar, LPBOOL usedDefault) {
    if (!CheckArguments(codePage, flags, wide, units, text, bytes)) return 0;
    // UTF-8 can express everything: a default character has no meaning for it.
    if (defaultChar != nullptr || usedDefault != nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!CountUnits([&] { return static_cast<size_t>(u_strlen(wide)); }, units)) return 0;
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(bytes > 0 ? text : nullptr, bytes, &length, wide, units, Replacement, nullptr, &status);
    return Result(length, bytes, status);
}

int WINAPI lstrlenW(LPCWSTR text) {
    return text == nullptr ? 0 : static_cast<int>(std::char_traits<char16_t>::length(text));
}

LPWSTR WINAPI lstrcpyW(LPWSTR to, LPCWSTR from) {
    if (to == nullptr || from == nullptr) return nullptr;
    memmove(to, from, (std::char_traits<char16_t>::length(from) + 1) * sizeof(char16_t));
    return to;
}

LPWSTR WINAPI CharUpperW(LPWSTR text) {
    const auto value = reinterpret_cast<ULONG_PTR>(text);
    if ((value >> 16) == 0) return reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(Upper(static_cast<WCHAR>(value))));
    const size_t length = std::char_traits<char16_t>::length(text);
    for (size_t at = 0; at < length;) {
        size_t next = at;
        UChar32 point = 0;
        U16_NEXT(text, next, length, point);
        point = Upper(point);
        U16_APPEND_UNSAFE(text, at, point);
    }
    return text;
}
