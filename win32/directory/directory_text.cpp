#include "win32/directory/directory_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "win32/directory/directory.h"
#include "win32/security/sid.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr char HexDigits[] = "0123456789abcdef";

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsPlain(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

int HexValue(char c) {
    if (IsDigit(c)) return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string FoldValue(std::string_view value) { return ToUtf8(FoldName(ToUtf16(value))); }

// Reads one DN from its beginning to its end.
class DN_READER {
public:
    explicit DN_READER(std::string_view dn) : rest(dn) {}

    std::optional<std::vector<std::string>> Components() {
        std::vector<std::string> components;
        SkipBlanks();
        if (rest.empty()) return components;
        for (;;) {
            std::string component;
            if (!Component(component)) return std::nullopt;
            components.push_back(std::move(component));
            if (rest.empty()) return components;
            rest.remove_prefix(1);  // the comma
        }
    }

private:
    void SkipBlanks() {
        while (rest.starts_with(' ')) rest.remove_prefix(1);
    }

    // attribute=value, several of them joined by plus signs.
    bool Component(std::string& component) {
        for (;;) {
            SkipBlanks();
            const size_t equals = rest.find('=');
            if (equals == rest.npos || equals == 0) return false;
            std::string_view attribute = rest.substr(0, equals);
            while (attribute.ends_with(' ')) attribute.remove_suffix(1);
            const auto fits = [](char c) { return IsPlain(c) || c == '-' || c == '.'; };
            if (attribute.empty() || !std::all_of(attribute.begin(), attribute.end(), fits)) return false;
            rest.remove_prefix(equals + 1);
            std::string value;
            if (!Value(value)) return false;
            component += LowerName(attribute) + '=' + FoldValue(value);
            if (!rest.starts_with('+')) return true;
            component += '+';
            rest.remove_prefix(1);
        }
    }

    // Up to a comma or plus sign that is not escaped. A quotation mark inside a value is taken as it is: directories
    // send it escaped, people do not.
    bool Value(std::string& value) {
        SkipBlanks();
        size_t kept = 0;  // escaped blanks at the end are the value's own
        while (!rest.empty() && rest[0] != ',' && rest[0] != '+') {
            const char c = rest[0];
            rest.remove_prefix(1);
            if (c != '\\') {
                value += c;
                if (c != ' ') kept = value.size();
                continue;
            }
            if (!Escaped(value)) return false;
            kept = value.size();
        }
        value.resize(kept);
        return true;
    }

    // Two hexadecimal digits, or any other character that stands for itself.
    bool Escaped(std::string& value) {
        if (rest.empty()) return false;
        if (const int high = HexValue(rest[0]); high >= 0) {
            const int low = rest.size() > 1 ? HexValue(rest[1]) : -1;
            if (low < 0) return false;
            value += static_cast<char>(high << 4 | low);
            rest.remove_prefix(2);
            return true;
        }
        value += rest[0];
        rest.remove_prefix(1);
        return true;
    }

    std::string_view rest;
};

// The first slash that no backslash stands before.
size_t FindPlainSlash(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '/') return i;
        if (text[i] == '\\') ++i;
    }
    return text.npos;
}

std::string UnescapeSlashes(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            if (text[i + 1] != '/') plain += '\\';
            ++i;
        }
        plain += text[i];
    }
    return plain;
}

template <class NUMBER>
bool TakeNumber(std::string_view& text, NUMBER& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || text.empty() || !IsDigit(text[0])) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

}  // namespace

const std::vector<std::string>* DIRECTORY_ENTRY::Values(std::string_view attribute) const {
    const std::string wanted = LowerName(attribute);
    for (const auto& [name, values] : attributes)
        if (LowerName(name) == wanted) return &values;
    return nullptr;
}

std::string_view DIRECTORY_ENTRY::First(std::string_view attribute) const {
    const std::vector<std::string>* values = Values(attribute);
    return values != nullptr && !values->empty() ? std::string_view(values->front()) : std::string_view();
}

std::string LowerName(std::string_view name) {
    std::string lower(name);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
    return lower;
}

