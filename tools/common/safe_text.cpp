#include "tools/common/safe_text.h"

#include <unicode/utf8.h>

#include <cstdio>
#include <nlohmann/json.hpp>

namespace tools {
namespace {

// Controls, line and paragraph separators, marks of direction, and what has no width.
bool IsUnsafe(UChar32 c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0x061C || c == 0xFEFF;
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
            char escaped[12];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
            safe += escaped;
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
