// The process environment: names without regard to case, as Windows has them, values as UTF-16.
#include <windows.h>

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "win32/text/last_error.h"
#include "win32/text/utf.h"

extern char** environ;

namespace {

// Two variables may differ in case alone on Linux: the exact name wins, then the first that matches.
std::optional<std::u16string> Variable(std::u16string_view name) {
    if (name.empty() || name.find(u'=') != std::u16string_view::npos) return std::nullopt;
    const std::string exact = win32::ToUtf8(name);
    const char* found = nullptr;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const char* sign = strchr(*entry, '=');
        if (sign == nullptr) continue;
        const std::string_view candidate(*entry, static_cast<size_t>(sign - *entry));
        if (candidate == exact) return win32::ToUtf16(sign + 1);
        if (found == nullptr && win32::SameName(win32::ToUtf16(candidate), name)) found = sign + 1;
    }
    if (found == nullptr) return std::nullopt;
    return win32::ToUtf16(found);
}

void Copy(LPWSTR buffer, const std::u16string& text) {
    memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(char16_t));
}

std::u16string Expand(std::u16string_view text) {
    std::u16string expanded;
    while (!text.empty()) {
        const size_t open = text.find(u'%');
        const size_t close = open == text.npos ? text.npos : text.find(u'%', open + 1);
        if (close == text.npos) break;
        expanded += text.substr(0, open);
        if (const auto value = Variable(text.substr(open + 1, close - open - 1))) {
            expanded += *value;
            text.remove_prefix(close + 1);
        } else {
            // Not a variable: kept, and its second percent sign may open the next name.
            expanded += text.substr(open, close - open);
            text.remove_prefix(close);
        }
    }
    return expanded += text;
}

}  // namespace

DWORD WINAPI ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR buffer, DWORD units) {
    if (text == nullptr) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    const std::u16string expanded = Expand(text);
    if (buffer != nullptr && expanded.size() < units) Copy(buffer, expanded);
    return static_cast<DWORD>(expanded.size() + 1);
}

DWORD WINAPI GetEnvironmentVariableW(LPCWSTR name, LPWSTR buffer, DWORD units) {
    const auto value = name == nullptr ? std::nullopt : Variable(name);
    if (!value) return static_cast<DWORD>(win32::FailWith(ERROR_ENVVAR_NOT_FOUND));
    if (buffer == nullptr || value->size() >= units) return static_cast<DWORD>(value->size() + 1);
    Copy(buffer, *value);
    SetLastError(ERROR_SUCCESS);  // an empty value is no failure
    return static_cast<DWORD>(value->size());
}
