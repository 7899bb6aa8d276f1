#include "tools/feed/agent_wait.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/running_agent.h"
#include "tools/feed/log.h"

namespace tools::feed {
namespace {

constexpr std::chrono::milliseconds UnreportedWait{1000};  // a shorter one is not worth a word

}  // namespace

AGENT_WAIT::AGENT_WAIT(CONSOLE& console, std::chrono::seconds longest)
    : patience(longest), trouble(console, "the wait for the agent is over") {
    using std::chrono::seconds;
    struct stat list;
    if (stat(IdentitiesPath().c_str(), &list) != 0) return;
    const auto age = std::chrono::system_clock::now() - std::chrono::system_clock::from_time_t(list.st_mtim.tv_sec);
    if (age < seconds(0) || age >= patience) return;
    awaited = true;
    gone = CLOCK::now() - std::chrono::duration_cast<seconds>(age);
}

bool AGENT_WAIT::Holds(LOG& log, bool held) {
    if (!held && !IsLookDue(log)) return false;
    if (!held) begun = CLOCK::now();
    const char* const reason = ReasonToWait(log);
    looked = CLOCK::now();
    log.NoteLook();
    if (reason == nullptr)
        trouble.End();
    else if (looked - begun >= UnreportedWait)
        trouble.Begin(std::string("waiting for the agent, which ") + reason);
    return reason != nullptr;
}

bool AGENT_WAIT::IsLookDue(const LOG& log) const {
    if (log.Empty() || !log.IsAgents()) return false;
    return CLOCK::now() - looked >= Pause || log.IsLookDue() || HasChanged();
}

const char* AGENT_WAIT::ReasonToWait(const LOG& log) {
    constexpr double enough = 0.5;
    switch (Look()) {
        case SEEN::HIDDEN:
            return nullptr;
        case SEEN::NOTHING:
            if (!awaited) return nullptr;
            if (!gone) gone = CLOCK::now();
            if (CLOCK::now() - *gone < patience) return "does not run";
            awaited = false;
            return nullptr;
        case SEEN::RUNNING:
            break;
    }
    awaited = true;
    gone.reset();
    if (!nextRecord) return "does not follow the log";
    return log.UnreadShare(*nextRecord) > enough ? "has more than half of the log to read" : nullptr;
}

// All of /proc is searched only while no agent is known.
AGENT_WAIT::SEEN AGENT_WAIT::Look() {
    if (Runs()) {
        ReadNextRecord();
        return SEEN::RUNNING;
    }
    Forget();
    try {
        const auto agent = FindAgent();
        if (!agent) return SEEN::NOTHING;
        const std::string folder = "/proc/" + std::to_string(agent->pid);
        process = win32::DESCRIPTOR(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ReadNextRecord();
        return SEEN::RUNNING;
    } catch (const COMMAND_ERROR&) {
        return SEEN::HIDDEN;
    }
}

bool AGENT_WAIT::Runs() const {
    char program = 0;
    return process && readlinkat(process.Get(), "exe", &program, sizeof(program)) > 0;
}

// Whether the agent that was seen last is gone, or has stopped following the log; asked at little cost.
bool AGENT_WAIT::HasChanged() const {
    return process && (!Runs() || (nextRecord && !NextRecordAt(Folder(), descriptor)));
}

std::string AGENT_WAIT::Folder() const { return "/proc/self/fd/" + std::to_string(process.Get()); }

void AGENT_WAIT::ReadNextRecord() { nextRecord = NextRecordOf(Folder(), AgentsLogPath(), &descriptor); }

void AGENT_WAIT::Forget() {
    process = win32::DESCRIPTOR();
    nextRecord.reset();
}

}  // namespace tools::feed
