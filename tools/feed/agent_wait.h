// Waiting for the agent: does the running agent of this machine root read what the feed writes?
#pragma once

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

#include "tools/feed/console.h"
#include "win32/sync/descriptor.h"

namespace tools::feed {

class LOG;

// The agent reports what comes after it has begun to follow the log, which it does once it is connected, and again when
// it has been connected to another server; and the log is a circle. So what comes while an agent runs that does not
// follow, while it has much to read, or while it is being started again, is better written later. One thread's.
class AGENT_WAIT {
public:
    using CLOCK = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds Pause{200};  // between two looks at the agent

    // How long an agent that was seen, or wrote its list of identities before there was this feed, is waited for when
    // it is gone.
    explicit AGENT_WAIT(CONSOLE& console, std::chrono::seconds longest = std::chrono::minutes(5));

    // Whether the batch has to wait. `held`: it waits already; if not, an agent that was looked at a moment ago is not
    // looked at again. A long wait is reported. Throws COMMAND_ERROR when the log cannot be read.
    bool Holds(LOG& log, bool held);

    void Expect() { awaited = true; }    // an agent, whether or not one was seen
    void GiveUp() { trouble.Forget(); }  // on a wait that goes on

    // What is to be waited for before more is written, in words. Null: nothing; so for an agent that may not be looked
    // at, and when none was seen. Throws COMMAND_ERROR when the log cannot be read.
    const char* ReasonToWait(const LOG& log);

private:
    enum class SEEN { NOTHING, HIDDEN, RUNNING };

    bool IsLookDue(const LOG& log) const;
    SEEN Look();
    bool Runs() const;
    bool HasChanged() const;
    std::string Folder() const;
    void ReadNextRecord();
    void Forget();

    const std::chrono::seconds patience;
    TROUBLE trouble;
    CLOCK::time_point looked, begun;        // the last look; the first look of this wait
    win32::DESCRIPTOR process;              // its folder in /proc, which stays its own when another gets its number
    std::optional<DWORD> nextRecord;        // of the log; nothing: it does not follow
    std::string descriptor;                 // its descriptor that shows that number
    bool awaited = false;                   // one was seen, and is waited for
    std::optional<CLOCK::time_point> gone;  // since when it is missed
};

}  // namespace tools::feed
