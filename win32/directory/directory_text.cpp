#include "win32/directory/directory_text.h"

#include <ldap.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "win32/text/numbers.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

// One AVA (attribute and value assertion) in the form in which equal ones are equal texts.
std::string ComponentPart(const LDAPAVA& part) {
    const std::string_view value(part.la_value.bv_val, part.la_value.bv_len);
    return LowerName({part.la_attr.bv_val, part.la_attr.bv_len}) + '=' + ToUtf8(FoldName(ToUtf16(value)));
}

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

}  // namespace

std::string LowerName(std::string_view name) {
    std::string lower(name);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
    return lower;
}

std::optional<std::vector<std::string>> SplitDn(std::string_view dn) {
    const std::string text(dn);
    LDAPDN parsed = nullptr;
    if (text.find('\0') != text.npos || ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return std::nullopt;
    const std::unique_ptr<LDAPRDN[], decltype(&ldap_dnfree)> owner(parsed, ldap_dnfree);
    std::vector<std::string> components;
    for (size_t i = 0; parsed != nullptr && parsed[i] != nullptr; ++i) {
        std::string& component = components.emplace_back();
        for (size_t part = 0; parsed[i][part] != nullptr; ++part)
            component += (part > 0 ? "+" : "") + ComponentPart(*parsed[i][part]);
    }
    return components;
}

std::string SidDn(std::string_view sid) {
    std::string dn = "<SID=";
    for (const char byte : sid) AppendHex(dn, static_cast<unsigned char>(byte));
    return dn + ">";
}

bool IsAtOrBelow(const std::vector<std::string>& dn, const std::vector<std::string>& base) {
    return dn.size() >= base.size() && std::equal(base.rbegin(), base.rend(), dn.rbegin());
}

std::string FilterText(std::string_view value) {
    berval bytes{value.size(), const_cast<char*>(value.data())}, escaped{};
    std::string text;
    if (ldap_bv2escaped_filter_value(&bytes, &escaped) == 0) text.assign(escaped.bv_val, escaped.bv_len);
    ber_memfree(escaped.bv_val);
    return text;
}

bool IsServerName(std::string_view server) {
    const auto fits = [](char c) {
        return isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_' || c == ':' || c == '[' ||
               c == ']';
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
