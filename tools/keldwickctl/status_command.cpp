// keldwickctl status: what the agent is doing, for a person, a script, or a monitoring system.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "service/settings.h"
#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/status.h"
#include "win32/files/root_files.h"

namespace tools {
namespace {

std::string FiguresText(const std::optional<IDENTITY_HEADING>& figures) {
    if (!figures) return "\nidentities       not known yet";
    return "\nidentities       " + std::to_string(figures->identities) + "; service tickets " +
           std::to_string(figures->tickets) + "; as of " + TimeText(figures->written) + "\nreports          answered " +
           std::to_string(figures->answered) + "; failed " + std::to_string(figures->failed) + "; sent again " +
           std::to_string(figures->retried);
}

std::string ConnectionText(const STATUS& status) {
    if (const auto& connection = status.agent->connection)
        return "; connected to " + connection->address + " port " + std::to_string(connection->port) + " over " +
               connection->over + (connection->port == keldwick::SecurePort ? " (no groups)" : "");
    const std::string reason = ReasonText(status.noConnection);
    const int64_t time = status.noConnection.time;
    return "; no connection" + (reason.empty() ? ", and the agent's log does not say why" : ": " + SafeText(reason)) +
           (time != 0 ? " (" + TimeText(time) + ")" : "");
}

// What becomes of what the agent has to say.
const char* LogState(const STATUS& status) {
    if (!status.agent) return status.agentKnown ? "not written, as no agent runs" : "written or not, that is not known";
    if (status.agent->log == AGENT_LOG::OPEN) return "being written";
    if (status.agent->log == AGENT_LOG::GONE)
        return "not written: the agent writes a file that was deleted or moved away";
    return status.logFile.empty() ? "none since midnight, or ended by DebugOutput"
                                  : "not written: ended by DebugOutput";
}

std::string LogText(const STATUS& status) {
    if (status.logFile.empty() && !status.agent) return "";
    return "\nlog file         " + (status.logFile.empty() ? "" : SafeText(status.logFile) + ", ") + LogState(status);
}

std::string BehindText(const STATUS& status) {
    if (!status.behind) return "the log is not being read";
    if (*status.behind == 0) return "nothing waits";
    return std::to_string(*status.behind) + " wait" + (*status.behind == 1 ? "s" : "") +
           (status.behindSince ? ", the first since " + TimeText(*status.behindSince) : "");
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

std::string StatusAsText(const STATUS& status) {
    std::string text = "machine root     " + SafeText(status.root) + "\nagent            ";
    text += status.agent
                ? "running since " + TimeText(status.agent->since) + ", process " + std::to_string(status.agent->pid)
            : status.agentKnown ? "not running"
                                : "not known";
    text +=
        "\nidentity server  " + (status.server.empty() ? "not set" : SafeText(status.server) + ", " + status.protocol);
    if (status.agent) {
        text += ConnectionText(status);
        text += FiguresText(status.figures);
    }
    text += "\nlast event       ";
    text += status.lastEvent
                ? "record " + std::to_string(status.lastEvent->number) + ", " + TimeText(status.lastEvent->time)
                : "none";
    if (status.agent) text += "; " + BehindText(status);
    if (status.agent && status.agent->polls) text += "\nchanged files    looked for once a second: no inotify";
    for (const FEED_STATUS& feed : status.feeds) text += FeedText(feed);
    if (!status.lastError.empty())
        text += "\nlast error       " + status.lastError + " (" +
                DurationText(std::max<int64_t>(status.now - status.lastErrorTime, 0)) + " ago)";
    text += LogText(status);
    for (const std::string& trouble : status.troubles) text += "\nnot known        " + SafeText(trouble);
    return text;
}

std::string StatusAsJson(const STATUS& status) {
    nlohmann::ordered_json object;
    object["root"] = status.root;
    object["running"] = nullptr;
    if (status.agentKnown) object["running"] = status.agent.has_value();
    object["pid"] = status.agent ? nlohmann::ordered_json(status.agent->pid) : nlohmann::ordered_json();
    object["since"] = status.agent ? nlohmann::ordered_json(TimeText(status.agent->since)) : nlohmann::ordered_json();
    object["server"] = status.server;
    object["protocol"] = status.protocol;
    object["connection"] = nullptr;
    if (status.agent && status.agent->connection) {
        const AGENT_CONNECTION& connection = *status.agent->connection;
        object["connection"] = {{"address", connection.address}, {"port", connection.port}, {"over", connection.over}};
        object["connection"]["groups"] = connection.port != keldwick::SecurePort;
    }
    object["no_connection"] = nullptr;
    if (!status.noConnection.IsEmpty())
        object["no_connection"] = {{"tls", status.noConnection.tls},
                                   {"tcp", status.noConnection.plain},
                                   {"line", status.noConnection.line},
                                   {"time", status.noConnection.time != 0 ? TimeText(status.noConnection.time) : ""}};
    const auto figure = [&status](int64_t IDENTITY_HEADING::*member) {
        return status.figures ? nlohmann::ordered_json((*status.figures).*member) : nlohmann::ordered_json();
    };
    object["identities"] = figure(&IDENTITY_HEADING::identities);
    object["tickets"] = figure(&IDENTITY_HEADING::tickets);
    object["reports_answered"] = figure(&IDENTITY_HEADING::answered);
    object["reports_failed"] = figure(&IDENTITY_HEADING::failed);
    object["reports_retried"] = figure(&IDENTITY_HEADING::retried);
    object["as_of"] =
        status.figures ? nlohmann::ordered_json(TimeText(status.figures->written)) : nlohmann::ordered_json();
    object["last_event"] = nullptr;
    if (status.lastEvent)
        object["last_event"] = {{"record", status.lastEvent->number}, {"time", TimeText(status.lastEvent->time)}};
    object["behind"] = OrNull(status.behind);
    object["behind_since"] =
        status.behindSince ? nlohmann::ordered_json(TimeText(*status.behindSince)) : nlohmann::ordered_json();
    object["polls"] = status.agent ? nlohmann::ordered_json(status.agent->polls) : nlohmann::ordered_json();
    object["last_error"] = nullptr;
    if (!status.lastErrorJson.empty())
        object["last_error"] = nlohmann::ordered_json::parse(status.lastErrorJson, nullptr, false);
    if (object["last_error"].is_object()) object["last_error"]["text"] = status.lastError;
    object["log_file"] = status.logFile;
    object["log_written"] =
        status.agent ? nlohmann::ordered_json(status.agent->log == AGENT_LOG::OPEN) : nlohmann::ordered_json();
    object["troubles"] = status.troubles;
    object["feeds"] = nlohmann::ordered_json::array();
    for (const FEED_STATUS& feed : status.feeds) object["feeds"].push_back(FeedObject(feed));
    return SafeJson(object);
}

namespace {

// The text format of the node exporter's textfile collector. What is not known is not in it.
using FIGURE = std::optional<int64_t>;

class FIGURES {
public:
    void Add(const char* name, const char* type, const char* help, FIGURE value) {
        if (!value) return;
        Describe(name, type, help);
        Put(name, "", *value);
    }

    // One line for each feed; a feed's name needs no escapes. Feeds of which the figure is not known are left out.
    template <class VALUE>
    void AddOfFeeds(const std::vector<FEED_STATUS>& feeds, const char* name, const char* type, const char* help,
                    VALUE value) {
        if (feeds.empty()) return;
        Describe(name, type, help);
        for (const FEED_STATUS& feed : feeds) {
            if (const FIGURE known = value(feed)) Put(name, "{feed=\"" + feed.name + "\"}", *known);
        }
    }

    const std::string& Text() const { return text; }

private:
    void Describe(const std::string& name, const std::string& type, const std::string& help) {
        text += "# HELP keldwick_" + name + " " + help + "\n# TYPE keldwick_" + name + " " + type + "\n";
    }
    void Put(const std::string& name, const std::string& label, int64_t value) {
        text += "keldwick_" + name + label + " " + std::to_string(value) + "\n";
    }

    std::string text;
};

void AddAgent(FIGURES& out, const STATUS& status) {
    const auto& agent = status.agent;
    if (!status.agentKnown) return;
    out.Add("up", "gauge", "Whether the agent runs.", agent ? 1 : 0);
    out.Add("start_time_seconds", "gauge", "When the agent started, since 1970.",
            agent ? FIGURE(agent->since) : FIGURE());
    out.Add("connected", "gauge", "Whether it has a connection to its identity server.",
            agent && agent->connection ? 1 : 0);
    out.Add("polls", "gauge", "Whether the agent looks for changed files once a second, for want of inotify.",
            agent ? FIGURE(agent->polls) : FIGURE());
    out.Add("log_written", "gauge", "Whether the agent writes its log, Keldwick.log.",
            agent ? FIGURE(agent->log == AGENT_LOG::OPEN) : FIGURE());
    if (const auto& figures = status.figures) {
        out.Add("identities", "gauge", "Identities it keeps alive.", figures->identities);
        out.Add("service_tickets", "gauge", "Service tickets it remembers.", figures->tickets);
        out.Add("reports_answered_total", "counter", "Reports that the server has answered.", figures->answered);
        out.Add("reports_failed_total", "counter", "Reports that no good answer came to.", figures->failed);
        out.Add("reports_retried_total", "counter", "Attempts to send beyond a report's first.", figures->retried);
        out.Add("figures_time_seconds", "gauge", "When the agent gave these figures, since 1970.", figures->written);
    }
}

void AddLog(FIGURES& out, const STATUS& status) {
    out.Add("last_event_time_seconds", "gauge", "Time of the Security log's newest event, since 1970.",
            status.lastEvent ? FIGURE(status.lastEvent->time) : FIGURE());
    out.Add("waiting_events", "gauge", "Events that the agent has yet to read.",
            status.behind ? FIGURE(*status.behind) : FIGURE());
    const FIGURE none = status.behind ? FIGURE(0) : FIGURE();
    out.Add("behind_seconds", "gauge", "Age of the first event that waits.",
            status.behindSince ? FIGURE(std::max<int64_t>(0, status.now - *status.behindSince)) : none);
}

void AddFeeds(FIGURES& out, const std::vector<FEED_STATUS>& feeds) {
    const struct {
        const char *name, *type, *help;
        unsigned long long FEED_STATUS::*value;
    } figures[] = {
        {"feed_behind_bytes", "gauge", "Bytes of the feed's file that are not in the log yet.", &FEED_STATUS::behind},
        {"feed_records_total", "counter", "Records the feed has written.", &FEED_STATUS::records},
        {"feed_skipped_total", "counter", "Lines that were nothing for the log.", &FEED_STATUS::skipped},
        {"feed_unreadable_total", "counter", "Lines that could not be read.", &FEED_STATUS::unreadable},
    };
    out.AddOfFeeds(feeds, "feed_up", "gauge", "Whether the feed runs.",
                   [](const FEED_STATUS& feed) { return FIGURE(feed.running); });
    out.AddOfFeeds(feeds, "feed_stream", "gauge", "Whether it takes a stream, and runs only while one is connected.",
                   [](const FEED_STATUS& feed) { return feed.marked.empty() ? FIGURE() : FIGURE(feed.file.empty()); });
    for (const auto& figure : figures)
        out.AddOfFeeds(feeds, figure.name, figure.type, figure.help, [&](const FEED_STATUS& feed) {
            return feed.damage.empty() ? FIGURE(static_cast<int64_t>(feed.*figure.value)) : FIGURE();
        });
}

}  // namespace

std::string StatusAsPrometheus(const STATUS& status) {
    FIGURES out;
    AddAgent(out, status);
    AddLog(out, status);
    AddFeeds(out, status.feeds);
    out.Add("status_time_seconds", "gauge", "When these figures were taken, since 1970.", status.now);
    return out.Text();
}

namespace {

constexpr int ExitNoSettings = 1, ExitNotWorking = 3;

struct STATUS_OPTIONS {
    bool json = false, check = false;
    std::string prometheus;
};

// Replaced as a whole, since its reader must never meet half a file, and readable for the reader, another user's
// program. The folder may be another program's, too: nothing that lies there is opened.
void WriteWhole(const std::string& path, const std::string& text) {
    constexpr mode_t readableForAll = 0644;
    win32::REPLACEMENT_FILE fresh(path, readableForAll);
    if (!fresh || !fresh.Write(text) || fchmod(fresh.Descriptor(), readableForAll) != 0 || !fresh.TakePlace())
        FailFile("cannot write " + path);
}

void ShowStatus(const STATUS_OPTIONS& options) {
    const STATUS status = ReadStatus();
    if (options.prometheus == "-") {
        std::fputs(StatusAsPrometheus(status).c_str(), stdout);
    } else if (!options.prometheus.empty()) {
        WriteWhole(options.prometheus, StatusAsPrometheus(status));
    }
    if (options.prometheus.empty() || options.json)
        std::printf("%s\n", (options.json ? StatusAsJson(status) : StatusAsText(status)).c_str());
    if (options.check && !IsWorking(status)) throw EXIT_STATUS{ExitNotWorking};
    if (!options.check && !status.hasSettings) throw EXIT_STATUS{ExitNoSettings};
}

}  // namespace

void AddStatusCommand(CLI::App& app) {
    const auto options = std::make_shared<STATUS_OPTIONS>();
    CLI::App* const status = app.add_subcommand("status", "Shows what the agent is doing.");
    status->add_flag("--json", options->json, "one JSON object");
    status->add_flag("--check", options->check, "exit code 3 when the agent does not run or is not connected");
    status
        ->add_option("--prometheus", options->prometheus,
                     "write the figures there (- is standard output), for the node exporter; shows nothing else")
        ->type_name("FILE");
    status->callback([options] { ShowStatus(*options); });
}

}  // namespace tools
