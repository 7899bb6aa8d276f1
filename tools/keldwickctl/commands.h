// The command groups of keldwickctl. Each registers its commands with the parser; a command that cannot be done throws
// COMMAND_ERROR, which main prints as one line on standard error before it ends with exit code 1.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/common/failure.h"

namespace tools {

// Thrown by a command that has shown what it found, to end with that exit code.
struct EXIT_STATUS {
    int code;
};

// The commands run while the parser parses, after main has made the machine root known to the layer (KELDWICK_ROOT).
void AddInitCommand(CLI::App& app);        // init
void AddSettingsCommands(CLI::App& app);   // settings list, get, set, delete
void AddEventsCommands(CLI::App& app);     // events write, import, list, clear
void AddDirectoryCommands(CLI::App& app);  // directory lookup, check
void AddFeedCommands(CLI::App& app);       // feed samba-audit, xml, json
void AddStatusCommand(CLI::App& app);      // status
void AddCheckCommand(CLI::App& app);       // check
void AddIdentitiesCommand(CLI::App& app);  // identities

}  // namespace tools
