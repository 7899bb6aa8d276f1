#include "tools/keldwickctl/feed_agent.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_log.h"
#include "tools/keldwickctl/status_process.h"
#include "win32/files/machine_root.h"

namespace {

std::string LinkIn(int folder, const char* name) {
    std::array<char, 4096> target;
    const ssize_t length = readlinkat(folder, name, target.data(), target.size());
    return {target.data(), static_cast<size_t>(length > 0 ? length : 0)};
}

// The position of the process's descriptor: the agent keeps the number of the next record there. 0: none yet.
DWORD PositionOf(int process, const char* descriptor) {
    const int fd = openat(process, (std::string("fdinfo/") + descriptor).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    std::array<char, 256> text = {};
    const ssize_t got = read(fd, text.data(), text.size() - 1);
    close(fd);
    DWORD position = 0;
    return got > 0 && std::sscanf(text.data(), "pos: %u", &position) == 1 ? position : 0;
}

}  // namespace

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
    if (!nextRecord) return "does not follow the log yet";
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
        nextRecord = agent->nextRecord;
        return SEEN::RUNNING;
    } catch (const COMMAND_ERROR&) {
        return SEEN::HIDDEN;
    }
}

bool FEED_AGENT::Runs() const { return process >= 0 && !LinkIn(process, "exe").empty(); }

void FEED_AGENT::ReadMark() {
    nextRecord.reset();
    const int fd = openat(process, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const descriptors = fd < 0 ? nullptr : fdopendir(fd);
    if (descriptors == nullptr) {
        if (fd >= 0) close(fd);
        return;
    }
    while (const dirent* each = readdir(descriptors)) {
        const std::string target = LinkIn(fd, each->d_name);
        if (!target.ends_with("/eventlog/Security.evt") && !target.ends_with("/eventlog/Security.evt (deleted)"))
            continue;
        const DWORD position = PositionOf(process, each->d_name);
        if (position == 0) continue;
        nextRecord = position;
        break;
    }
    closedir(descriptors);
}

void FEED_AGENT::Forget() {
    if (process >= 0) close(process);
    process = -1;
    nextRecord.reset();
}
