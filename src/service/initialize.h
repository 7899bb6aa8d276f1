// What every run of the worker, and the configure-only run, needs before and gives back after.
#pragma once

namespace keldwick {

// Applies and loads the settings, makes the process's events and starts the settings-watch thread. False: it could not,
// which has been reported, and nothing is left behind.
bool ServiceInitialize();

// Stops the settings-watch thread, and the service with it, and closes the events. Only after a successful
// ServiceInitialize.
void ServiceUninitialize();

}  // namespace keldwick
