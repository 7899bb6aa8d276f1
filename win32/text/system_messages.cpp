#include "win32/text/system_messages.h"

#include <algorithm>
#include <iterator>

namespace win32 {
namespace {

struct SYSTEM_MESSAGE_ROW {
    DWORD code;
    const char16_t* text;
};

constexpr SYSTEM_MESSAGE_ROW Messages[] = {
#define SYSTEM_MESSAGE(code, text) {code, TEXT(text)},
#include "win32/text/system_messages.inc"
#undef SYSTEM_MESSAGE
};

constexpr bool CodeBefore(const SYSTEM_MESSAGE_ROW& a, const SYSTEM_MESSAGE_ROW& b) { return a.code < b.code; }
static_assert(std::is_sorted(std::begin(Messages), std::end(Messages), CodeBefore));

const char16_t* Find(DWORD code) {
    const auto* row =
        std::lower_bound(std::begin(Messages), std::end(Messages), SYSTEM_MESSAGE_ROW{code, nullptr}, CodeBefore);
    return row != std::end(Messages) && row->code == code ? row->text : nullptr;
}

}  // namespace

const char16_t* SystemMessage(DWORD code) {
    constexpr DWORD win32Facility = 0x8007;
    if (const char16_t* text = Find(code)) return text;
    return HIWORD(code) == win32Facility ? Find(LOWORD(code)) : nullptr;
}

}  // namespace win32
