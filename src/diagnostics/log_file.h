// The log file: UTF-8 text beside the program. It opens with the first line that needs it and stays open until it is
// renamed, its path changes or the mode no longer has "Log". All of this under the debug-output lock; where memory
// runs out it throws.
#pragma once

#include <string_view>

#include "diagnostics/debug_state.h"

namespace keldwick {

STRING LogFilePath(const DEBUG_STATE& state);  // folder, base name, extension

// Opens the file unless it is open. The first open since the start replaces or renames an existing file, as the mode
// says. False: a message went to the debugger, and the line is not written to the file.
bool OpenLogFile(DEBUG_STATE& state);
void CloseLogFile(DEBUG_STATE& state);

// One write for the line. A failure is told to the debugger; the file stays open.
void WriteLogFile(DEBUG_STATE& state, std::string_view bytes);

// Moves the file at `path` aside, to a name made of that local time (null: now) and, where that name is taken, a
// number. False: no name was free, or the move failed.
bool RenameLogFile(const DEBUG_STATE& state, const STRING& path, const SYSTEMTIME* time);

}  // namespace keldwick
