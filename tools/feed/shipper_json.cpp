#include "tools/feed/shipper_json.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools::feed {
namespace {

// The names of the strings by position; after a bar, the name by which newer shippers know the same value.
using POSITIONS = std::vector<const char*>;

const POSITIONS LogonNames = {"SubjectUserSid",
                              "SubjectUserName",
                              "SubjectDomainName",
                              "SubjectLogonId",
                              "TargetUserSid",
                              "TargetUserName",
                              "TargetDomainName",
                              "TargetLogonId",
                              "LogonType",
                              "LogonProcessName",
                              "AuthenticationPackageName",
                              "WorkstationName",
                              "LogonGuid",
                              "TransmittedServices",
                              "LmPackageName",
                              "KeyLength",
                              "ProcessId",
                              "ProcessName",
                              "IpAddress",
                              "IpPort",
                              "ImpersonationLevel",
                              "RestrictedAdminMode",
                              "TargetOutboundUserName",
                              "TargetOutboundDomainName",
                              "VirtualAccount",
                              "TargetLinkedLogonId",
                              "ElevatedToken"};
const POSITIONS LogoffNames = {"TargetUserSid", "TargetUserName", "TargetDomainName", "TargetLogonId", "LogonType"};
const POSITIONS OldLogonNames = {"UserName|TargetUserName",
                                 "Domain|TargetDomainName",
                                 "LogonId|TargetLogonId",
                                 "LogonType",
                                 "LogonProcess|LogonProcessName",
                                 "AuthenticationPackage|AuthenticationPackageName",
                                 "WorkstationName",
                                 "LogonGuid",
                                 "CallerUserName|SubjectUserName",
                                 "CallerDomain|SubjectDomainName",
                                 "CallerLogonId|SubjectLogonId",
                                 "CallerProcessId|ProcessId",
                                 "TransitedServices|TransmittedServices",
                                 "SourceNetworkAddress|IpAddress",
                                 "SourcePort|IpPort"};
const POSITIONS OldLogoffNames = {"UserName|TargetUserName", "Domain|TargetDomainName", "LogonId|TargetLogonId",
                                  "LogonType"};
const POSITIONS OldTicketNames = {"UserName|TargetUserName",
                                  "UserDomain|TargetDomainName",
                                  "ServiceName",
                                  "ServiceId|ServiceSid",
                                  "TicketOptions",
                                  "TicketEncryptionType",
                                  "ClientAddress|IpAddress",
                                  "FailureCode|Status",
                                  "LogonGuid",
                                  "TransitedServices|TransmittedServices"};

const POSITIONS* NamesOf(unsigned long long id) {
    switch (id) {
        case 4624:
            return &LogonNames;
        case 4634:
            return &LogoffNames;
        case 528:
        case 540:
            return &OldLogonNames;
        case 538:
            return &OldLogoffNames;
        case 673:
            return &OldTicketNames;
        default:
            return nullptr;
    }
}

// The first of the names that has a value.
std::string_view First(const JSON_FIELDS& fields, std::initializer_list<JSON_NAME> names) {
    for (const JSON_NAME& each : names)
        if (const std::string_view text = fields.Text(each); !text.empty()) return text;
    return {};
}

// Where the event's values stand: each in its place in a list, or by their names, before which shippers put one of
// these. Events whose values have no names are shipped as param1, param2, ...
class EVENT_VALUES {
public:
    explicit EVENT_VALUES(const JSON_FIELDS& ofLine) : fields(ofLine), list(fields.List("StringInserts")) {
        if (list.empty()) list = fields.List("string_inserts");
        if (!list.empty()) return;
        for (const std::string_view each : {"winlog.event_data.", "event_data.", "Event.EventData.", "EventData.", ""})
            if (fields.HasPrefix(each)) prefixes[count++] = each;
    }

    size_t Count(const POSITIONS& names) const { return list.empty() ? names.size() : list.size(); }

    // `name` may be two, parted by a bar.
    JSON_VALUE Value(size_t at, std::string_view name) {
        if (!list.empty()) return list[at];
        const size_t bar = std::min(name.find('|'), name.size());
        JSON_VALUE value = Named(name.substr(0, bar));
        if (value.text.empty() && bar < name.size()) value = Named(name.substr(bar + 1));
        return value.text.empty() ? Named("param" + std::to_string(at + 1)) : value;
    }

private:
    JSON_VALUE Named(std::string_view name) {
        for (size_t i = 0; i < count; ++i) {
            dotted.assign(prefixes[i]).append(name);
            if (const JSON_VALUE value = fields.Value(std::string_view(dotted)); !value.text.empty()) return value;
        }
        return {};
    }

