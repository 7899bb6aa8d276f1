// What the agent's own log, Keldwick.log, says about its connection: the lines of one process, from the end back.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
namespace tools {

// Why there is no connection.
struct CONNECTION_FAILURE {
    std::string tls, plain;  // each way's latest reason; empty: it has not failed since the connection was there
    std::string line;        // the latest line about the loss or the failure
    int64_t time = 0;        // of that line, seconds since 1970; 0: the lines have no time

    bool IsEmpty() const { return line.empty(); }
};

// Of the lines that this process has written since it was connected last. Messages of other processes do not count.
CONNECTION_FAILURE FindConnectionFailure(std::string_view log, pid_t process);

// The same of the machine root's Keldwick.log, its last 256 KiB; nothing found when it cannot be read.
CONNECTION_FAILURE ReadConnectionFailure(pid_t process);

// A sentence of the component's for use within another.
std::string WithoutStop(std::string sentence);

// The reasons on one line; empty: nothing was found.
std::string ReasonText(const CONNECTION_FAILURE& failure);

}  // namespace tools
