#include "win32/directory/directory_text.h"

#include <ldap.h>

#include <algorithm>
#include <cctype>
#include <memory>

#include "win32/text/numbers.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; }

// One AVA (attribute and value assertion) in the form in which equal ones are equal texts.
std::string ComponentPart(const LDAPAVA& part) {
    const std::string_view value(part.la_value.bv_val, part.la_value.bv_len);
    return LowerName({part.la_attr.bv_val, part.la_attr.bv_len}) + '=' + ToUtf8(FoldName(ToUtf16(value)));
}

using PARSED_DN = std::unique_ptr<LDAPRDN[], decltype(&ldap_dnfree)>;

// False: it is not a DN. The empty one may become null.
bool Parse(std::string_view dn, PARSED_DN& parsed) {
    const std::string text(dn);
    LDAPDN components = nullptr;
    if (text.find('\0') != text.npos || ldap_str2dn(text.c_str(), &components, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return false;
    parsed.reset(components);
    return true;
}

// The first slash that no backslash stands before.
size_t FindPlainSlash(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '/') return i;
        if (text[i] == '\\') ++i;
    }
    return text.npos;
}

bool IsSidInHex(std::string_view digits) {
    constexpr size_t least = 2 * 8, most = 2 * 68;  // without sub-authorities, and with fifteen
    const auto isHex = [](char c) { return HexDigit(static_cast<unsigned char>(c)) >= 0; };
    return digits.size() >= least && digits.size() <= most && digits.size() % 2 == 0 &&
           std::all_of(digits.begin(), digits.end(), isHex);
}

std::string UnescapeSlashes(std::string_view text) {
    if (text.find('\\') == text.npos) return std::string(text);
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
    std::transform(lower.begin(), lower.end(), lower.begin(), Lower);
    return lower;
}

bool IsSameAttribute(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return Lower(x) == Lower(y); });
}

std::optional<std::vector<std::string>> SplitDn(std::string_view dn) {
    PARSED_DN parsed(nullptr, ldap_dnfree);
    if (!Parse(dn, parsed)) return std::nullopt;
    std::vector<std::string> components;
    for (size_t i = 0; parsed != nullptr && parsed[i] != nullptr; ++i) {
        std::string& component = components.emplace_back();
        for (size_t part = 0; parsed[i][part] != nullptr; ++part) {
            if (part > 0) component += '+';
            component += ComponentPart(*parsed[i][part]);
        }
    }
    return components;
}

bool IsDn(std::string_view text) {
    thread_local std::string last;  // that was one: a group's is asked for its name, and again for its object
    if (!text.empty() && text == last) return true;
    PARSED_DN parsed(nullptr, ldap_dnfree);
    if (!Parse(text, parsed) || parsed == nullptr || parsed[0] == nullptr) return false;
    last = text;
    return true;
}

std::string SidDn(std::string_view sid) {
    std::string dn = "<SID=";
    for (const char byte : sid) AppendHex(dn, static_cast<unsigned char>(byte));
    return dn + ">";
}

EXTENDED_DN ParseExtendedDn(std::string_view text) {
    constexpr std::string_view sidBegin = "<SID=", end = ">;";
    EXTENDED_DN parsed;
    while (text.starts_with('<')) {
        const size_t length = text.find(end);
        if (length == text.npos) break;
        const std::string_view part = text.substr(0, length);
        if (part.starts_with(sidBegin) && IsSidInHex(part.substr(sidBegin.size())))
            parsed.sid = std::string(sidBegin) + LowerName(part.substr(sidBegin.size())) + '>';
        text.remove_prefix(length + end.size());
    }
    parsed.dn = text;
    return parsed;
}

std::string_view DomainPart(std::string_view dn) {
    bool begins = true;
    for (size_t at = 0; at < dn.size(); ++at) {
        if (begins && IsSameAttribute(dn.substr(at, 3), "dc=")) return dn.substr(at);
        begins = dn[at] == ',' || dn[at] == ';' || (begins && dn[at] == ' ');
        if (dn[at] == '\\') ++at;  // what follows stands for itself
    }
    return {};
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
    if (!IsDn(parsed.dn)) return std::nullopt;
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
