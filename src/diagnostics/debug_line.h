// The debug output's process-wide state, and the steps from a message to the sinks: composing a line, giving it to each
// sink, and the log file. All of this is done under the debug-output lock. The state is made at its first use and never
// destroyed, so that printing is safe before and after the life of any static object.
#pragma once

#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "diagnostics/debug_output.h"
#include "platform/handles.h"
#include "platform/heap_buffer.h"

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

// A growing block of text units, used again for every line so that lines cost no allocation. What cannot be allocated
// is left out, and Failed says so.
template <typename UNIT>
class LINE_BUFFER {
public:
    void Clear() {
        length = 0;
        failed = false;
    }
    UNIT* Extend(size_t units) {  // room for that many more; null when there is no memory
        if (!Reserve(length + units)) return nullptr;
        UNIT* const at = block.As<UNIT>() + length;
        length += units;
        return at;
    }
    void Append(std::basic_string_view<UNIT> text) {
        if (text.empty()) return;
        if (UNIT* const at = Extend(text.size())) text.copy(at, text.size());
    }
    void Append(UNIT unit) { Append(std::basic_string_view<UNIT>(&unit, 1)); }
    void Truncate(size_t units) { length = units; }
    std::basic_string_view<UNIT> View() const { return {block.As<UNIT>(), length}; }
    const UNIT* Terminated() {  // null when there is no memory
        if (!Reserve(length + 1)) return nullptr;
        block.As<UNIT>()[length] = 0;
        return block.As<UNIT>();
    }
    bool Failed() const { return failed; }

private:
    bool Reserve(size_t units) {
        const size_t bytes = units * sizeof(UNIT);
        if (bytes <= block.Size()) return true;
        constexpr size_t Step = 4096;
        const size_t rounded = (bytes + bytes / 2 + Step - 1) / Step * Step;
        HEAP_BUFFER larger;
        if (rounded > MAXDWORD || !larger.Resize(static_cast<DWORD>(rounded))) {
            failed = true;
            length = 0;
            return false;
        }
        View().copy(larger.As<UNIT>(), length);
        block = std::move(larger);
        return true;
    }

    HEAP_BUFFER block;
    size_t length = 0;
    bool failed = false;
};
using WIDE_LINE = LINE_BUFFER<WCHAR>;

struct DEFERRED_LINE {
    DWORD flags;
    STRING text;
};
using DEFERRED_LINES = std::vector<DEFERRED_LINE>;

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
    DWORD mode = 0;
    bool closed = false;  // at process end: the mode stays 0
    STRING prefix;
    DEBUG_OUTPUT_HOOK hook = nullptr;
    LOG_FILE_STATE log;
    DWORD deferredSlot = TLS_OUT_OF_INDEXES;                // holds the thread's DEFERRED_LINES
    std::vector<std::unique_ptr<DEFERRED_LINES>> deferred;  // those of all threads
    WIDE_LINE message;                                      // of the line being printed
    WIDE_LINE composed;                                     // ... as one sink gets it
    LINE_BUFFER<char> bytes;                                // ... as UTF-8

    DEBUG_STATE() : deferredSlot(TlsAlloc()) {}
};
DEBUG_STATE& DebugState();

// Formats the text and appends it to a line. False: the format does not fit, or there is no memory.
bool AppendFormat(WIDE_LINE& line, const WCHAR* format, FORMAT_ARGUMENTS arguments);

// ---- Lines (debug_line.cpp) ----

// Gives the message to every sink that the mode and the line's flags name, with the same time for all. Never throws: a
// sink for which there is no memory misses the line.
void WriteLine(DEBUG_STATE& state, DWORD flags, TEXT_VIEW message);

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
