// The service control dispatcher: runs the service on a thread of its own, hands it the stop control, and returns when
// the service has stopped.
#include <poll.h>
#include <process.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "win32/services/exit_status.h"
#include "win32/services/service_manager.h"
#include "win32/sync/descriptor.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr DWORD AlreadyRunning = 1056;          // ERROR_SERVICE_ALREADY_RUNNING
constexpr DWORD ProcessAborted = 1067;          // ERROR_PROCESS_ABORTED
constexpr DWORD NotInThisProgram = 1083;        // ERROR_SERVICE_NOT_IN_EXE
constexpr useconds_t FailurePauseUs = 100'000;  // after a call that failed
constexpr DWORD MaxEndMs = 5000;                // for what ServiceMain does after its report of SERVICE_STOPPED

// What the process was started with, without the program's name: the unit's arguments.
std::vector<std::u16string> ProcessArguments() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::vector<std::u16string> arguments;
    std::string argument;
    std::getline(file, argument, '\0');  // the program
    while (std::getline(file, argument, '\0')) arguments.push_back(ToUtf16(argument));
    return arguments;
}

// The one service of this process, from the dispatcher's start to its end.
class SERVICE {
public:
    SERVICE() : changed(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    bool Run(const SERVICE_TABLE_ENTRYW& entry);
    SERVICE_STATUS_HANDLE Register(LPCWSTR wanted, LPHANDLER_FUNCTION_EX function, LPVOID argument);
    bool Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status);
    DWORD ExitCode();

private:
    static unsigned WINAPI ServiceThread(LPVOID argument);

    bool Begin(const SERVICE_TABLE_ENTRYW& entry);
    void End();
    void DispatchUntilStopped(STOP_SIGNALS& signals);
    bool IsStopDue();
    void PassOnStop();
    bool Stopped();
    void Wake();

    SERVICE_STATUS_HANDLE Handle() { return reinterpret_cast<SERVICE_STATUS_HANDLE>(this); }

    std::mutex lock;
    const DESCRIPTOR changed;  // written at every change that the dispatcher must look at
    bool active = false;
    std::u16string name;
    LPSERVICE_MAIN_FUNCTIONW main = nullptr;
    LPHANDLER_FUNCTION_EX handler = nullptr;
    LPVOID context = nullptr;
    std::vector<std::u16string> startParameters;  // the service's name, the unit's arguments
    std::atomic<pid_t> thread = 0;                // the kernel's number of the service's thread
    DWORD accepted = 0;
    DWORD exitCode = 0;
    bool stopWanted = false;
    bool stopped = false;
};

bool SERVICE::Begin(const SERVICE_TABLE_ENTRYW& entry) {
    const std::lock_guard guard(lock);
    if (active) return FailWith(AlreadyRunning);
    if (!changed) return FailWith(ERROR_TOO_MANY_OPEN_FILES);
    active = true;
    name = entry.lpServiceName;
    startParameters = ProcessArguments();
    startParameters.insert(startParameters.begin(), name);
    main = entry.lpServiceProc;
    handler = nullptr;
    accepted = exitCode = 0;
    thread = 0;
    stopWanted = stopped = false;
    return true;
}

void SERVICE::End() {
    const std::lock_guard guard(lock);
    active = false;
    handler = nullptr;
}

bool SERVICE::Run(const SERVICE_TABLE_ENTRYW& entry) {
    if (!Begin(entry)) return false;
    STOP_SIGNALS signals;
    const bool ready = signals.Descriptor() >= 0;
    HANDLE started =
        ready ? reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, ServiceThread, this, 0, nullptr)) : nullptr;
    if (started != nullptr) {
        DispatchUntilStopped(signals);
        WaitForSingleObject(started, MaxEndMs);
        CloseHandle(started);
    }
    End();
    return started != nullptr || FailWith(ERROR_NOT_ENOUGH_MEMORY);
}

unsigned WINAPI SERVICE::ServiceThread(LPVOID argument) {
    SERVICE& service = *static_cast<SERVICE*>(argument);
    service.thread = gettid();
    std::vector<LPWSTR> arguments;
    for (std::u16string& parameter : service.startParameters) arguments.push_back(parameter.data());
    arguments.push_back(nullptr);
    service.main(static_cast<DWORD>(arguments.size() - 1), arguments.data());
    if (!service.Stopped()) {  // no other thread reports it to the manager
        SERVICE_STATUS status{};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status.dwCurrentState = SERVICE_STOPPED;
        status.dwWin32ExitCode = ProcessAborted;
        service.Report(service.Handle(), status);
    }
    return 0;
}