std::optional<std::vector<std::string>> SplitDn(std::string_view dn) { return DN_READER(dn).Components(); }

bool IsAtOrBelow(const std::vector<std::string>& dn, const std::vector<std::string>& base) {
    return dn.size() >= base.size() && std::equal(base.rbegin(), base.rend(), dn.rbegin());
}

std::string FilterText(std::string_view value) {
    std::string text;
    for (const char c : value) {
        if (IsPlain(c) || c == '.' || c == '-' || c == '_' || c == '@' || c == '$' || c == ' ') {
            text += c;
            continue;
        }
        const unsigned byte = static_cast<unsigned char>(c);
        text += {'\\', HexDigits[byte >> 4], HexDigits[byte & 15]};
    }
    return text;
}

bool IsServerName(std::string_view server) {
    const auto fits = [](char c) {
        return IsPlain(c) || c == '.' || c == '-' || c == '_' || c == ':' || c == '[' || c == ']';
    };
    return !server.empty() && server.size() <= 255 && std::all_of(server.begin(), server.end(), fits);
}

std::optional<ADS_PATH> ParseAdsPath(std::string_view path) {
    constexpr std::string_view slashes = "//";
    if (!path.starts_with(slashes)) return std::nullopt;
    path.remove_prefix(slashes.size());
    ADS_PATH parsed;
    if (const size_t slash = FindPlainSlash(path); slash != path.npos) {
        parsed.server = path.substr(0, slash);
        if (!IsServerName(parsed.server)) return std::nullopt;
        path.remove_prefix(slash + 1);
    }
    if (FindPlainSlash(path) != path.npos) return std::nullopt;
    parsed.dn = UnescapeSlashes(path);
    const std::optional<std::vector<std::string>> components = SplitDn(parsed.dn);
    if (!components || components->empty()) return std::nullopt;
    return parsed;
}

std::optional<std::string> SidFromText(std::string_view text) {
    constexpr std::string_view prefix = "S-1-";
    if (text.size() < prefix.size() || LowerName(text.substr(0, prefix.size())) != LowerName(prefix))
        return std::nullopt;
    text.remove_prefix(prefix.size());
    uint64_t authority = 0;
    if (!TakeNumber(text, authority) || authority > 0xFFFFFFFF) return std::nullopt;
    std::vector<DWORD> subs;
    while (!text.empty()) {
        DWORD sub = 0;
        if (!text.starts_with('-') || subs.size() == MaxSubAuthorities) return std::nullopt;
        text.remove_prefix(1);
        if (!TakeNumber(text, sub)) return std::nullopt;
        subs.push_back(sub);
    }
    const SID_VALUE sid(authority, std::move(subs));
    std::string bytes(sid.Bytes(), '\0');
    sid.Store(bytes.data());
    return bytes;
}

std::optional<std::string> SidToText(std::string_view bytes) {
    SID_VALUE sid;
    if (bytes.size() < sizeof(SID_HEADER)) return std::nullopt;
    if (bytes.size() != sizeof(SID_HEADER) + static_cast<BYTE>(bytes[1]) * sizeof(DWORD)) return std::nullopt;
    if (!sid.Load(bytes.data())) return std::nullopt;
    std::string text = "S-1-" + std::to_string(sid.Authority());
    for (const DWORD sub : sid.Subs()) text += "-" + std::to_string(sub);
    return text;
}

std::optional<ATTRIBUTE_RANGE> ParseRange(std::string_view attribute) {
    constexpr std::string_view option = ";range=";
    const size_t at = LowerName(attribute).find(option);
    if (at == attribute.npos) return std::nullopt;
    attribute.remove_prefix(at + option.size());
    ATTRIBUTE_RANGE range{};
    if (!TakeNumber(attribute, range.first) || !attribute.starts_with('-')) return std::nullopt;
    attribute.remove_prefix(1);
    if (attribute == "*") return range;
    unsigned long last = 0;
    if (!TakeNumber(attribute, last) || !attribute.empty() || last < range.first) return std::nullopt;
    range.last = last;
    return range;
}

}  // namespace win32
