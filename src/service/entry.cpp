#include "service/entry.h"

#include <winsock2.h>
#include <winsvc.h>

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "directory/com.h"
#include "platform/host_names.h"
#include "platform/security.h"
#include "platform/string.h"
#include "platform/version.h"
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

namespace {

void ShowInvalidArgument(const WCHAR* argument) {
    const STRING text = ResourceFormat(nullptr, StringInvalidArgument, argument);
    MessageBoxW(nullptr, text.Text(), LoadResourceString(StringWarningCaption).Text(), MB_OK | MB_ICONEXCLAMATION);
}

// The key is never made here: that is the installer's work.
bool OpenSettingsKey() {
    const LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, SettingsKeyPath, 0, KEY_ALL_ACCESS, SettingsKey.Put());
    if (result == ERROR_SUCCESS) return true;
    ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_CREATE_REGISTRY_KEY, static_cast<DWORD>(result), SettingsKeyFullName);
    return false;
}

// ServiceUninitialize ends their use. What fails without them says so itself.
void StartSockets() {
    WSADATA granted;
    if (const int error = WSAStartup(MAKEWORD(2, 2), &granted))
        DebugPrintError(static_cast<DWORD>(error), TEXT("Unable to start Windows Sockets"));
}

// One identity, sent by hand.
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

// Applies the command line to the settings key.
int RunAsConfiguration() {
    if (!ServiceInitialize()) return EXIT_INITIALIZE_FAILED;
    ServiceUninitialize();
    return EXIT_DONE;
}

// Under the service control manager, or else as an application.
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

}  // namespace

int RunAsApplication() {
    DebugPrint(TEXT("Running as application"));
    if (!ServiceInitialize()) return EXIT_INITIALIZE_FAILED;
    ServiceWorker();
    ServiceUninitialize();
    return EXIT_DONE;
}

int RunProgram(int argc, WCHAR** argv) {
    const COM_APARTMENT apartment;
    ReadVersions();
    SetEventSourceModule(GetModuleHandleW(nullptr));
    SetDebugOutputPrefix(TEXT("KDWK: "));
    SetDebugCategoryName(DEBUG_AD, TEXT("AD"));
    SetDebugCategoryName(DEBUG_TCP, TEXT("TCP"));

    LoadSavedDebugOutputModes(CommandLine);
    if (const WCHAR* const invalid = ParseCommandLine(CommandLine, argv, static_cast<DWORD>(argc))) {
        ShowInvalidArgument(invalid);
        return EXIT_INVALID_ARGUMENT;
    }
    ApplyDebugOutputMode(CommandLine);
    LogVersionBanner();

    if (!OpenSettingsKey()) return EXIT_NO_SETTINGS_KEY;
    OpenLsaPolicy();
    StartSockets();
    LoadLocalHostInfo();
    return RunByCommandLine();
}

}  // namespace keldwick