    const JSON_FIELDS& fields;
    std::span<const JSON_VALUE> list;
    std::array<std::string_view, 5> prefixes;
    size_t count = 0;
    std::string dotted;
};

// Numbers that Windows shows in hexadecimal digits: shippers that know their type, but not their form, write decimals.
bool IsHexadecimal(std::string_view name) {
    name = name.substr(0, name.find('|'));
    return name.ends_with("LogonId") || name.ends_with("ProcessId");
}

void AssignValue(std::u16string& string, const JSON_VALUE& value, std::string_view name) {
    if (value.kind == JSON_KIND::NUMBER && IsHexadecimal(name))
        if (const auto number = ParseNumber(value.text, ~0ull)) {
            std::array<char, 18> digits = {'0', 'x'};
            const auto end = std::to_chars(digits.data() + 2, digits.data() + digits.size(), *number, 16).ptr;
            return win32::AssignUtf16(string, std::string_view(digits.data(), end));
        }
    win32::AssignUtf16(string, value.text.empty() ? "-" : value.text);
}

// The strings in position, "-" where there is none. False: there is no value of the event at all.
bool FillStrings(const JSON_FIELDS& fields, const POSITIONS& names, win32::NEW_EVENT& event) {
    EVENT_VALUES values(fields);
    bool any = false;
    event.Begin(values.Count(names));
    for (size_t i = 0; i < event.strings.size(); ++i) {
        const std::string_view name = i < names.size() ? names[i] : "";
        const JSON_VALUE value = values.Value(i, name);
        any = any || !value.text.empty();
        AssignValue(event.strings[i], value, name);
    }
    return any;
}

bool IsSecurityLog(std::string_view log) { return log.empty() || win32::SameName(win32::ToUtf16(log), u"Security"); }

bool IsFailure(const JSON_FIELDS& fields) {
    if (fields.Text("event.outcome") == "failure" || fields.Text("EventType") == "AUDIT_FAILURE") return true;
    std::string keywords;
    for (const JSON_NAME name : {"winlog.keywords", "keywords", "Event.System.Keywords", "Keywords"}) {
        keywords = fields.Text(name);
        for (const JSON_VALUE& each : fields.List(name)) keywords.append(keywords.empty() ? "" : ",").append(each.text);
        if (!keywords.empty()) break;
    }
    constexpr unsigned long long AuditFailure = 0x0010000000000000;
    // The bits as a number, of which shippers write the topmost as a sign, too.
    const bool negative = keywords.starts_with('-');
    const auto bits = ParseNumber(std::string_view(keywords).substr(negative), ~0ull);
    if (bits) return ((negative ? 0 - *bits : *bits) & AuditFailure) != 0;
    return keywords.find("Audit Failure") != std::string::npos;
}

LINE_READER::RESULT SkipEvent(unsigned long long id, std::string& reason) {
    reason = "event " + std::to_string(id) + ", which is no logon";
    return LINE_READER::SKIPPED;
}

constexpr const char* AnotherLog = "an event of another log";

}  // namespace

LINE_READER::RESULT SHIPPER_JSON::Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) {
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) return reason = "a blank line", SKIPPED;
    if (!fields.Read(line, reason)) return UNREADABLE;
    if (const std::string_view xml = fields.Text("System"); xml.starts_with("<Event"))
        return ReadXml(xml, event, reason);
    const std::string_view idText = First(
        fields, {"winlog.event_id", "event_id", "Event.System.EventID", "EventID", "EventId", "Id", "event.code"});
    const auto id = ParseNumber(idText, MAXDWORD);
    if (!id) {
        reason = idText.empty() ? "no event ID" : "an event ID that is no number";
        return UNREADABLE;
    }
    const POSITIONS* const names = NamesOf(*id);
    if (names == nullptr) return SkipEvent(*id, reason);
    if (!IsSecurityLog(
            First(fields, {"winlog.channel", "log_name", "Event.System.Channel", "Channel", "channel", "LogName"})))
        return reason = AnotherLog, SKIPPED;
    const auto time =
        ParseShippedTime(First(fields, {"@timestamp", "winlog.time_created", "TimeCreated", "TimeCreated.SystemTime",
                                        "Event.System.TimeCreated.SystemTime", "EventTime", "timestamp"}));
    if (!FillStrings(fields, *names, event) || !time) {
        reason = time ? "none of the event's values" : "no usable time";
        return UNREADABLE;
    }
    event.id = static_cast<DWORD>(*id);
    event.type = IsFailure(fields) ? EVENTLOG_AUDIT_FAILURE : EVENTLOG_AUDIT_SUCCESS;
    event.generated = *time;
    const std::string_view source = First(fields, {"winlog.provider_name", "source_name", "Event.System.Provider.Name",
                                                   "SourceName", "ProviderName", "provider_name"});
    const std::string_view host = First(fields, {"winlog.computer_name", "computer_name", "Event.System.Computer",
                                                 "Computer", "computer", "Hostname", "MachineName", "host.name"});
    win32::AssignUtf16(event.source, source.empty() ? "Microsoft-Windows-Security-Auditing" : source.substr(0, 256));
    if (host.empty() && computer.empty()) computer = OwnComputerName();
    event.computer = computer;
    if (!host.empty()) win32::AssignUtf16(event.computer, host.substr(0, 256));
    return RECORD;
}

// The XML may be of the event's System part alone: then the values are in the list beside it.
LINE_READER::RESULT SHIPPER_JSON::ReadXml(std::string_view xml, win32::NEW_EVENT& event, std::string& reason) {
    if (!xmlParser.Parse(xml, {}, event)) {
        reason = "the event's XML: " + xmlParser.Reason();
        return UNREADABLE;
    }
    const POSITIONS* const names = NamesOf(event.id);
    if (names == nullptr) return SkipEvent(event.id, reason);
    if (!IsSecurityLog(xmlParser.Channel())) return reason = AnotherLog, SKIPPED;
    if (!event.strings.empty()) return RECORD;
    win32::NEW_EVENT values;
    if (!FillStrings(fields, *names, values)) {
        reason = "none of the event's values";
        return UNREADABLE;
    }
    event.strings.swap(values.strings);
    return RECORD;
}

}  // namespace tools::feed
