// The options that a run was started with: one process-wide record, filled by the entry point from the process's
// arguments and, in a service run, once more from the service's start parameters.
#pragma once

#include <windows.h>

namespace keldwick {

// Protocol numbers as the command line and the registry value IdentProtocol code them.
constexpr LONG PROTOCOL_NOT_GIVEN = -1;
constexpr LONG PROTOCOL_AUTO = 0;
constexpr LONG PROTOCOL_TCPS = 1;
constexpr LONG PROTOCOL_TCP = 2;

// The texts point into the parsed argument vector, which must outlive the record. Null: not given.
struct COMMAND_LINE {
    const WCHAR* const* argumentBegin = nullptr;
    const WCHAR* const* argumentEnd = nullptr;
    const WCHAR* identServer = nullptr;
    const WCHAR* adServer = nullptr;  // empty: the Active Directory global catalog
    const WCHAR* userName = nullptr;
    const WCHAR* computerName = nullptr;
    LONG protocol = PROTOCOL_NOT_GIVEN;
    DWORD debugMode = 0;             // debug-output flags of the latest parse
    DWORD registryDebugMode = 0;     // the registry value DebugOutput
    DWORD environmentDebugMode = 0;  // the environment variable Keldwick
    bool breakGiven = false;         // recorded, read by nothing
    bool clearSavedMode = false;
    bool application = false;
    bool configureOnly = false;
    bool dumpPertinent = false;
    bool dumpNonPertinent = false;
    bool miniDump = false;
    bool manualReport = false;
    bool reportIdentity = false;
    bool reportHeartbeat = false;
    bool reportLogoff = false;
};

extern COMMAND_LINE CommandLine;  // the process's own record; read-only once a run mode has been chosen

// Parses count arguments, the first of which (the program's or service's name) is skipped. Overwrites only what it
// finds, except debugMode, which every parse clears first. Gives null, or the argument to be reported as invalid, at
// which parsing ended; what came before it has been taken.
const WCHAR* ParseCommandLine(COMMAND_LINE& commandLine, const WCHAR* const* arguments, DWORD count);

}  // namespace keldwick
