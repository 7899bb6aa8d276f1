// The plain text calls: length, copy, upper case.
#include <unicode/uchar.h>
#include <unicode/utf16.h>
#include <windows.h>

#include <cstring>
#include <string>

namespace {

// Only what keeps the text's length changes case, as in CharUpperW: no letter becomes two.
UChar32 Upper(UChar32 point) {
    const UChar32 upper = u_toupper(point);
    return U16_LENGTH(upper) == U16_LENGTH(point) ? upper : point;
}

}  // namespace

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