// Goes on when a call of its own fails: the process ends with the dispatcher, and takes away what the service works
// with.
void SERVICE::DispatchUntilStopped(STOP_SIGNALS& signals) {
    WATCHDOG watchdog;
    while (!Stopped()) {
        pollfd polled[] = {{signals.Descriptor(), POLLIN, 0}, {changed.Get(), POLLIN, 0}};
        if (poll(polled, 2, watchdog.PeriodMs()) < 0 && errno != EINTR) usleep(FailurePauseUs);
        if (signals.Take()) {
            const std::lock_guard guard(lock);
            stopWanted = true;
        }
        uint64_t changes;
        if (read(changed.Get(), &changes, sizeof(changes)) < 0 && errno != EAGAIN && errno != EINTR)
            usleep(FailurePauseUs);
        PassOnStop();
        if (thread != 0) watchdog.Look(thread);
    }
}

// A stop that comes while the service does not accept it yet is kept until it does.
bool SERVICE::IsStopDue() {
    const std::lock_guard guard(lock);
    return stopWanted && handler != nullptr && (accepted & SERVICE_ACCEPT_STOP) != 0 && !stopped;
}

// systemd stops a service by the same signal whatever the reason; a service that wants to hear of the machine's
// shutdown is given that control then.
void SERVICE::PassOnStop() {
    if (!IsStopDue()) return;
    const bool shutdown = IsMachineShuttingDown();
    LPHANDLER_FUNCTION_EX function;
    LPVOID argument;
    DWORD control;
    {
        const std::lock_guard guard(lock);
        stopWanted = false;
        function = handler;
        argument = context;
        control =
            shutdown && (accepted & SERVICE_ACCEPT_SHUTDOWN) != 0 ? SERVICE_CONTROL_SHUTDOWN : SERVICE_CONTROL_STOP;
    }
    NotifyServiceManager(StoppingMessage());  // a service need not report that it is about to stop
    function(control, 0, nullptr, argument);
}

bool SERVICE::Stopped() {
    const std::lock_guard guard(lock);
    return stopped;
}

void SERVICE::Wake() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(changed.Get(), &one, sizeof(one));  // full: it is awake already
}

SERVICE_STATUS_HANDLE SERVICE::Register(LPCWSTR wanted, LPHANDLER_FUNCTION_EX function, LPVOID argument) {
    const std::lock_guard guard(lock);
    const DWORD error = !active                                    ? ERROR_FAILED_SERVICE_CONTROLLER_CONNECT
                        : wanted == nullptr || !function           ? ERROR_INVALID_PARAMETER
                        : !name.empty() && !SameName(wanted, name) ? NotInThisProgram
                                                                   : ERROR_SUCCESS;
    if (error != ERROR_SUCCESS) return win32::NullWith(error);
    handler = function;
    context = argument;
    return Handle();
}

bool SERVICE::Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status) {
    {
        const std::lock_guard guard(lock);
        if (!active || handle != Handle()) return FailWith(ERROR_INVALID_HANDLE);
        if (status.dwCurrentState < SERVICE_STOPPED || status.dwCurrentState > SERVICE_RUNNING)
            return FailWith(ERROR_INVALID_DATA);
        // Sent under the lock, so that the manager sees the states in the order in which they were reported.
        const bool delivered = NotifyServiceManager(StateMessage(status));
        if (status.dwCurrentState == SERVICE_STOPPED) {
            stopped = true;  // delivered or not: the dispatcher must end
            exitCode = CodeOf(status);
        }
        if (!delivered) {
            if (stopped) Wake();
            return false;
        }
        accepted = status.dwControlsAccepted;
    }
    Wake();
    return true;
}

DWORD SERVICE::ExitCode() {
    const std::lock_guard guard(lock);
    return exitCode;
}

// Never destroyed: a service thread that outlives the dispatcher may still report.
SERVICE& TheService() {
    static SERVICE& service = *new SERVICE;
    return service;
}

}  // namespace

int ServiceExitStatus() {
    const DWORD code = TheService().ExitCode();
    const int status = static_cast<int>(code & 0xFF);
    return code != 0 && status == 0 ? 1 : status;
}

}  // namespace win32

BOOL WINAPI StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table) {
    if (table == nullptr || table->lpServiceName == nullptr || table->lpServiceProc == nullptr)
        return win32::FailWith(ERROR_INVALID_DATA);
    if (!win32::ServiceManagerPresent()) return win32::FailWith(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    return win32::TheService().Run(*table);
}

SERVICE_STATUS_HANDLE WINAPI RegisterServiceCtrlHandlerExW(LPCWSTR name, LPHANDLER_FUNCTION_EX handler,
                                                           LPVOID context) {
    return win32::TheService().Register(name, handler, context);
}

BOOL WINAPI SetServiceStatus(SERVICE_STATUS_HANDLE service, LPSERVICE_STATUS status) {
    if (status == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    return win32::TheService().Report(service, *status);
}
