// The debug output's process-wide state, and the steps from a message to the sinks: composing a line, giving it to each
// sink, and the log file. All of this is done under the debug-output lock. The state is made at its first use and never
// destroyed, so that printing is safe before and after the life of any static object.
#pragma once

#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/handles.h"
#include "platform/line_buffer.h"
#include "platform/time_stamp.h"

namespace keldwick {

// Takes the step as far as memory allows: the debug output never fails its callers. False: it ended for want of memory.
template <typename STEP>
bool WithinMemory(STEP step) try {
    step();
    return true;
} catch (const STRING_NO_MEMORY&) {
    return false;
} catch (const std::bad_alloc&) {
    return false;
}

struct DEFERRED_LINE {
    DWORD flags;
    std::string text;
};
using DEFERRED_LINES = std::vector<DEFERRED_LINE>;

// A part of the last line, which most lines after it have as well.
struct LINE_PART {
    char text[160];
    size_t length = 0;  // 0: there is none yet
    // What it was made of:
    LONGLONG second = 0;  // since 1601, UTC
    DWORD process = 0, thread = 0;
};

struct LOG_FILE_STATE {
    STRING folder;  // ends with a backslash, or is empty for the current directory
    STRING baseName{TEXT("Debug")};
    STRING extension{TEXT("log")};
    FILE_OWNER file;
    STRING openPath;  // of the open file
    bool firstOpen = true;
};

struct DEBUG_STATE {
    static constexpr DWORD LockSpins = 5000;

    CRITICAL_SECTION_OWNER lock{LockSpins};
    std::atomic<DWORD>& mode = CurrentDebugMode;  // changed under the lock
    bool closed = false;                          // at process end: the mode stays 0
    STRING prefix;
    DEBUG_OUTPUT_HOOK hook = nullptr;
    LOG_FILE_STATE log;
    DWORD deferredSlot = TLS_OUT_OF_INDEXES;                // holds the thread's DEFERRED_LINES
    std::vector<std::unique_ptr<DEFERRED_LINES>> deferred;  // those of all threads
    LINE_BUFFER message;                                    // of the line being printed
    LINE_BUFFER composed;                                   // ... as one sink gets it
    LINE_PART lastTime, lastPrefix;
    ERROR_TAIL lastError;

    DEBUG_STATE() : deferredSlot(TlsAlloc()) {}
};
DEBUG_STATE& DebugState();

// ---- Lines (debug_line.cpp) ----

// Gives the message, which is UTF-8, to every sink that the mode and the line's flags name, with the same time for all.
// Never throws: a sink for which there is no memory misses the line.
void WriteLine(DEBUG_STATE& state, DWORD flags, std::string_view message);

// An empty line to every active sink.
void WriteSeparator(DEBUG_STATE& state);

// A line to the debugger, whatever the mode; without prefix just the text. Uses none of the state's line buffers.
void WriteDebuggerLine(DEBUG_STATE& state, bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments);

// ---- The log file (log_file.cpp) ----

// UTF-8 text beside the program. It opens with the first line that needs it and stays open until it is renamed, its
// path changes or the mode no longer has "Log". Where memory runs out these throw.

STRING LogFilePath(const DEBUG_STATE& state);  // folder, base name, extension

// Opens the file unless it is open. The first open since the start replaces or renames an existing file, as the mode
// says. False: a message went to the debugger, and the line is not written to the file.
bool OpenLogFile(DEBUG_STATE& state);
void CloseLogFile(DEBUG_STATE& state);

// One write for the line. A failure is reported to the debugger; the file stays open.
void WriteLogFile(DEBUG_STATE& state, std::string_view bytes);

// Moves the file at `path` aside, to a name made of that local time (null: now) and, where that name is taken, a
// number. False: no name was free, or the move failed.
bool RenameLogFile(const DEBUG_STATE& state, const STRING& path, const SYSTEMTIME* time);

}  // namespace keldwick
