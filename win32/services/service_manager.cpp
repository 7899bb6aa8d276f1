#include "win32/services/service_manager.h"

#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr uint64_t MicrosecondsPerMillisecond = 1000;

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
STOP_SIGNALS::STOP_SIGNALS() {
    signalDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signalDescriptor < 0) return;
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, &formerTerm);
    sigaction(SIGINT, &action, &formerInterrupt);
    action.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &action, &formerHangUp);
}

STOP_SIGNALS::~STOP_SIGNALS() {
    if (signalDescriptor < 0) return;
    sigaction(SIGTERM, &formerTerm, nullptr);
    sigaction(SIGINT, &formerInterrupt, nullptr);
    sigaction(SIGHUP, &formerHangUp, nullptr);
    close(signalDescriptor.exchange(-1));
}

int STOP_SIGNALS::Descriptor() const { return signalDescriptor; }

bool STOP_SIGNALS::Take() {
    uint64_t count;
    return read(signalDescriptor, &count, sizeof(count)) == sizeof(count);
}

}  // namespace win32
