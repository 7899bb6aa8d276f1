#include "tools/keldwick-server/report_lines.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

// Within quotes the quote that ends a name is escaped, too.
std::string Quoted(const std::u16string& text) {
    std::string bytes = SafeText(win32::ToUtf8(text));
    for (size_t at = 0; (at = bytes.find('"', at)) != bytes.npos;) bytes.replace(at, 1, "\\u0022");
    return '"' + bytes + '"';
}

void AppendName(const char* label, const std::u16string& name, const std::u16string& dn, std::string& line) {
    if (name.empty()) return;
    line += std::string("  ") + label + ' ' + Quoted(name);
    if (!dn.empty()) line += " (" + Quoted(dn) + ')';
}

}  // namespace

std::string IsoTime(TIME time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    char fraction[8];
    std::snprintf(fraction, sizeof(fraction), ".%03uZ",
                  static_cast<unsigned>(std::chrono::floor<std::chrono::milliseconds>(time - seconds).count() % 1000));
    std::string text = IsoTime(static_cast<DWORD>(seconds.time_since_epoch().count()));
    text.replace(text.size() - 1, 1, fraction);
    return text;
}

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

nlohmann::ordered_json ConnectionObject(const CONNECTION& from) {
    return {{"address", from.address},
            {"port", from.port},
            {"connection", from.number},
            {"transport", from.secure ? "tls" : "tcp"},
            {"connected", IsoTime(from.since)}};
}

nlohmann::ordered_json ReportObject(const CONNECTION& from, const REPORT& report) {
    const REQUEST& request = report.request;
    nlohmann::ordered_json line;
    line["kind"] = KindName(request.kind);
    line["id"] = request.id;
    line["user"] = win32::ToUtf8(request.user);
    line["user_dn"] = win32::ToUtf8(request.userDn);
    line["user_ou"] = win32::ToUtf8(request.userOu);
    line["computer"] = win32::ToUtf8(request.computer);
    line["computer_dn"] = win32::ToUtf8(request.computerDn);
    line["computer_ou"] = win32::ToUtf8(request.computerOu);
    line["address"] = request.address;
    line["groups"] = nlohmann::ordered_json::array();
    for (const GROUP& group : request.groups)
        line["groups"].push_back({{"domain", win32::ToUtf8(group.domain)}, {"dn", win32::ToUtf8(group.dn)}});
    line["os"] = {{"code", request.osCode}, {"major", request.osMajor}, {"minor", request.osMinor}};
    line["length"] = request.length;
    line["time"] = IsoTime(report.when);
    line["from"] = ConnectionObject(from);
    line["status"] = report.status;
    return line;
}

std::string JsonLine(const CONNECTION& from, const REPORT& report) { return SafeJson(ReportObject(from, report)); }

}  // namespace tools
