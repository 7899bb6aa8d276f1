// The other side of a service: systemd, which learns of states by notify messages (Type=notify), asks for a stop by
// SIGTERM or SIGINT, and watches that the service makes progress (WatchdogSec= of the unit).
#pragma once

#include <sys/types.h>
#include <windows.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "win32/sync/descriptor.h"

namespace win32 {

// Whether a service manager started this process and listens to it.
bool ServiceManagerPresent();

// The message for a state that a service reports. The state must be one of SERVICE_STOPPED to SERVICE_RUNNING.
std::string StateMessage(const SERVICE_STATUS& status);

// The message for a service that is about to stop; hint: milliseconds that it asks for, 0 none.
std::string StoppingMessage(DWORD waitHintMs = 0);

// The code that a stopped service gives its manager, service-specific or not.
DWORD CodeOf(const SERVICE_STATUS& status);

// Sends a message; false when it could not be delivered (last error set).
bool NotifyServiceManager(const std::string& message);

// Whether the machine is going down, which systemd does not report to the services that it stops for that. Asks its
// manager over the system bus, for two seconds at most; false also when it cannot be asked.
bool IsMachineShuttingDown();

// While it lives, SIGTERM and SIGINT make its event signalled and do nothing else, and SIGHUP, by which daemons are
// asked to read their settings again, does nothing: changed settings are noticed anyway. One at a time.
class STOP_SIGNALS {
public:
    STOP_SIGNALS();
    ~STOP_SIGNALS();
    STOP_SIGNALS(const STOP_SIGNALS&) = delete;
    STOP_SIGNALS& operator=(const STOP_SIGNALS&) = delete;

    // Readable once a signal has come; -1: no descriptor was to be had (errno set).
    int Descriptor() const { return signalled.Get(); }
    // Forgets the signals that have come; true when there were any.
    bool Take();

private:
    const DESCRIPTOR signalled;
};

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
    // Reports to the manager that all is well, unless the thread hangs: has not once fallen asleep or woken for longer
    // than any wait of the service lasts.
    void Look(pid_t thread);

private:
    int period = -1;
    PROGRESS progress;
};

// How often a thread of this process has gone to sleep by a call of its own; nothing when that is not known.
std::optional<uint64_t> TimesAsleep(pid_t thread);

}  // namespace win32
