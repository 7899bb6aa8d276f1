#include "tools/keldwickctl/feed_agent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_log.h"
#include "tools/keldwickctl/status_process.h"
#include "win32/files/machine_root.h"

FEED_AGENT::FEED_AGENT(std::chrono::seconds longest) : patience(longest) {
    using std::chrono::seconds;
    struct stat list;
    if (stat(win32::MachinePath("Keldwick.identities").c_str(), &list) != 0) return;
    const auto age = std::chrono::system_clock::now() - std::chrono::system_clock::from_time_t(list.st_mtim.tv_sec);
    if (age < seconds(0) || age >= patience) return;
    awaited = true;
    gone = CLOCK::now() - std::chrono::duration_cast<seconds>(age);
}

FEED_AGENT::~FEED_AGENT() { Forget(); }

const char* FEED_AGENT::ReasonToWait(const FEED_LOG& log) {
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
FEED_AGENT::SEEN FEED_AGENT::Look() {
    if (Runs()) {
        ReadMark();
        return SEEN::RUNNING;
    }
    Forget();
    try {
        const std::string root = win32::MachineRoot();
        const auto agent = FindAgent(root.empty() ? "/" : root);
        if (!agent) return SEEN::NOTHING;
        process = open(("/proc/" + std::to_string(agent->pid)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ReadMark();
        return SEEN::RUNNING;
    } catch (const COMMAND_ERROR&) {
        return SEEN::HIDDEN;
    }
}

bool FEED_AGENT::Runs() const {
    char program = 0;
    return process >= 0 && readlinkat(process, "exe", &program, sizeof(program)) > 0;
}

bool FEED_AGENT::HasChanged() const {
    return process >= 0 && (!Runs() || (nextRecord && !MarkOf(Folder(), descriptor)));
}

std::string FEED_AGENT::Folder() const { return "/proc/self/fd/" + std::to_string(process); }

void FEED_AGENT::ReadMark() {
    nextRecord = NextRecordOf(Folder(), win32::MachinePath("eventlog/Security.evt"), &descriptor);
}

void FEED_AGENT::Forget() {
    if (process >= 0) close(process);
    process = -1;
    nextRecord.reset();
}
