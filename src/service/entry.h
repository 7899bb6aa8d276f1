// The program after its platform's entry function. Who calls whom, in which order, on which thread:
//
//   entry thread     RunProgram: debug output, command line, settings key, local host; then the run mode: a manual
//                    report, ServiceInitialize and ServiceUninitialize alone, RunAsApplication, or the dispatcher
//   service thread   ServiceMain (an application has RunAsApplication on the entry thread in its place):
//                    ServiceInitialize, ServiceWorker, ServiceUninitialize
//   ... its worker   ServiceWorker, EVENT_LOG::Process, DispatchRecord, Do_EVENT_..., IdentityReportLogon, SendRequest
//   other threads    SettingsWatchThread, which runs ReloadSettings and signals SettingsChangedEvent for the worker;
//                    the control handler, which calls StopService; log rename; event source limiter; look-ups
#pragma once

#include <windows.h>

namespace keldwick {

// Exit codes of the process.
constexpr int EXIT_DONE = 0;
constexpr int EXIT_INVALID_ARGUMENT = 2;
constexpr int EXIT_NO_SETTINGS_KEY = 3;
constexpr int EXIT_DISPATCHER_FAILED = 1006;
constexpr int EXIT_INITIALIZE_FAILED = 1010;

// Runs with the process's arguments, the program's name first; they must live as long as the process. Gives the exit
// code.
int RunProgram(int argc, WCHAR** argv);

// Runs the worker on the calling thread, until the service is to stop. Gives the exit code.
int RunAsApplication();

}  // namespace keldwick
