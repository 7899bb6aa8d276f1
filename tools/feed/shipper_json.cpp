#include "tools/feed/shipper_json.h"

#include <algorithm>
#include <map>

#include "tools/common/values.h"
#include "win32/text/utf.h"

using nlohmann::json;

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

constexpr size_t MostValues = 2000;

// The object's scalars by their dotted names: {"a":{"b":1}} and {"a.b":1} are the same here.
class FIELDS {
public:
    explicit FIELDS(const json& object) { Gather(object, "", 0); }

    bool TooMany() const { return values.size() > MostValues; }  // not all are here

    // The first of the names that has a value.
    std::string First(std::initializer_list<const char*> names) const {
        for (const char* each : names)
            if (const auto found = values.find(each); found != values.end() && !found->second.empty())
                return found->second;
        return {};
    }

    // The event's value: where shippers put it, in this order.
    std::string Value(const std::string& name) const {
        for (const char* place : {"winlog.event_data.", "event_data.", "Event.EventData.", "EventData.", ""})
            if (const auto found = values.find(place + name); found != values.end()) return found->second;
        return {};
    }

private:
    void Gather(const json& object, const std::string& prefix, int depth) {
        constexpr int MostNested = 6;
        constexpr size_t LongestName = 200;
        for (const auto& [name, value] : object.items()) {
            if (TooMany()) return;
            if (prefix.size() + name.size() > LongestName) continue;  // longer than any that is asked for
            if (value.is_array() && (name.ends_with("keywords") || name.ends_with("Keywords"))) {
                std::string& words = values[prefix + name];
                for (const json& each : value) words += (words.empty() ? "" : ",") + ScalarText(each);
            } else if (value.is_object()) {
                if (depth < MostNested) Gather(value, prefix + name + ".", depth + 1);
            } else if (std::string text = ScalarText(value); !text.empty()) {
                values[prefix + name] = std::move(text);
            }
        }
    }

    std::map<std::string, std::string> values;
};

// The strings in position, "-" where there is none; empty when the object has no value of the event at all. Events
// whose values have no names are shipped as param1, param2, ...
std::vector<std::u16string> Strings(const FIELDS& fields, const POSITIONS& names) {
    std::vector<std::u16string> strings;
    bool any = false;
    for (const std::string_view both : names) {
        const size_t bar = std::min(both.find('|'), both.size());
        std::string value = fields.Value(std::string(both.substr(0, bar)));
        if (value.empty() && bar < both.size()) value = fields.Value(std::string(both.substr(bar + 1)));
        if (value.empty()) value = fields.Value("param" + std::to_string(strings.size() + 1));
        any = any || !value.empty();
        strings.push_back(win32::ToUtf16(value.empty() ? "-" : value));
    }
    if (!any) strings.clear();
    return strings;
}

bool IsSecurityLog(const FIELDS& fields) {
    const std::string log = fields.First({"winlog.channel", "log_name", "Event.System.Channel", "Channel", "LogName"});
    return log.empty() || win32::SameName(win32::ToUtf16(log), u"Security");
}

bool IsFailure(const FIELDS& fields) {
    if (fields.First({"event.outcome"}) == "failure" || fields.First({"EventType"}) == "AUDIT_FAILURE") return true;
    const std::string keywords = fields.First({"winlog.keywords", "keywords", "Event.System.Keywords", "Keywords"});
    constexpr unsigned long long AuditFailure = 0x0010000000000000;
    // The bits as a number, of which shippers write the topmost as a sign, too.
    const bool negative = keywords.starts_with('-');
    const auto bits = ParseNumber(std::string_view(keywords).substr(negative), ~0ull);
    if (bits) return ((negative ? 0 - *bits : *bits) & AuditFailure) != 0;
    return keywords.find("Audit Failure") != std::string::npos;
}

}  // namespace

LINE_READER::RESULT SHIPPER_JSON::Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) {
    constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";
    if (line.starts_with(ByteOrderMark)) line.remove_prefix(ByteOrderMark.size());
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) return SKIPPED;
    const json object = ParseObject(line);
    if (object.is_discarded()) {
        reason = "not a JSON object";
        return UNREADABLE;
    }
    const FIELDS fields(object);
    if (fields.TooMany()) {
        reason = "more than " + std::to_string(MostValues) + " values";
        return UNREADABLE;
    }
    const std::string idText =
        fields.First({"winlog.event_id", "event_id", "Event.System.EventID", "EventID", "EventId", "Id", "event.code"});
    const auto id = ParseNumber(idText, MAXDWORD);
    if (!id) {
        reason = idText.empty() ? "no event ID" : "an event ID that is no number";
        return UNREADABLE;
    }
    const POSITIONS* const names = NamesOf(*id);
    if (names == nullptr || !IsSecurityLog(fields)) return SKIPPED;
    const auto time =
        ParseShippedTime(fields.First({"@timestamp", "winlog.time_created", "TimeCreated", "TimeCreated.SystemTime",
                                       "Event.System.TimeCreated.SystemTime", "EventTime"}));
    event = {};
    event.strings = Strings(fields, *names);
    if (!time || event.strings.empty()) {
        reason = time ? "none of the event's values" : "no usable time";
        return UNREADABLE;
    }
    event.id = static_cast<DWORD>(*id);
    event.type = IsFailure(fields) ? EVENTLOG_AUDIT_FAILURE : EVENTLOG_AUDIT_SUCCESS;
    event.generated = *time;
    event.written = win32::SecondsNow();
    const std::string source = fields.First(
        {"winlog.provider_name", "source_name", "Event.System.Provider.Name", "SourceName", "ProviderName"});
    const std::string computer = fields.First({"winlog.computer_name", "computer_name", "Event.System.Computer",
                                               "Computer", "Hostname", "MachineName", "host.name"});
    event.source = source.empty() ? u"Microsoft-Windows-Security-Auditing" : win32::ToUtf16(source.substr(0, 256));
    event.computer = computer.empty() ? OwnComputerName() : win32::ToUtf16(computer.substr(0, 256));
    return RECORD;
}

}  // namespace tools::feed
