// The running agent of this machine root as a feed looks at it, again and again: does it read what the feed writes?
#pragma once

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

class FEED_LOG;

// The agent reports what comes after it has begun to follow the log, which it does once it is connected, and anew when
// it has been connected to another server; and the log is a circle. So what comes while an agent runs that does not
// follow, while it has much to read, or while it is being started anew, is better written later. One thread's.
class FEED_AGENT {
public:
    // How long an agent that was seen, or wrote its list of identities before there was this feed, is waited for when
    // it is gone.
    explicit FEED_AGENT(std::chrono::seconds longest = std::chrono::minutes(5));
    ~FEED_AGENT();
    FEED_AGENT(const FEED_AGENT&) = delete;
    FEED_AGENT& operator=(const FEED_AGENT&) = delete;

    // What is to be waited for before more is written, in words. Null: nothing; so for an agent that may not be looked
    // at, and when none was seen. Throws COMMAND_ERROR when the log cannot be read.
    const char* ReasonToWait(const FEED_LOG& log);

    // Whether the agent that was seen last is gone, or has stopped to follow the log; asked at little cost.
    bool HasChanged() const;

private:
    enum class SEEN { NOTHING, HIDDEN, RUNNING };
    using CLOCK = std::chrono::steady_clock;

    SEEN Look();
    bool Runs() const;
    std::string Folder() const;
    void ReadMark();
    void Forget();

    const std::chrono::seconds patience;
    int process = -1;                       // its folder in /proc, which stays its own when another gets its number
    std::optional<DWORD> nextRecord;        // of the log; nothing: it does not follow
    std::string descriptor;                 // its descriptor with that mark
    bool awaited = false;                   // one was seen, and is waited for
    std::optional<CLOCK::time_point> gone;  // since when it is missed
};
