// The running agent of a machine root, looked at from outside: its process in /proc, and the file Keldwick.identities
// that it writes (see identity/identity_file.h). Nothing is asked of the agent itself.
#pragma once

#include <windows.h>

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <istream>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tools {

struct AGENT_CONNECTION {
    std::string address;
    WORD port;
    const char* over;  // "TLS" or "TCP", as the port shows
};

// What the agent has Keldwick.log for.
enum class AGENT_LOG {
    CLOSED,  // it writes none, or has not written since the log was renamed at midnight
    OPEN,    // it writes the file that is there
    GONE     // it writes a file that was deleted or moved away meanwhile
};

struct AGENT_PROCESS {
    pid_t pid = 0;
    int64_t since = 0;  // seconds since 1970
    std::optional<AGENT_CONNECTION> connection;
    std::optional<DWORD> nextRecord;  // of the Security log: those before it are done with; nothing: not read yet
    bool polls = false;               // looks for changed files once a second, since inotify does not report them all
    AGENT_LOG log = AGENT_LOG::CLOSED;
    std::string debugVariable;  // its environment's "Keldwick": what is logged, unless the settings say it
};

// All that run in the machine root, the one that follows the Security log first. Throws COMMAND_ERROR when there is
// none but one that may not be looked at.
std::vector<AGENT_PROCESS> FindAgents();

// Nothing: no agent of this machine root runs. Throws COMMAND_ERROR when there is one that may not be looked at.
std::optional<AGENT_PROCESS> FindAgent();

// The number of the record from which the process with this folder in /proc read the log's file last, or is about to:
// the agent leaves it as its descriptor's offset. Nothing: it does not follow the log, or may not be looked at.
// `descriptor`, if wanted, becomes the descriptor's number.
std::optional<DWORD> NextRecordOf(const std::string& process, const std::string& logFile,
                                  std::string* descriptor = nullptr);

// The same number, asked of that descriptor alone.
std::optional<DWORD> NextRecordAt(const std::string& process, const std::string& descriptor);

// The established connection to an identity server's port among the sockets with these inodes, in a table of the form
// of /proc/net/tcp and tcp6.
std::optional<AGENT_CONNECTION> ServerConnection(std::istream& table, const std::set<std::string>& inodes);

std::string IdentitiesPath();    // of the file Keldwick.identities
std::string AgentsOwnLogPath();  // of Keldwick.log

struct IDENTITY_HEADING {
    pid_t process = 0;
    int64_t written = 0;  // seconds since 1970
    int64_t ttl = 0;      // milliseconds
    int64_t identities = 0, tickets = 0, answered = 0, failed = 0, retried = 0;

    // Whether a process that began then, give or take what such times are rounded by, wrote it: the next one in a
    // container may have the same number.
    bool IsOf(pid_t agent, int64_t since) const { return process == agent && written + 2 >= since; }
};

struct LISTED_IDENTITY {
    std::string address, user, computer;
    int64_t logon = 0;  // the last one, seconds since 1970
};

// One state of the list, read from the front; the agent may replace the file meanwhile.
class IDENTITY_LIST {
public:
    // Nothing, when there is no such file. Throws COMMAND_ERROR when it cannot be read or is damaged.
    std::optional<IDENTITY_HEADING> Open();

    // The next identity; false: there are no more. Throws COMMAND_ERROR for a line that is none.
    bool Next(LISTED_IDENTITY& identity);

private:
    bool NextLine();
    int64_t Number(const nlohmann::json& value, uint64_t most) const;  // throws as for any other damage
    [[noreturn]] void FailDamaged() const;

    struct CLOSING {
        void operator()(FILE* open) const { std::fclose(open); }
    };

    std::string path;
    std::unique_ptr<FILE, CLOSING> file;
    std::string line;
};

}  // namespace tools
