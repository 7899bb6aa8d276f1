#include "tools/keldwickctl/status_report.h"

#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_listing.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/event_values.h"
#include "tools/keldwickctl/failure.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/eventlog/evt_reader.h"
#include "win32/files/machine_root.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

namespace {

// The agent sweeps once in a minute, at the next of its wake-ups, which are at most 15 s apart. What stands in the
// registry before that is of an earlier run.
constexpr int64_t FirstSweepSeconds = 76;
constexpr DWORD MostErrorsSearched = 20000;  // of the Application log's newest records

// Calls back with each record, one way from the reader's position, while that returns true.
template <class CALL>
DWORD EachRecord(win32::EVT_READER& reader, bool forwards, CALL call) {
    win32::BYTES buffer(win32::MaxReadBytes / 4 * 4);
    for (;;) {
        DWORD bytes = 0, needed = 0;
        const DWORD error = reader.Read(forwards, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
        if (error != ERROR_SUCCESS) return error == ERROR_HANDLE_EOF ? ERROR_SUCCESS : error;
        for (DWORD at = 0; at < bytes;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (!call(record)) return ERROR_SUCCESS;
            at += record.Length;
        }
    }
}

std::optional<LOGGED_EVENT> EventAt(win32::EVT_READER& reader, DWORD number) {
    std::optional<LOGGED_EVENT> event;
    if (reader.Seek(number, true) != ERROR_SUCCESS) return event;
    EachRecord(reader, true, [&](const EVENTLOGRECORD& record) {
        event = LOGGED_EVENT{record.RecordNumber, record.TimeGenerated};
        return false;
    });
    return event;
}

void LookAtSecurityLog(STATUS& status) {
    win32::EVT_READER reader;
    OpenReader(reader, "Security");
    DWORD current = 0, oldest = 0, count = 0;
    if (const DWORD error = reader.Numbers(current, oldest, count); error != ERROR_SUCCESS)
        FailCommand("cannot read the Security log", error);
    if (count > 0) status.lastEvent = EventAt(reader, current - 1);
    if (!status.agent || !status.agent->nextRecord) return;
    const DWORD next = std::max(*status.agent->nextRecord, oldest);  // the circle may have overtaken it
    status.behind = count == 0 || next > current ? 0 : current - next;
    if (*status.behind == 0) return;
    if (const auto event = EventAt(reader, next)) status.behindSince = event->time;
}

std::string LastError() {
    win32::EVT_READER reader;
    OpenReader(reader, "Application");
    std::string found;
    DWORD searched = 0;
    EachRecord(reader, false, [&](const EVENTLOGRECORD& record) {
        if (record.EventType == EVENTLOG_ERROR_TYPE) found = RecordAsJson(record);
        return found.empty() && ++searched < MostErrorsSearched;
    });
    return found;
}

void LookAtRegistry(STATUS& status) {
    DWORD error = ERROR_SUCCESS;
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree(&error);
    if (!tree) FailRegistry("cannot read the settings", error);
    win32::REG_PATH path = SettingsPath();
    const win32::REG_NODE* const settings = tree->Find(path);
    if (settings == nullptr)
        throw COMMAND_ERROR("there is no settings key in " + status.root + "; \"keldwickctl init\" makes it");
    if (const auto* server = win32::FindValue(*settings, u"IdentServer")) status.server = ShowValue(*server);
    const auto* protocol = win32::FindValue(*settings, u"IdentProtocol");
    const std::string number = protocol != nullptr ? ShowValue(*protocol) : "0";
    status.protocol = number == "1" ? "tcps" : number == "2" ? "tcp" : "auto";

    path.emplace_back(u"Statistics");
    const win32::REG_NODE* const statistics = tree->Find(path);
    if (statistics == nullptr || !status.agent || status.now - status.agent->since < FirstSweepSeconds) return;
    const struct {
        const char16_t* name;
        std::optional<DWORD>& figure;
    } figures[] = {{u"Logons", status.identities},
                   {u"ServiceTickets", status.tickets},
                   {u"ReportsAnswered", status.answered},
                   {u"ReportsFailed", status.failed}};
    for (const auto& [name, figure] : figures) {
        const auto* const value = win32::FindValue(*statistics, name);
        if (value != nullptr && value->type == REG_DWORD)
            figure = static_cast<DWORD>(std::strtoul(ShowValue(*value).c_str(), nullptr, 10));
    }
}

std::string Time(int64_t seconds) { return IsoTime(static_cast<DWORD>(seconds)); }

std::string Figure(const std::optional<DWORD>& figure) { return figure ? std::to_string(*figure) : "not known yet"; }

std::string BehindText(const STATUS& status) {
    if (!status.behind) return "the log is not being read";
    if (*status.behind == 0) return "nothing waits";
    return std::to_string(*status.behind) + " wait" + (*status.behind == 1 ? "s" : "") +
           (status.behindSince ? ", the first since " + Time(*status.behindSince) : "");
}

template <class VALUE>
nlohmann::ordered_json OrNull(const std::optional<VALUE>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

}  // namespace

STATUS ReadStatus() {
    STATUS status;
    status.root = win32::MachineRoot();
    status.now = std::time(nullptr);
    status.agent = FindAgent(status.root.empty() ? "/" : status.root);
    LookAtRegistry(status);
    LookAtSecurityLog(status);
    status.lastError = LastError();
    const std::string log = win32::MachinePath("Keldwick.log");
    std::error_code error;
    if (std::filesystem::is_regular_file(log, error)) status.logFile = log;
    return status;
}

std::string StatusAsText(const STATUS& status) {
    std::string text = "agent            ";
    text += status.agent
                ? "running since " + Time(status.agent->since) + ", process " + std::to_string(status.agent->pid)
                : "not running";
    text += "\nidentity server  " + (status.server.empty() ? "not set" : status.server + ", " + status.protocol);
    if (status.agent) {
        const auto& connection = status.agent->connection;
        text += connection ? "; connected to " + connection->address + " port " + std::to_string(connection->port) +
                                 " over " + connection->over
                           : "; no connection";
        text += "\nidentities       " + Figure(status.identities) + "; service tickets " + Figure(status.tickets);
        text += "\nreports          answered " + Figure(status.answered) + "; failed " + Figure(status.failed);
    }
    text += "\nlast event       ";
    text += status.lastEvent
                ? "record " + std::to_string(status.lastEvent->number) + ", " + Time(status.lastEvent->time)
                : "none";
    if (status.agent) text += "; " + BehindText(status);
    if (!status.lastError.empty()) text += "\nlast error       " + status.lastError;
    if (!status.logFile.empty()) text += "\nlog file         " + status.logFile;
    return text;
}

std::string StatusAsJson(const STATUS& status) {
    nlohmann::ordered_json object;
    object["root"] = status.root;
    object["running"] = status.agent.has_value();
    object["pid"] = status.agent ? nlohmann::ordered_json(status.agent->pid) : nlohmann::ordered_json();
    object["since"] = status.agent ? nlohmann::ordered_json(Time(status.agent->since)) : nlohmann::ordered_json();
    object["server"] = status.server;
    object["protocol"] = status.protocol;
    object["connection"] = nullptr;
    if (status.agent && status.agent->connection) {
        const AGENT_CONNECTION& connection = *status.agent->connection;
        object["connection"] = {{"address", connection.address}, {"port", connection.port}, {"over", connection.over}};
    }
    object["identities"] = OrNull(status.identities);
    object["tickets"] = OrNull(status.tickets);
    object["reports_answered"] = OrNull(status.answered);
    object["reports_failed"] = OrNull(status.failed);
    object["last_event"] = nullptr;
    if (status.lastEvent)
        object["last_event"] = {{"record", status.lastEvent->number}, {"time", Time(status.lastEvent->time)}};
    object["behind"] = OrNull(status.behind);
    object["behind_since"] =
        status.behindSince ? nlohmann::ordered_json(Time(*status.behindSince)) : nlohmann::ordered_json();
    object["last_error"] = status.lastError.empty() ? nlohmann::ordered_json()
                                                    : nlohmann::ordered_json::parse(status.lastError, nullptr, false);
    object["log_file"] = status.logFile;
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string StatusAsPrometheus(const STATUS& status) {
    std::string text;
    const auto add = [&text](const char* name, const char* type, const char* help, std::optional<int64_t> value) {
        if (!value) return;
        const std::string whole = std::string("keldwick_") + name;
        text += "# HELP " + whole + " " + help + "\n# TYPE " + whole + " " + type + "\n" + whole + " " +
                std::to_string(*value) + "\n";
    };
    const auto& agent = status.agent;
    using VALUE = std::optional<int64_t>;
    add("up", "gauge", "Whether the agent runs.", agent ? 1 : 0);
    add("start_time_seconds", "gauge", "When the agent started, since 1970.", agent ? VALUE(agent->since) : VALUE());
    add("connected", "gauge", "Whether it has a connection to its identity server.",
        agent && agent->connection ? 1 : 0);
    add("identities", "gauge", "Identities it keeps alive.", status.identities);
    add("service_tickets", "gauge", "Service tickets it remembers.", status.tickets);
    add("reports_answered_total", "counter", "Reports that the server has answered.", status.answered);
    add("reports_failed_total", "counter", "Reports that no good answer came to.", status.failed);
    add("last_event_time_seconds", "gauge", "Time of the Security log's newest event, since 1970.",
        status.lastEvent ? VALUE(status.lastEvent->time) : VALUE());
    add("waiting_events", "gauge", "Events that the agent has yet to read.", status.behind);
    add("behind_seconds", "gauge", "Age of the first event that waits.",
        status.behindSince ? std::max<int64_t>(0, status.now - *status.behindSince)
        : status.behind    ? VALUE(0)
                           : VALUE());
    add("status_time_seconds", "gauge", "When these figures were taken, since 1970.", status.now);
    return text;
}
