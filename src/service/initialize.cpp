#include "service/initialize.h"

#include <windows.h>
#include <winsock2.h>

#include <iterator>

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "platform/registry_values.h"
#include "platform/security.h"
#include "platform/string.h"
#include "resources/message_ids.h"
#include "service/command_line.h"
#include "service/debug_modes.h"
#include "service/settings.h"
#include "service/stop.h"
#include "service/threads.h"

namespace keldwick {

namespace {

constexpr const WCHAR* SettingsThreadName = TEXT("Settings");
constexpr DWORD SettingsThreadStopMs = 5000;

HANDLE SettingsThread;      // null while it does not run
STRING AnonymousLogonName;  // for the log only

// Acknowledges the stop request that ended an earlier run, so that it does not end this one too.
void ResetStopRequest() {
    constexpr const WCHAR* name = SettingNamed(TEXT("Shutdown")).name;
    if (!RegGetValueInfo(SettingsKey.Get(), name, nullptr, nullptr)) return;
    RegSetDword(SettingsKey.Get(), name, 0);
    DebugPrint(TEXT("Registry value \"%s\" reset"), name);
}

void OpenStatisticsKey() {
    constexpr const WCHAR* subKey = TEXT("Statistics");
    const LSTATUS result = RegCreateKeyExW(SettingsKey.Get(), subKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                           KEY_ALL_ACCESS, nullptr, StatisticsKey.Put(), nullptr);
    if (result == ERROR_SUCCESS) return;
    ReportFailureEvent(EVENTLOG_WARNING_TYPE, MSG_CREATE_REGISTRY_KEY, static_cast<DWORD>(result),
                       FormatString(TEXT("%s\\%s"), SettingsKeyFullName, subKey).Text());
}

void LookUpAnonymousAccount() {
    const SID_OWNER anonymous(AllocateSid(SidNtAuthority, SubAuthorityFollows, 7, 0));
    if (!anonymous || !LookupSidAccount(anonymous.Get(), &AnonymousLogonName)) return;
    DebugPrint(TEXT("Anonymous Login account name = \"%s\""), AnonymousLogonName);
}

void CloseEvent(std::atomic<HANDLE>& event) {
    const HANDLE handle = event.exchange(INVALID_HANDLE_VALUE);
    if (handle && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
}

void CloseEvents() {
    CloseEvent(SettingsNotifyEvent);
    CloseEvent(StopEvent);
    CloseEvent(SettingsChangedEvent);
}

bool CreateOneEvent(std::atomic<HANDLE>& event, BOOL manualReset, const WCHAR* name) {
    const HANDLE handle = CreateEventW(nullptr, manualReset, FALSE, nullptr);
    if (!handle) {
        ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_CREATE_EVENT, GetLastError(), name);
        return false;
    }
    event = handle;
    return true;
}

bool CreateEvents() {
    if (CreateOneEvent(StopEvent, TRUE, TEXT("stop service")) &&
        CreateOneEvent(SettingsNotifyEvent, FALSE, TEXT("Settings")) &&
        CreateOneEvent(SettingsChangedEvent, FALSE, TEXT("settings changed"))) {
        return true;
    }
    CloseEvents();
    return false;
}

bool StartSettingsThread() {
    THREAD_GROUP group(SettingsThreadName, &SettingsThread, DebugPrintText, StopSettingsThread, SettingsNotifyEvent);
    if (!group.Start(SettingsWatchThread)) return false;
    group.Release();
    return true;
}

}  // namespace

bool ServiceInitialize() {
    SaveDebugOutputMode(CommandLine, SettingsKey.Get());
    if (!LoadSettings()) return false;
    ResetStopRequest();
    OpenStatisticsKey();
    LookUpAnonymousAccount();
    if (!CreateEvents()) return false;
    if (StartSettingsThread()) return true;
    CloseEvents();
    return false;
}

void ServiceUninitialize() {
    DebugPrint(TEXT("Uninitializing service"));
    StopThreads(SettingsThreadStopMs, DebugPrintText,
                {{SettingsThreadName, StopSettingsThread, SettingsNotifyEvent, &SettingsThread}});
    WSACleanup();
    CloseEvents();
}

// ---- The settings-watch thread ----

unsigned WINAPI SettingsWatchThread(void*) {
    DebugPrint(TEXT("%s thread started"), SettingsThreadName);

    enum SLOT : DWORD { STOP = WAIT_OBJECT_0, KEY_CHANGED };
    const HANDLE events[] = {StopEvent, SettingsNotifyEvent};
    for (;;) {
        RegNotifyChangeKeyValue(SettingsKey.Get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, events[KEY_CHANGED], TRUE);
        switch (WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events, FALSE, INFINITE)) {
            case STOP:
                DebugPrint(TEXT("%s thread normal exit"), SettingsThreadName);
                return 0;
            case KEY_CHANGED:
                ReloadSettings();
                break;
            default:
                DebugPrint(TEXT("%s thread abnormal exit"), SettingsThreadName);
                return 1;
        }
    }
}

void StopSettingsThread(HANDLE event) {
    StopService(TEXT("stopping worker thread"));
    SetEvent(event);
}

}  // namespace keldwick
