// What the running agent shows of itself in Keldwick.identities in its machine root: see identity/identity_file.h.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

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

    struct CLOSING {
        void operator()(FILE* open) const { std::fclose(open); }
    };

    std::string path;
    std::unique_ptr<FILE, CLOSING> file;
    std::string line;
};
