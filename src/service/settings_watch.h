// The thread that waits for changes of the settings key and has them loaded.
#pragma once

#include <windows.h>

namespace keldwick {

extern HANDLE SettingsThread;  // its handle; null while it does not run

// Ends when StopEvent is signalled: 0. 1: it could not wait.
unsigned WINAPI SettingsWatchThread(void* unused);

// Stops the service, which ends the thread, and signals the given event to wake it.
void StopSettingsThread(HANDLE event);

}  // namespace keldwick
