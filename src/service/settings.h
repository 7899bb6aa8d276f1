// The agent's configuration: the values of one registry key, loaded once at start with the command line's overrides
// written back into the key, and loaded again whenever the key changes.
#pragma once

#include <windows.h>

#include <atomic>

#include "platform/handles.h"
#include "platform/string.h"

namespace keldwick {

constexpr const WCHAR* SettingsKeyPath = TEXT("SOFTWARE\\Vantorel Systems\\Keldwick");
constexpr const WCHAR* SettingsKeyFullName = TEXT("HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick");

// The ports of every identity server; no setting changes them.
constexpr int PlainPort = 1306;
constexpr int SecurePort = 1308;

// One value below the settings key. The table is all that the agent, keldwickctl, its completion and the manual know of
// the values; those below Linux are read by the Windows interfaces on Linux.
constexpr DWORD NoDefault = MAXDWORD;
struct SETTING_INFO {
    const WCHAR* name;
    DWORD type;                   // REG_SZ or REG_DWORD
    const char* unit = "";        // of a number
    DWORD byDefault = NoDefault;  // of a number that is absent
};
inline constexpr SETTING_INFO SettingTable[] = {
    {TEXT("IdentServer"), REG_SZ},
    {TEXT("IdentProtocol"), REG_DWORD, "", 0},
    {TEXT("AdServer"), REG_SZ},
    {TEXT("Heartbeat"), REG_DWORD, "minutes", 30},
    {TEXT("LogonTTL"), REG_DWORD, "minutes", 12},
    {TEXT("Shutdown"), REG_DWORD},
    {TEXT("DebugOutput"), REG_DWORD},
    {TEXT("Statistics\\ServiceTickets"), REG_DWORD},
    {TEXT("Statistics\\Logons"), REG_DWORD},
    {TEXT("Linux\\NameLookupTimeout"), REG_DWORD, "milliseconds", 2000},
    {TEXT("Linux\\DirectoryBackend"), REG_SZ},
    {TEXT("Linux\\DirectoryUri"), REG_SZ},
    {TEXT("Linux\\DirectoryDomain"), REG_SZ},
    {TEXT("Linux\\DirectoryBind"), REG_SZ},
    {TEXT("Linux\\DirectoryUser"), REG_SZ},
    {TEXT("Linux\\DirectoryPasswordFile"), REG_SZ},
    {TEXT("Linux\\DirectoryKeytab"), REG_SZ},
    {TEXT("Linux\\DirectoryCaFile"), REG_SZ},
    {TEXT("Linux\\DirectoryStartTls"), REG_DWORD, "", 0},
    {TEXT("Linux\\OsMajor"), REG_DWORD, "", 10},
    {TEXT("Linux\\OsMinor"), REG_DWORD, "", 0},
    {TEXT("Linux\\OsBuild"), REG_DWORD, "", 20348},
    {TEXT("Linux\\OsProductType"), REG_DWORD, "", 3},
    {TEXT("Linux\\OsServicePack"), REG_DWORD, "", 0},
};

// The row of that name; a name without a row does not compile.
consteval const SETTING_INFO& SettingNamed(TEXT_VIEW name) {
    for (const SETTING_INFO& setting : SettingTable) {
        if (name == setting.name) return setting;
    }
    throw "no such setting";
}

struct SETTINGS {
    STRING adServer;                       // guarded by SettingsLock; empty: the Active Directory global catalog
    STRING identServer;                    // guarded by SettingsLock
    std::atomic<DWORD> identProtocol = 0;  // PROTOCOL_AUTO, PROTOCOL_TCPS or PROTOCOL_TCP
    std::atomic<DWORD> heartbeat = 0;      // milliseconds between two heartbeats of one logon
    std::atomic<DWORD> logonTtl = 0;       // milliseconds after which a logon expires
};

extern SETTINGS Settings;
extern CRITICAL_SECTION_OWNER SettingsLock;  // guards the two names; only the debug output's lock is taken inside it
extern REG_KEY SettingsKey;                  // opened by the entry point, open until the process ends
extern REG_KEY StatisticsKey;                // its subkey Statistics; empty when it could not be made

// Loads every value, applying and writing back the overrides in CommandLine. False: no identity server can be read,
// which has been reported. Takes no lock: called before any other thread reads the settings.
bool LoadSettings();

// Answers a change of the key: stops the service when the value Shutdown asks for it, else loads what changed and sets
// SettingsChangedEvent when the connection depends on it. Only the settings-watch thread calls this.
void ReloadSettings();

void GetAdServer(STRING& server);     // copies under SettingsLock
void GetIdentServer(STRING& server);  // copies under SettingsLock

}  // namespace keldwick
