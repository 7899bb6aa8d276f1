// The figures in the text format of the node exporter's textfile collector. What is not known is not in it.
#include <algorithm>

#include "tools/keldwickctl/status_report.h"

namespace {

using FIGURE = std::optional<int64_t>;

class FIGURES {
public:
    void Add(const char* name, const char* type, const char* help, FIGURE value) {
        if (!value) return;
        Describe(name, type, help);
        Put(name, "", *value);
    }

    // One line for each feed; a feed's name needs no escapes. Feeds whose state is unknown are left out.
    template <class VALUE>
    void AddOfFeeds(const std::vector<FEED_STATUS>& feeds, const char* name, const char* type, const char* help,
                    VALUE value) {
        if (feeds.empty()) return;
        Describe(name, type, help);
        for (const FEED_STATUS& feed : feeds) {
            if (feed.damage.empty()) Put(name, "{feed=\"" + feed.name + "\"}", static_cast<int64_t>(value(feed)));
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
    out.Add("up", "gauge", "Whether the agent runs.", agent ? 1 : 0);
    out.Add("start_time_seconds", "gauge", "When the agent started, since 1970.",
            agent ? FIGURE(agent->since) : FIGURE());
    out.Add("connected", "gauge", "Whether it has a connection to its identity server.",
            agent && agent->connection ? 1 : 0);
    out.Add("polls", "gauge", "Whether the agent looks for changed files once a second, for want of inotify.",
            agent ? FIGURE(agent->polls) : FIGURE());
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
                   [](const FEED_STATUS& feed) { return feed.running; });
    for (const auto& figure : figures)
        out.AddOfFeeds(feeds, figure.name, figure.type, figure.help,
                       [&](const FEED_STATUS& feed) { return feed.*figure.value; });
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
