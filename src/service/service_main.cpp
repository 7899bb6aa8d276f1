#include "service/service_main.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "directory/com.h"
#include "platform/version.h"
#include "resources/message_ids.h"
#include "service/command_line.h"
#include "service/debug_modes.h"
#include "service/initialize.h"
#include "service/service_worker.h"
#include "service/stop.h"

namespace keldwick {

namespace {

constexpr DWORD StartWaitHintMs = 30000;

SERVICE_STATUS_HANDLE StatusHandle;
DWORD CurrentState = SERVICE_STOPPED;  // the last state reported; kept for a debugger, read by nothing

bool SetStatus(DWORD state, DWORD exitCode, bool serviceSpecific, DWORD checkPoint, DWORD waitHint) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS | SERVICE_INTERACTIVE_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_START_PENDING ? 0 : SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
    status.dwWin32ExitCode = serviceSpecific ? ERROR_SERVICE_SPECIFIC_ERROR : exitCode;
    status.dwServiceSpecificExitCode = serviceSpecific ? exitCode : 0;
    status.dwCheckPoint = checkPoint;
    status.dwWaitHint = waitHint;
    CurrentState = state;
    if (SetServiceStatus(StatusHandle, &status)) return true;
    ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_SET_SERVICE_STATUS, GetLastError());
    return false;
}

void ReportStopped(DWORD serviceSpecificCode) { ReportServiceStatus(SERVICE_STOPPED, serviceSpecificCode, true, 0, 0); }

}  // namespace

bool ReportServiceStatus(DWORD state, DWORD exitCode, bool serviceSpecific, DWORD checkPoint, DWORD waitHint) {
    if (SetStatus(state, exitCode, serviceSpecific, checkPoint, waitHint)) return true;
    SetStatus(SERVICE_STOPPED, EXIT_STATUS_REFUSED, true, 0, 0);  // one more attempt, whatever comes of it
    return false;
}

DWORD WINAPI ServiceControlHandler(DWORD control, DWORD, LPVOID, LPVOID) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            StopService(TEXT("SERVICE_CONTROL_STOP"));
            return NO_ERROR;
        case SERVICE_CONTROL_SHUTDOWN:
            StopService(TEXT("SERVICE_CONTROL_SHUTDOWN"));
            return NO_ERROR;
        default:
            DebugPrint(TEXT("Service control code = %lu not implemented"), control);
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void WINAPI ServiceMain(DWORD count, LPWSTR* arguments) {
    const COM_APARTMENT apartment;
    StatusHandle = RegisterServiceCtrlHandlerExW(ServiceName, ServiceControlHandler, nullptr);
    if (!StatusHandle) {
        DebuggerPrint(TEXT("Unable to register service. error = %lu"), GetLastError());
        return;
    }
    if (const WCHAR* const invalid = ParseCommandLine(CommandLine, arguments, count)) {
        ReportServiceEvent(EVENTLOG_ERROR_TYPE, MSG_START_PARAMETER, {invalid});
        return ReportStopped(EXIT_INVALID_PARAMETER);
    }
    ApplyDebugOutputMode(CommandLine);
    LogVersionBanner();

    if (!ReportServiceStatus(SERVICE_START_PENDING, NO_ERROR, false, 1, StartWaitHintMs)) return;
    if (!ServiceInitialize()) return ReportStopped(EXIT_NOT_INITIALIZED);
    if (!ReportServiceStatus(SERVICE_RUNNING, NO_ERROR, false, 0, 0)) return;
    ServiceWorker();  // no stop-pending is ever reported: the manager sees a running service until it has stopped
    ServiceUninitialize();
    ReportServiceStatus(SERVICE_STOPPED, NO_ERROR, false, 0, 0);
}

}  // namespace keldwick
