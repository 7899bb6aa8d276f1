// The running agent of a machine root, as /proc shows it: nothing is asked of the agent itself.
#pragma once

#include <windows.h>

#include <sys/types.h>

#include <cstdint>
#include <istream>
#include <optional>
#include <set>
#include <string>

struct AGENT_CONNECTION {
    std::string address;
    WORD port;
    const char* over;  // "TLS" or "TCP", which the port tells
};

struct AGENT_PROCESS {
    pid_t pid = 0;
    int64_t since = 0;  // seconds since 1970
    std::optional<AGENT_CONNECTION> connection;
    std::optional<DWORD> nextRecord;  // of the Security log: those before it are done with; nothing: not read yet
    bool polls = false;               // looks for changed files once a second, since inotify does not tell it all
};

// Nothing: no agent of that machine root runs. Throws COMMAND_ERROR when there is one that may not be looked at.
std::optional<AGENT_PROCESS> FindAgent(const std::string& root);

// The number of the record from which the process with this folder in /proc read the log's file last, or is about to:
// the agent leaves it as its descriptor's position. Nothing: it does not follow the log, or may not be looked at.
// `descriptor`, if wanted, becomes the descriptor's number.
std::optional<DWORD> NextRecordOf(const std::string& process, const std::string& logFile,
                                  std::string* descriptor = nullptr);

// The same number, asked of that descriptor alone.
std::optional<DWORD> MarkOf(const std::string& process, const std::string& descriptor);

// The established connection to an identity server's port among the sockets with these inodes, in a table of the form
// of /proc/net/tcp and tcp6.
std::optional<AGENT_CONNECTION> ServerConnection(std::istream& table, const std::set<std::string>& inodes);
