// The process-wide events, which signal a stop and changed settings, and the one routine through which every cause of a
// stop goes.
#pragma once

#include <windows.h>

#include <atomic>

#include "platform/string.h"

namespace keldwick {

// Null before ServiceInitialize made them, INVALID_HANDLE_VALUE after ServiceUninitialize closed them.
extern std::atomic<HANDLE> StopEvent;             // manual reset; once signalled every loop ends, never reset
extern std::atomic<HANDLE> SettingsNotifyEvent;   // auto reset; the settings key changed
extern std::atomic<HANDLE> SettingsChangedEvent;  // auto reset; the identity server or the protocol changed

// The pause before what the worker cannot do without (the event log, the identity server) is tried again.
constexpr DWORD RetryPauseMs = 60000;

// Logs the reason, reports the "stopped" event unless a stop was asked for before, and signals StopEvent. Any thread
// may call it, any number of times; before StopEvent exists it only logs.
void StopService(const WCHAR* reason);
inline void StopService(const STRING& reason) { StopService(reason.Text()); }

}  // namespace keldwick
