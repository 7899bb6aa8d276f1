#include "win32/services/watchdog.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <string>

#include "win32/services/service_manager.h"

namespace win32 {
namespace {

// Twice the longest wait of a service's worker, which is the minute between two sweeps or two attempts to connect.
constexpr std::chrono::minutes LongestSilence{2};
constexpr uint64_t LooksPerTimeout = 4;  // a look that comes late must not cost the service its life
constexpr uint64_t MicrosecondsPerMillisecond = 1000;

}  // namespace

bool PROGRESS::Made(std::optional<uint64_t> count, TIME now) {
    if (!moved || (count && count != last)) {
        moved = now;
        last = count;
    }
    return now - *moved <= limit;
}

std::optional<uint64_t> TimesAsleep(pid_t thread) {
    constexpr std::string_view label = "voluntary_ctxt_switches:";
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(label)) return std::strtoull(line.c_str() + label.size(), nullptr, 10);
    }
    return std::nullopt;
}

WATCHDOG::WATCHDOG() : progress(LongestSilence) {
    uint64_t timeout = 0;
    if (sd_watchdog_enabled(0, &timeout) <= 0) return;
    const uint64_t wanted = timeout / LooksPerTimeout / MicrosecondsPerMillisecond;
    period = static_cast<int>(std::clamp<uint64_t>(wanted, 1, INT_MAX));
}

void WATCHDOG::Look(pid_t thread) {
    if (period > 0 && progress.Made(TimesAsleep(thread), std::chrono::steady_clock::now()))
        NotifyServiceManager("WATCHDOG=1");
}

}  // namespace win32
