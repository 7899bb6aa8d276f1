#include "service/settings.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "platform/error_text.h"
#include "platform/registry_values.h"
#include "resources/message_ids.h"
#include "service/command_line.h"
#include "service/debug_modes.h"
#include "service/stop.h"

namespace keldwick {

SETTINGS Settings;
CRITICAL_SECTION_OWNER SettingsLock(5000);
REG_KEY SettingsKey;
REG_KEY StatisticsKey;

namespace {

constexpr const WCHAR* AdServerValue = SettingNamed(TEXT("AdServer")).name;
constexpr const WCHAR* IdentServerValue = SettingNamed(TEXT("IdentServer")).name;
constexpr SETTING_INFO ProtocolSetting = SettingNamed(TEXT("IdentProtocol"));
constexpr SETTING_INFO HeartbeatSetting = SettingNamed(TEXT("Heartbeat"));
constexpr SETTING_INFO LogonTtlSetting = SettingNamed(TEXT("LogonTTL"));
constexpr const WCHAR* ShutdownValue = SettingNamed(TEXT("Shutdown")).name;

constexpr DWORD StopRequested = 1;  // of the value Shutdown: what an administrator writes
constexpr DWORD StopTaken = 2;      // and what the agent answers

// 32-bit arithmetic by contract: from 71583 minutes on it wraps.
DWORD Milliseconds(DWORD minutes) { return minutes * 60000; }

const WCHAR* ProtocolName(DWORD protocol) {
    if (protocol == PROTOCOL_TCPS) return TEXT("secure TCP");
    if (protocol == PROTOCOL_TCP) return TEXT("TCP");
    return TEXT("automatic");
}

void LogUnreadable(const WCHAR* value, DWORD error) {
    DebugPrintError(error, TEXT("Unable to load registry value = %s"), value);
}

void ReportUnreadable(const WCHAR* value, DWORD error) {
    ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_QUERY_REGISTRY_VALUE, error, value, SettingsKeyFullName);
}

// A missing value is the normal case and says nothing; any other failure is logged.
DWORD ReadOrDefault(const SETTING_INFO& setting) {
    DWORD number = 0;
    if (RegGetDword(SettingsKey.Get(), setting.name, number)) return number;
    const DWORD error = GetLastError();
    if (error != ERROR_FILE_NOT_FOUND) LogUnreadable(setting.name, error);
    return setting.byDefault;
}

DWORD ReadProtocol() {
    const DWORD protocol = ReadOrDefault(ProtocolSetting);
    return protocol < 3 ? protocol : PROTOCOL_AUTO;
}

// Writes an override back; false: that failed and has been logged.
bool WriteBack(const WCHAR* value, const WCHAR* text) {
    if (RegSetString(SettingsKey.Get(), value, text)) return true;
    DebugPrintError(ERROR_CODE(), TEXT("Unable to set registry value \"%s\" in key \"%s\" to \"%s\""), value,
                    SettingsKeyFullName, text);
    return false;
}

bool WriteBack(const WCHAR* value, DWORD number) {
    if (RegSetDword(SettingsKey.Get(), value, number)) return true;
    DebugPrintError(ERROR_CODE(), TEXT("Unable to set registry value \"%s\" in key \"%s\" to %lu"), value,
                    SettingsKeyFullName, number);
    return false;
}

void ReadAdServer() {
    if (RegGetString(SettingsKey.Get(), AdServerValue, Settings.adServer)) {
        DebugPrint(TEXT("Active Directory server = \"%s\""), Settings.adServer);
        return;
    }
    const DWORD error = GetLastError();
    Settings.adServer.Clear();
    if (error != ERROR_FILE_NOT_FOUND) ReportUnreadable(AdServerValue, error);
}

void LoadAdServer() {
    const WCHAR* const given = CommandLine.adServer;
    if (!given) return ReadAdServer();
    if (*given == 0) {
        DebugPrint(TEXT("Using the Active Directory Global Cache"));
        const LSTATUS result = RegDeleteValueW(SettingsKey.Get(), AdServerValue);
        if (result != ERROR_SUCCESS && result != ERROR_FILE_NOT_FOUND) SetLastError(static_cast<DWORD>(result));
        Settings.adServer.Clear();
        return;
    }
    if (WriteBack(AdServerValue, given)) {
        DebugPrint(TEXT("Active Directory server = \"%s\" (/%s)"), given, TEXT("AD_SERVER"));
    }
    Settings.adServer.Assign(given);
}

bool LoadIdentServer() {
    if (const WCHAR* const given = CommandLine.identServer) {
        if (WriteBack(IdentServerValue, given)) {
            DebugPrint(TEXT("Identity server = \"%s\" (/%s)"), given, TEXT("SERVER"));
        }
        Settings.identServer.Assign(given);
        return true;
    }
    if (!RegGetString(SettingsKey.Get(), IdentServerValue, Settings.identServer)) {
        ReportUnreadable(IdentServerValue, GetLastError());
        return false;
    }
    DebugPrint(TEXT("Identity server = \"%s\""), Settings.identServer);
    return true;
}

void LoadIdentProtocol() {
    if (CommandLine.protocol == PROTOCOL_NOT_GIVEN) {
        const DWORD protocol = ReadProtocol();
        Settings.identProtocol = protocol;
        DebugPrint(TEXT("Identity protocol = %s"), ProtocolName(protocol));
        return;
    }
    const DWORD given = static_cast<DWORD>(CommandLine.protocol);
    Settings.identProtocol = given;
    if (WriteBack(ProtocolSetting.name, given)) {
        DebugPrint(TEXT("Identity protocol = %s (/%s)"), ProtocolName(given), TEXT("PROTOCOL"));
    }
}

void SetHeartbeat(DWORD minutes) {
    DebugPrint(TEXT("Heartbeat interval = %lu (minutes)"), minutes);
    Settings.heartbeat = Milliseconds(minutes);
}

void SetLogonTtl(DWORD minutes) {
    DebugPrint(TEXT("Logon time-to-live = %lu (minutes)"), minutes);
    Settings.logonTtl = Milliseconds(minutes);
}

// True: an administrator asked for a stop, which is now under way.
bool TakeStopRequest() {
    DWORD shutdown = 0;
    if (!RegGetDword(SettingsKey.Get(), ShutdownValue, shutdown) || shutdown != StopRequested) return false;
    RegSetDword(SettingsKey.Get(), ShutdownValue, StopTaken);
    StopService(FormatString(TEXT("Registry value \"%s\" set"), ShutdownValue));
    return true;
}

bool ReloadProtocol() {
    const DWORD protocol = ReadProtocol();
    if (protocol == Settings.identProtocol) return false;
    DebugPrint(TEXT("Identity protocol changed to %s"), ProtocolName(protocol));
    Settings.identProtocol = protocol;
    return true;
}

// Case counts here although it does not when the session compares names: such a change is only logged, it does not
// cause a reconnection.
bool ReloadIdentServer() {
    STRING server;
    if (!RegGetString(SettingsKey.Get(), IdentServerValue, server)) {
        LogUnreadable(IdentServerValue, GetLastError());
        return false;
    }
    if (server.Equals(Settings.identServer)) return false;
    DebugPrint(TEXT("Ident server changed from \"%s\" to \"%s\""), Settings.identServer, server);
    Settings.identServer = server;
    return true;
}

void ReloadAdServer() {
    STRING server;
    if (RegGetString(SettingsKey.Get(), AdServerValue, server)) {
        if (server.Equals(Settings.adServer)) return;
        if (!server.IsEmpty()) {
            DebugPrint(TEXT("Active Directory server changed from \"%s\" to \"%s\""), Settings.adServer, server);
            Settings.adServer = server;
            return;
        }
    } else if (const DWORD error = GetLastError(); error != ERROR_FILE_NOT_FOUND) {
        return LogUnreadable(AdServerValue, error);
    } else if (Settings.adServer.IsEmpty()) {
        return DebugPrint(TEXT("Using the Active Directory Global Cache"));
    }
    DebugPrint(TEXT("Active Directory server changed from \"%s\" to the Global Cache"), Settings.adServer);
    Settings.adServer.Clear();
}

// Calls `set` with the minutes when they can be read and are new.
void ReloadMinutes(const WCHAR* value, DWORD current, void (*set)(DWORD minutes)) {
    DWORD minutes = 0;
    if (RegGetDword(SettingsKey.Get(), value, minutes) && Milliseconds(minutes) != current) set(minutes);
}

}  // namespace

