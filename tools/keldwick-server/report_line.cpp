#include "report_line.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/text/safe_text.h"

namespace keldwick_server {
namespace {

constexpr char32_t Replacement = 0xFFFD;

bool IsHigh(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLow(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// The characters of the text; half a surrogate pair becomes U+FFFD.
std::u32string Characters(const std::u16string& text) {
    std::u32string characters;
    characters.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
            characters += static_cast<char32_t>(0x10000 + ((text[i] - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else {
            characters += IsHigh(text[i]) || IsLow(text[i]) ? Replacement : text[i];
        }
    }
    return characters;
}

void AppendUtf8(char32_t c, std::string& bytes) {
    if (c < 0x80) {
        bytes += static_cast<char>(c);
        return;
    }
    const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    constexpr unsigned leads[] = {0, 0xC0, 0xE0, 0xF0};
    bytes += static_cast<char>(leads[more] | c >> (6 * more));
    for (int i = more - 1; i >= 0; --i) bytes += static_cast<char>(0x80 | (c >> (6 * i) & 0x3F));
}

std::string Utf8(const std::u16string& text) {
    std::string bytes;
    for (const char32_t c : Characters(text)) AppendUtf8(c, bytes);
    return bytes;
}

// Within quotes the quote that ends a name is escaped, too.
std::string Quoted(const std::u16string& text) {
    std::string bytes = SafeText(Utf8(text));
    for (size_t at = 0; (at = bytes.find('"', at)) != bytes.npos;) bytes.replace(at, 1, "\\u0022");
    return '"' + bytes + '"';
}

const char* KindName(REQUEST::KIND kind) {
    switch (kind) {
        case REQUEST::KIND::Logon:
            return "logon";
        case REQUEST::KIND::Heartbeat:
            return "heartbeat";
        case REQUEST::KIND::Logoff:
            break;
    }
    return "logoff";
}

void AppendName(const char* label, const std::u16string& name, const std::u16string& dn, std::string& line) {
    if (name.empty()) return;
    line += std::string("  ") + label + ' ' + Quoted(name);
    if (!dn.empty()) line += " (" + Quoted(dn) + ')';
}

}  // namespace

std::string TextLine(const REQUEST& request) {
    char start[96];
    std::snprintf(start, sizeof(start), "%-9s #%u  %s", KindName(request.kind), request.id,
                  request.address.empty() ? "no address" : request.address.c_str());
    std::string line = start;
    AppendName("user", request.user, request.userDn, line);
    AppendName("computer", request.computer, request.computerDn, line);
    if (request.groupsStated != 0) line += "  groups " + std::to_string(request.groupsStated);
    return line + "  " + std::to_string(request.length) + " bytes";
}

std::string JsonLine(const REQUEST& request) {
    nlohmann::ordered_json line;
    line["kind"] = KindName(request.kind);
    line["id"] = request.id;
    line["user"] = Utf8(request.user);
    line["user_dn"] = Utf8(request.userDn);
    line["user_ou"] = Utf8(request.userOu);
    line["computer"] = Utf8(request.computer);
    line["computer_dn"] = Utf8(request.computerDn);
    line["computer_ou"] = Utf8(request.computerOu);
    line["address"] = request.address;
    line["groups"] = nlohmann::ordered_json::array();
    for (const GROUP& group : request.groups)
        line["groups"].push_back({{"domain", Utf8(group.domain)}, {"dn", Utf8(group.dn)}});
    line["os"] = {{"code", request.osCode}, {"major", request.osMajor}, {"minor", request.osMinor}};
    line["length"] = request.length;
    return SafeJson(line);
}

}  // namespace keldwick_server
