#include "win32/services/service_manager.h"

#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "win32/text/last_error.h"
#include "win32/text/numbers.h"

namespace win32 {
namespace {

constexpr uint64_t MicrosecondsPerMillisecond = 1000;

// Twice the longest wait of a service's worker, which is the minute between two sweeps or two attempts to connect.
constexpr std::chrono::minutes LongestSilence{2};
constexpr uint64_t LooksPerTimeout = 4;  // a look that comes late must not cost the service its life

std::atomic<int> signalDescriptor{-1};
struct sigaction formerTerm, formerInterrupt, formerHangUp;

extern "C" void OnStopSignal(int) {
    const int before = errno;
    const uint64_t one = 1;
    const int fd = signalDescriptor.load();
    if (fd >= 0 && write(fd, &one, sizeof(one)) < 0) errno = before;  // full: it is signalled already
    errno = before;
}

// While a state is pending the manager waits longer, by the hint that the service gives.
std::string Pending(const char* text, DWORD waitHintMs) {
    std::string message = text;
    if (waitHintMs != 0) message += "\nEXTEND_TIMEOUT_USEC=" + std::to_string(waitHintMs * MicrosecondsPerMillisecond);
    return message;
}

std::string Stopped(const SERVICE_STATUS& status) {
    const bool specific = status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR;
    const DWORD code = CodeOf(status);
    std::string message = "STOPPING=1\nSTATUS=Stopped";
    if (code != 0) message += (specific ? ", service-specific exit code " : ", exit code ") + std::to_string(code);
    return message;
}

using CLOCK = std::chrono::steady_clock;
using BUS = std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)>;

struct ANSWER {
    bool arrived = false;
    std::string state;  // empty: it was an error
};

int OnAnswer(sd_bus_message* message, void* memory, sd_bus_error*) {
    ANSWER& answer = *static_cast<ANSWER*>(memory);
    const char* state = nullptr;
    if (sd_bus_message_is_method_error(message, nullptr) == 0 && sd_bus_message_read(message, "v", "s", &state) > 0)
        answer.state = state;
    answer.arrived = true;
    return 0;
}

// Not sd_bus_call and its like: they may wait a minute and more for a bus that is not there yet.
void Await(sd_bus* bus, const ANSWER& answer, CLOCK::time_point end) {
    while (!answer.arrived) {
        const int done = sd_bus_process(bus, nullptr);
        if (done < 0) return;
        if (done > 0) continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - CLOCK::now()).count();
        if (left <= 0 || sd_bus_wait(bus, static_cast<uint64_t>(left)) < 0) return;
    }
}

}  // namespace

bool ServiceManagerPresent() {
    const char* socket = std::getenv("NOTIFY_SOCKET");
    return socket != nullptr && *socket != 0;
}

DWORD CodeOf(const SERVICE_STATUS& status) {
    return status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR ? status.dwServiceSpecificExitCode
                                                                  : status.dwWin32ExitCode;
}

std::string StoppingMessage(DWORD waitHintMs) { return Pending("STOPPING=1\nSTATUS=Stopping", waitHintMs); }

std::string StateMessage(const SERVICE_STATUS& status) {
    switch (status.dwCurrentState) {
        case SERVICE_START_PENDING:
            return Pending("STATUS=Starting", status.dwWaitHint);
        case SERVICE_RUNNING:
            return "READY=1\nSTATUS=Running";
        case SERVICE_STOP_PENDING:
            return StoppingMessage(status.dwWaitHint);
        default:
            return Stopped(status);
    }
}

bool NotifyServiceManager(const std::string& message) {
    const int sent = sd_notify(0, message.c_str());
    if (sent > 0) return true;
    return FailWith(sent < 0 ? ErrorFromErrno(-sent) : ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
}

// A handler, not a blocked signal: threads that started before would still take the signal and die of it.
STOP_SIGNALS::STOP_SIGNALS() : signalled(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!signalled) return;
    signalDescriptor = signalled.Get();
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, &formerTerm);
    sigaction(SIGINT, &action, &formerInterrupt);
    action.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &action, &formerHangUp);
}

STOP_SIGNALS::~STOP_SIGNALS() {
    if (!signalled) return;
    sigaction(SIGTERM, &formerTerm, nullptr);
    sigaction(SIGINT, &formerInterrupt, nullptr);
    sigaction(SIGHUP, &formerHangUp, nullptr);
    signalDescriptor = -1;
}

bool STOP_SIGNALS::Take() {
    uint64_t count;
    return read(signalled.Get(), &count, sizeof(count)) == sizeof(count);
}

bool IsMachineShuttingDown() {
    constexpr std::chrono::seconds maxWait{2};
    sd_bus* connection = nullptr;
    if (sd_bus_open_system(&connection) < 0) return false;
    const BUS bus(connection, sd_bus_close_unref);
    ANSWER answer;
    if (sd_bus_call_method_async(bus.get(), nullptr, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                                 "org.freedesktop.DBus.Properties", "Get", OnAnswer, &answer, "ss",
                                 "org.freedesktop.systemd1.Manager", "SystemState") >= 0)
        Await(bus.get(), answer, CLOCK::now() + maxWait);
    return answer.state == "stopping";
}

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
        if (line.starts_with(label))
            return ToNumber<uint64_t>(std::string_view(line).substr(line.find_last_of(" \t") + 1));
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
