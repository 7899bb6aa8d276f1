// One line of the debug output: composing it and giving it to the sinks. All of this under the debug-output lock.
#pragma once

#include "diagnostics/debug_state.h"

namespace keldwick {

// Gives the message to every sink that the mode and the line's flags name, with the same time for all. Never throws: a
// sink for which there is no memory misses the line.
void WriteLine(DEBUG_STATE& state, DWORD flags, TEXT_VIEW message);

// An empty line to every active sink.
void WriteSeparator(DEBUG_STATE& state);

// A line to the debugger, whatever the mode; without prefix just the text. Uses none of the state's line buffers.
void WriteDebuggerLine(DEBUG_STATE& state, bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments);

}  // namespace keldwick
