#include "service/entry.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/failure_event.h"
#include "platform/account_names.h"
#include "platform/host_names.h"
#include "platform/resource_strings.h"
#include "resources/message_ids.h"
#include "service/com_apartment.h"
#include "service/command_line.h"
#include "service/debug_modes.h"
#include "service/run_modes.h"
#include "service/settings.h"
#include "service/version_banner.h"

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

}  // namespace

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
    LoadLocalHostInfo();
    return RunByCommandLine();
}

}  // namespace keldwick
