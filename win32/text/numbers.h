// Numbers and bytes as text, both ways.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace win32 {

// Takes a decimal number without a sign off the front of the text. False: none stands there, or it does not fit.
template <class NUMBER>
bool TakeNumber(std::string_view& text, NUMBER& number) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

// The number that the whole text is, with a minus sign if the type has one; nothing: it is none, or it does not fit.
template <class NUMBER>
std::optional<NUMBER> ToNumber(std::string_view text) {
    NUMBER number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// A hexadecimal digit's value; -1: it is none.
constexpr int HexDigit(char16_t unit) {
    if (unit >= u'0' && unit <= u'9') return unit - u'0';
    const char16_t lower = unit | 0x20;
    return lower >= u'a' && lower <= u'f' ? lower - u'a' + 10 : -1;
}

// Appends the byte as two digits in lower case.
inline void AppendHex(std::string& text, unsigned char byte) {
    text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
}

}  // namespace win32
