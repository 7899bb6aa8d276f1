#include "win32/text/utf.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <stdexcept>

namespace win32 {
namespace {

constexpr UChar32 Replacement = 0xFFFD;

// ICU counts in 32 bits, and one UTF-16 unit becomes at most three bytes.
constexpr size_t MaxUnits = 0x7FFFFFFF / 3 - 1;

int32_t Checked(size_t units) {
    if (units > MaxUnits) throw std::length_error("text too long to convert");
    return static_cast<int32_t>(units);
}

UChar32 NextFolded(std::u16string_view text, size_t& at) {
    UChar32 point = 0;
    U16_NEXT(text.data(), at, text.size(), point);
    if (point < 0x80) return point >= 'A' && point <= 'Z' ? point + ('a' - 'A') : point;
    return u_foldCase(point, U_FOLD_CASE_DEFAULT);
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
    const int32_t units = Checked(text.size());
    std::string bytes(text.size() * 3, '\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(bytes.data(), static_cast<int32_t>(bytes.size()), &length, text.data(), units, Replacement,
                       nullptr, &status);
    bytes.resize(U_SUCCESS(status) ? static_cast<size_t>(length) : 0);
    return bytes;
}

std::u16string ToUtf16(std::string_view text) {
    std::u16string units;
    AssignUtf16(units, text);
    return units;
}

void AssignUtf16(std::u16string& into, std::string_view text) {
    const int32_t bytes = Checked(text.size());
    into.resize(text.size());
    unsigned char seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        into[i] = byte;
        seen |= byte;
    }
    if (seen < 0x80) return;
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(into.data(), bytes, &length, text.data(), bytes, Replacement, nullptr, &status);
    into.resize(U_SUCCESS(status) ? static_cast<size_t>(length) : 0);
}

bool SameName(std::u16string_view a, std::u16string_view b) {
    size_t atA = 0;
    size_t atB = 0;
    while (atA < a.size() && atB < b.size())
        if (NextFolded(a, atA) != NextFolded(b, atB)) return false;
    return atA == a.size() && atB == b.size();
}

std::u16string FoldName(std::u16string_view name) {
    std::u16string folded;
    folded.reserve(name.size());
    for (size_t at = 0; at < name.size();) {
        const UChar32 point = NextFolded(name, at);
        if (U_IS_BMP(point)) {
            folded += static_cast<char16_t>(point);
        } else {
            folded += static_cast<char16_t>(U16_LEAD(point));
            folded += static_cast<char16_t>(U16_TRAIL(point));
        }
    }
    return folded;
}

}  // namespace win32
