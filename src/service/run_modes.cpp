#include "service/run_modes.h"

#include <windows.h>
#include <winsvc.h>

#include "diagnostics/debug_output.h"
#include "diagnostics/failure_event.h"
#include "protocol/identity_protocol.h"
#include "protocol/manual_report.h"
#include "resources/message_ids.h"
#include "service/command_line.h"
#include "service/debug_modes.h"
#include "service/initialize.h"
#include "service/service_main.h"
#include "service/service_worker.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {

int RunAsApplication() {
    DebugPrint(TEXT("Running as application"));
    if (!ServiceInitialize()) return EXIT_INITIALIZE_FAILED;
    ServiceWorker();
    ServiceUninitialize();
    return EXIT_DONE;
}

int RunAsManualReport() {
    StopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    LoadSettings();
    SaveDebugOutputMode(CommandLine, SettingsKey.Get());
    if (CommandLine.reportIdentity) {
        IDENTITY_PROTOCOL session;
        CurrentSession = &session;
        RunManualReport();
        CurrentSession = nullptr;
    }
    CloseHandle(StopEvent.exchange(INVALID_HANDLE_VALUE));
    return EXIT_DONE;
}

int RunAsConfiguration() {
    if (!ServiceInitialize()) return EXIT_INITIALIZE_FAILED;
    ServiceUninitialize();
    return EXIT_DONE;
}

int RunAsService() {
    STRING name(ServiceName);
    const SERVICE_TABLE_ENTRYW services[] = {{name.Buffer(), ServiceMain}, {nullptr, nullptr}};
    if (StartServiceCtrlDispatcherW(services)) return EXIT_DONE;
    const DWORD error = GetLastError();
    if (error == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) return RunAsApplication();  // started by hand
    ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_START_DISPATCHER, error);
    return EXIT_DISPATCHER_FAILED;
}

int RunByCommandLine() {
    if (CommandLine.manualReport) return RunAsManualReport();
    if (CommandLine.configureOnly) return RunAsConfiguration();
    if (CommandLine.application) return RunAsApplication();
    return RunAsService();
}

}  // namespace keldwick
