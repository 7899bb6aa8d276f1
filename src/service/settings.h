// The agent's configuration: the values of one registry key, loaded once at start with the command line's overrides
// written back into the key, and loaded again whenever the key changes.
#pragma once

#include <windows.h>

#include <atomic>

#include "platform/critical_section.h"
#include "platform/handles.h"
#include "platform/string.h"

namespace keldwick {

constexpr const WCHAR* SettingsKeyPath = TEXT("SOFTWARE\\Vantorel Systems\\Keldwick");
constexpr const WCHAR* SettingsKeyFullName = TEXT("HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick");

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
