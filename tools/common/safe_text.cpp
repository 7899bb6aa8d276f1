#include "tools/common/safe_text.h"

#include <unicode/uchar.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <cstdio>
#include <nlohmann/json.hpp>

namespace tools {
namespace {

// Controls, line and paragraph separators, and what shows nothing: marks of direction, fillers, tags.
bool IsUnsafe(UChar32 c) {
    if (c < 0xA0) return c < 0x20 || c >= 0x7F;
    return c == 0x2028 || c == 0x2029 || u_hasBinaryProperty(c, UCHAR_DEFAULT_IGNORABLE_CODE_POINT);
}

void AppendEscaped(UChar32 c, std::string& text) {
    char escaped[16];
    if (U_IS_BMP(c))
        std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
    else
        std::snprintf(escaped, sizeof(escaped), "\\u%04x\\u%04x", static_cast<unsigned>(U16_LEAD(c)),
                      static_cast<unsigned>(U16_TRAIL(c)));
    text += escaped;
}

}  // namespace

std::string SafeText(std::string_view text) {
    std::string safe;
    safe.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t begin = at;
        UChar32 c = 0;
        U8_NEXT(text.data(), at, text.size(), c);
        if (c < 0) {
            safe += "\xEF\xBF\xBD";
        } else if (IsUnsafe(c)) {
            AppendEscaped(c, safe);
        } else {
            safe += text.substr(begin, at - begin);
        }
    }
    return safe;
}

std::string SafeJson(const nlohmann::ordered_json& value) {
    return SafeText(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

}  // namespace tools
