// The manager's watchdog (WatchdogSec= of the unit): it is told regularly that the service's thread still gets on.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace win32 {

// Whether something that counts up still does.
class PROGRESS {
public:
    using TIME = std::chrono::steady_clock::time_point;

    explicit PROGRESS(std::chrono::milliseconds longestSilence) : limit(longestSilence) {}

    // Takes the count as it stands; one that could not be had stands still. False once it has for longer than the
    // limit.
    bool Made(std::optional<uint64_t> count, TIME now);

private:
    const std::chrono::milliseconds limit;
    std::optional<uint64_t> last;
    std::optional<TIME> moved;
};

class WATCHDOG {
public:
    WATCHDOG();

    // How often to call Look, in milliseconds; -1: the manager does not watch this process.
    int PeriodMs() const { return period; }
    // Tells the manager that all is well, unless the thread hangs: has not once fallen asleep or woken for longer than
    // any wait of the service lasts.
    void Look(pid_t thread);

private:
    int period = -1;
    PROGRESS progress;
};

// How often a thread of this process has gone to sleep of its own accord; nothing when that cannot be told.
std::optional<uint64_t> TimesAsleep(pid_t thread);

}  // namespace win32
