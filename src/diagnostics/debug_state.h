// The debug output's process-wide state and the steps that its files share. Everything here is guarded by the
// debug-output lock. The state is made at its first use and never destroyed, so that printing is safe before and after
// the life of any static object.
#pragma once

#include <memory>
#include <new>
#include <vector>

#include "diagnostics/debug_output.h"
#include "platform/critical_section.h"
#include "platform/handles.h"
#include "platform/heap_buffer.h"

namespace keldwick {

// Takes the step as far as memory allows: the debug output never fails its callers.
template <typename STEP>
void WithinMemory(STEP step) try {
    step();
} catch (const STRING_NO_MEMORY&) {
} catch (const std::bad_alloc&) {
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
    FILE_HANDLE file;
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

// Formats into a line, behind what it holds. False: the format does not fit, or there is no memory.
bool AppendFormat(WIDE_LINE& line, const WCHAR* format, FORMAT_ARGUMENTS arguments);

}  // namespace keldwick
