#include "diagnostics/debug_output.h"

#include "diagnostics/debug_line.h"
#include "diagnostics/debug_state.h"
#include "diagnostics/log_file.h"
#include "diagnostics/log_rename.h"
#include "platform/error_code.h"

namespace keldwick {
namespace {

constexpr DWORD DeferOverruled = 0x2;  // a line with this flag is never deferred
constexpr DWORD MaxPrefix = 32;        // units
constexpr DWORD SinkModes = DEBUG_MODE_DEBUGGER | DEBUG_MODE_LOG | DEBUG_MODE_CONSOLE;

// Whether any sink wants a line with those flags.
bool IsWanted(const DEBUG_STATE& state, DWORD flags) {
    if ((flags & DEBUG_CATEGORIES & ~state.mode) != 0) return false;
    return (flags & DEBUG_ERROR) != 0 || (state.mode & SinkModes) != 0 || state.hook != nullptr;
}

DEFERRED_LINES* ThreadLines(const DEBUG_STATE& state) {
    if (state.deferredSlot == TLS_OUT_OF_INDEXES) return nullptr;
    const DWORD lastError = GetLastError();  // which TlsGetValue clears
    auto* const lines = static_cast<DEFERRED_LINES*>(TlsGetValue(state.deferredSlot));
    SetLastError(lastError);
    return lines;
}

// The thread's list of deferred lines, made when it has none; null when it cannot be had.
DEFERRED_LINES* MakeThreadLines(DEBUG_STATE& state) {
    if (DEFERRED_LINES* const lines = ThreadLines(state)) return lines;
    if (state.deferredSlot == TLS_OUT_OF_INDEXES) return nullptr;
    state.deferred.push_back(std::make_unique<DEFERRED_LINES>());
    if (TlsSetValue(state.deferredSlot, state.deferred.back().get())) return state.deferred.back().get();
    state.deferred.pop_back();
    return nullptr;
}

void Defer(DEBUG_STATE& state, DWORD flags) {
    if (DEFERRED_LINES* const lines = MakeThreadLines(state)) lines->push_back({flags, STRING(state.message.View())});
}

void WriteDeferred(DEBUG_STATE& state, DEFERRED_LINES* lines) {
    if (lines == nullptr || lines->empty()) return;
    for (const DEFERRED_LINE& line : *lines) WriteLine(state, line.flags, line.text.View());
    lines->clear();
}

// Formats the line and hands it on, under the lock.
void PrintWanted(DEBUG_STATE& state, DWORD flags, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    const ERROR_CODE error;
    state.message.Clear();
    AppendFormat(state.message, format, arguments);
    if (state.message.Failed()) return;
    if ((flags & DEBUG_DEFER) != 0 && (flags & DeferOverruled) == 0) {
        WithinMemory([&] { Defer(state, flags); });
    } else {
        WriteDeferred(state, ThreadLines(state));
        WriteLine(state, flags, state.message.View());
    }
    error.Restore();
}

// Ends the output with the process: what was deferred is written, and from then on nothing is wanted any more.
struct PROCESS_END {
    PROCESS_END() { DebugState(); }  // made at program start, and the thread-local slot with it
    ~PROCESS_END() {
        DEBUG_STATE& state = DebugState();
        {
            const LOCK_GUARD guard(state.lock);
            for (const auto& lines : state.deferred) WriteDeferred(state, lines.get());
            state.closed = true;
            state.mode = 0;
        }
        StopLogRename();
    }
    PROCESS_END(const PROCESS_END&) = delete;
    PROCESS_END& operator=(const PROCESS_END&) = delete;
};
const PROCESS_END ProcessEnd;

}  // namespace

DEBUG_STATE& DebugState() {
    static DEBUG_STATE& state = *new DEBUG_STATE;
    return state;
}

void DebugPrintV(DWORD flags, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (IsWanted(state, flags)) PrintWanted(state, flags, format, arguments);
}

void DebugPrintNarrowV(DWORD flags, const char* format, FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (!IsWanted(state, flags)) return;
    WithinMemory([&] { PrintWanted(state, flags, STRING(format).Text(), arguments); });
}

void DebuggerPrintV(bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    WriteDebuggerLine(state, withPrefix, format, arguments);
}

void InternalPrintV(const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if ((state.mode & DEBUG_MODE_INTERNAL) != 0) WriteDebuggerLine(state, true, format, arguments);
}

void SetDebugOutputMode(DWORD mode) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (state.closed) return;
    if ((state.mode & ~mode & DEBUG_MODE_LOG) != 0) CloseLogFile(state);
    state.mode = mode;
}

DWORD DebugOutputMode() {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    return state.mode;
}

void SetDebugOutputPrefix(const WCHAR* prefix) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    WithinMemory([&] { state.prefix.Assign(TEXT_VIEW(prefix).substr(0, MaxPrefix)); });
}

DWORD DebugOutputActive() {
    const DWORD mode = DebugOutputMode();
    if ((mode & (DEBUG_MODE_DEBUGGER | DEBUG_MODE_LOG)) != 0) return (mode & ~0xFFu) | 1;
    const DWORD rest = mode >> 13 << 8;
    return (mode & DEBUG_MODE_CONSOLE) != 0 ? rest | 1 : rest;
}

void FlushDebugOutput(bool separator) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    WriteDeferred(state, ThreadLines(state));
    if (separator) WriteSeparator(state);
}

void SetDebugOutputHook(DEBUG_OUTPUT_HOOK hook) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    state.hook = hook;
}

}  // namespace keldwick
