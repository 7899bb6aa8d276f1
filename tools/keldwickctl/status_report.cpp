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
#include "tools/text/safe_text.h"
#include "win32/eventlog/evt_reader.h"
#include "win32/files/machine_root.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

namespace {

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

void LookForLastError(STATUS& status) {
    win32::EVT_READER reader;
    OpenReader(reader, "Application");
    DWORD searched = 0;
    EachRecord(reader, false, [&](const EVENTLOGRECORD& record) {
        if (record.EventType != EVENTLOG_ERROR_TYPE) return ++searched < MostErrorsSearched;
        status.lastError = RecordAsText(record);
        status.lastErrorJson = RecordAsJson(record);
        return false;
    });
}

void LookAtFeeds(STATUS& status) { status.feeds = ReadFeeds(); }

void LookAtFigures(STATUS& status) {
    IDENTITY_LIST list;
    const auto heading = status.agent ? list.Open() : std::nullopt;
    if (heading && heading->IsOf(status.agent->pid, status.agent->since))
        status.figures = heading;  // else of an earlier run
}

void LookAtRegistry(STATUS& status) {
    DWORD error = ERROR_SUCCESS;
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree(&error);
    if (!tree) FailRegistry("cannot read the settings", error);
    const win32::REG_NODE* const settings = tree->Find(SettingsPath());
    if (settings == nullptr)
        throw COMMAND_ERROR("there is no settings key in " + status.root + "; \"keldwickctl init\" makes it");
    if (const auto* server = win32::FindValue(*settings, u"IdentServer")) status.server = ShowValue(*server);
    const auto* protocol = win32::FindValue(*settings, u"IdentProtocol");
    const std::string number = protocol != nullptr ? ShowValue(*protocol) : "0";
    status.protocol = number == "1" ? "tcps" : number == "2" ? "tcp" : "auto";
}

std::string Time(int64_t seconds) { return IsoTime(static_cast<DWORD>(seconds)); }

std::string FiguresText(const std::optional<IDENTITY_HEADING>& figures) {
    if (!figures) return "\nidentities       not known yet";
    return "\nidentities       " + std::to_string(figures->identities) + "; service tickets " +
           std::to_string(figures->tickets) + "; as of " + Time(figures->written) + "\nreports          answered " +
           std::to_string(figures->answered) + "; failed " + std::to_string(figures->failed) + "; sent again " +
           std::to_string(figures->retried);
}

std::string BehindText(const STATUS& status) {
    if (!status.behind) return "the log is not being read";
    if (*status.behind == 0) return "nothing waits";
    return std::to_string(*status.behind) + " wait" + (*status.behind == 1 ? "s" : "") +
           (status.behindSince ? ", the first since " + Time(*status.behindSince) : "");
}

// Names of feeds are letters, digits and the like.
std::string FeedText(const FEED_STATUS& feed) {
    const std::string text = "\nfeed             " + feed.name + (feed.running ? ", running" : ", not running");
    if (!feed.damage.empty()) return text + "; " + SafeText(feed.damage);
    if (feed.marked.empty()) return text;
    return text +
           (feed.file.empty() ? ""
                              : "; " + SafeText(feed.file) + ", " + std::to_string(feed.behind) + " bytes behind") +
           "; records " + std::to_string(feed.records) + ", skipped " + std::to_string(feed.skipped) + ", unreadable " +
           std::to_string(feed.unreadable) + "; marked " + SafeText(feed.marked);
}

nlohmann::ordered_json FeedObject(const FEED_STATUS& feed) {
    nlohmann::ordered_json object = {{"name", feed.name}, {"running", feed.running}};
    if (!feed.damage.empty()) object["damage"] = feed.damage;
    if (feed.marked.empty()) return object;
    object.update({{"source", feed.source}, {"file", feed.file}, {"log", feed.log}});
    object.update({{"behind_bytes", feed.behind}, {"records", feed.records}, {"skipped", feed.skipped}});
    object.update({{"unreadable", feed.unreadable}, {"marked", feed.marked}});
    return object;
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
    for (const auto look : {LookAtSecurityLog, LookAtFigures, LookForLastError, LookAtFeeds}) {
        try {
            look(status);
        } catch (const COMMAND_ERROR& error) {  // the rest is worth knowing all the more
            status.troubles.emplace_back(error.what());
        }
    }
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
    text +=
        "\nidentity server  " + (status.server.empty() ? "not set" : SafeText(status.server) + ", " + status.protocol);
    if (status.agent) {
        const auto& connection = status.agent->connection;
        text += connection ? "; connected to " + connection->address + " port " + std::to_string(connection->port) +
                                 " over " + connection->over
                           : "; no connection";
        text += FiguresText(status.figures);
    }
    text += "\nlast event       ";
    text += status.lastEvent
                ? "record " + std::to_string(status.lastEvent->number) + ", " + Time(status.lastEvent->time)
                : "none";
    if (status.agent) text += "; " + BehindText(status);
    if (status.agent && status.agent->polls) text += "\nchanged files    looked for once a second: no inotify";
    for (const FEED_STATUS& feed : status.feeds) text += FeedText(feed);
    if (!status.lastError.empty()) text += "\nlast error       " + status.lastError;
    if (!status.logFile.empty()) text += "\nlog file         " + SafeText(status.logFile);
    for (const std::string& trouble : status.troubles) text += "\nnot known        " + SafeText(trouble);
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
    const auto figure = [&status](int64_t IDENTITY_HEADING::*member) {
        return status.figures ? nlohmann::ordered_json((*status.figures).*member) : nlohmann::ordered_json();
    };
    object["identities"] = figure(&IDENTITY_HEADING::identities);
    object["tickets"] = figure(&IDENTITY_HEADING::tickets);
    object["reports_answered"] = figure(&IDENTITY_HEADING::answered);
    object["reports_failed"] = figure(&IDENTITY_HEADING::failed);
    object["reports_retried"] = figure(&IDENTITY_HEADING::retried);
    object["as_of"] = status.figures ? nlohmann::ordered_json(Time(status.figures->written)) : nlohmann::ordered_json();
    object["last_event"] = nullptr;
    if (status.lastEvent)
        object["last_event"] = {{"record", status.lastEvent->number}, {"time", Time(status.lastEvent->time)}};
    object["behind"] = OrNull(status.behind);
    object["behind_since"] =
        status.behindSince ? nlohmann::ordered_json(Time(*status.behindSince)) : nlohmann::ordered_json();
    object["polls"] = status.agent ? nlohmann::ordered_json(status.agent->polls) : nlohmann::ordered_json();
    object["last_error"] = nullptr;
    if (!status.lastErrorJson.empty())
        object["last_error"] = nlohmann::ordered_json::parse(status.lastErrorJson, nullptr, false);
    object["log_file"] = status.logFile;
    object["troubles"] = status.troubles;
    object["feeds"] = nlohmann::ordered_json::array();
    for (const FEED_STATUS& feed : status.feeds) object["feeds"].push_back(FeedObject(feed));
    return SafeJson(object);
}
