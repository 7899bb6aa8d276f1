// What the agent of a machine root is doing, put together from what lies there and from its process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/agent_log.h"
#include "tools/common/running_agent.h"

namespace tools {

// A live source, as its state file and the files it follows show it.
struct FEED_STATUS {
    std::string name, source, file, log;  // the file is empty for standard input
    bool running = false;
    unsigned long long records = 0, skipped = 0, unreadable = 0;
    unsigned long long behind = 0;  // bytes of the file that are not in the log yet
    std::string marked;             // when the feed last marked its place, ISO
    std::string damage;             // why the state cannot be read; then nothing else is known
};

// In the order of their names. Throws COMMAND_ERROR when the folder cannot be looked into.
std::vector<FEED_STATUS> ReadFeeds();

struct LOGGED_EVENT {
    DWORD number;
    DWORD time;  // seconds since 1970
};

struct STATUS {
    std::string root;
    int64_t now = 0;
    bool hasSettings = true;  // false: there are none, or none that can be used, as the troubles say
    std::optional<AGENT_PROCESS> agent;
    bool agentKnown = true;                   // false: one may run, but this user may not look at it
    std::string server, protocol;             // as set
    std::optional<IDENTITY_HEADING> figures;  // the agent's own; nothing: it does not run, or has shown none yet
    std::optional<LOGGED_EVENT> lastEvent;    // the Security log's newest
    std::optional<DWORD> behind;              // records that wait; nothing: the agent does not read
    std::optional<DWORD> behindSince;         // the time of the first of them
    CONNECTION_FAILURE noConnection;          // why there is none, as the agent's log has it
    std::string lastError, lastErrorJson;     // the newest error event of the Application log; empty: there is none
    int64_t lastErrorTime = 0;                // seconds since 1970
    std::string logFile;                      // empty: there is none
    std::vector<FEED_STATUS> feeds;
    std::vector<std::string> troubles;  // what could not be looked at, and why
};

// Reads what this user may read and what can be used; the rest is among the troubles.
STATUS ReadStatus();

// Whether the agent runs and is connected to its identity server.
inline bool IsWorking(const STATUS& status) { return status.agent && status.agent->connection; }

std::string StatusAsText(const STATUS& status);
std::string StatusAsJson(const STATUS& status);        // one object
std::string StatusAsPrometheus(const STATUS& status);  // the text format of the node exporter's textfile collector

}  // namespace tools
