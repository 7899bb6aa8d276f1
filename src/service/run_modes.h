// The ways in which the program runs besides the service control manager's. Each gives the process's exit code.
#pragma once

namespace keldwick {

// Exit codes of the process.
constexpr int EXIT_DONE = 0;
constexpr int EXIT_INVALID_ARGUMENT = 2;
constexpr int EXIT_NO_SETTINGS_KEY = 3;
constexpr int EXIT_DISPATCHER_FAILED = 1006;
constexpr int EXIT_INITIALIZE_FAILED = 1010;

int RunAsApplication();    // the worker on the calling thread, until the service is to stop
int RunAsManualReport();   // one identity, sent by hand
int RunAsConfiguration();  // applies the command line to the settings key
int RunAsService();        // under the service control manager, or else as an application
int RunByCommandLine();    // the one of these that the options choose

}  // namespace keldwick
