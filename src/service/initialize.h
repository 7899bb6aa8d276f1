// What every run of the worker, and the configure-only run, needs before and gives back after: the settings, the events
// and the thread that has changes of the settings key loaded.
#pragma once

#include <windows.h>

namespace keldwick {

// Applies and loads the settings, makes the process's events and starts the settings-watch thread. False: it could not,
// which has been reported, and nothing is left open.
bool ServiceInitialize();

// Stops the settings-watch thread, and the service with it, and closes the events. Only after a successful
// ServiceInitialize.
void ServiceUninitialize();

// The routine of that thread. Ends when StopEvent is signalled: 0. 1: it could not wait.
unsigned WINAPI SettingsWatchThread(void* unused);

// Stops the service, which ends the thread, and signals the given event to wake it.
void StopSettingsThread(HANDLE event);

}  // namespace keldwick