bool LoadSettings() {
    DebugPrint(TEXT("Loading settings ..."));
    LoadAdServer();
    const bool loaded = LoadIdentServer();
    LoadIdentProtocol();
    SetHeartbeat(ReadOrDefault(HeartbeatSetting));
    SetLogonTtl(ReadOrDefault(LogonTtlSetting));
    return loaded;
}

void ReloadSettings() {
    DebugPrint(TEXT("Reloading settings ..."));
    if (TakeStopRequest()) return;
    ReloadDebugOutputMode(CommandLine, SettingsKey.Get());

    bool changed = false;
    {
        const LOCK_GUARD lock(SettingsLock);
        if (ReloadProtocol()) changed = true;
        if (ReloadIdentServer()) changed = true;
        ReloadAdServer();
        ReloadMinutes(HeartbeatSetting.name, Settings.heartbeat, SetHeartbeat);
        ReloadMinutes(LogonTtlSetting.name, Settings.logonTtl, SetLogonTtl);
    }
    if (changed) SetEvent(SettingsChangedEvent);
}

void GetAdServer(STRING& server) {
    const LOCK_GUARD lock(SettingsLock);
    server = Settings.adServer;
}

void GetIdentServer(STRING& server) {
    const LOCK_GUARD lock(SettingsLock);
    server = Settings.identServer;
}

}  // namespace keldwick
