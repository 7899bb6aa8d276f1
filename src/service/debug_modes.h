// Where the debug-output mode comes from and where it is kept: the command line, the registry value DebugOutput, the
// environment variable Keldwick.
#pragma once

#include <windows.h>

#include "service/command_line.h"

namespace keldwick {

// Fills the record's environment and registry modes, each 0 when there is none. Problems with the registry go to the
// debugger, for the debug output is not set up yet.
void LoadSavedDebugOutputModes(COMMAND_LINE& commandLine);

// Chooses the mode (command line, else registry, else environment), starts the debug output with it and the daily
// rename of its log file, and logs the arguments and the mode.
void ApplyDebugOutputMode(const COMMAND_LINE& commandLine);

// Takes a changed DebugOutput into the record and the debug output, unless the run was started with the option C.
void ReloadDebugOutputMode(COMMAND_LINE& commandLine, HKEY settingsKey);

// Keeps the command line's mode for later runs, or deletes the kept one (option C). Without a key it does nothing.
void SaveDebugOutputMode(const COMMAND_LINE& commandLine, HKEY settingsKey);

}  // namespace keldwick
