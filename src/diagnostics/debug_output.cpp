#include "diagnostics/debug_output.h"

#include <array>

#include "diagnostics/debug_line.h"
#include "diagnostics/log_file.h"

namespace keldwick {
namespace {

constexpr DWORD DeferOverruled = 0x2;  // a line with this flag is never deferred
constexpr DWORD MaxPrefix = 32;        // units
constexpr DWORD SinkModes = DEBUG_MODE_DEBUGGER | DEBUG_MODE_LOG | DEBUG_MODE_CONSOLE;

struct DEBUG_FLAG_NAME {
    DWORD flag;
    const WCHAR* name;
};

// In the order in which they are printed.
constexpr std::array DEBUG_FLAG_NAMES = {
    DEBUG_FLAG_NAME{DEBUG_MODE_DEBUGGER, TEXT("Debugger")},
    DEBUG_FLAG_NAME{DEBUG_MODE_KERNEL, TEXT("Kernel")},
    DEBUG_FLAG_NAME{DEBUG_MODE_LOG, TEXT("Log")},
    DEBUG_FLAG_NAME{DEBUG_MODE_OVERWRITE, TEXT("Overwrite existing")},
    DEBUG_FLAG_NAME{DEBUG_MODE_RENAME, TEXT("Rename existing")},
    DEBUG_FLAG_NAME{DEBUG_VERBOSE, TEXT("Verbose")},
    DEBUG_FLAG_NAME{DEBUG_AD, TEXT("Custom1")},
    DEBUG_FLAG_NAME{DEBUG_TCP, TEXT("Custom2")},
    DEBUG_FLAG_NAME{0x800, TEXT("Custom3")},
    DEBUG_FLAG_NAME{0x1000, TEXT("Custom4")},
    DEBUG_FLAG_NAME{DEBUG_MODE_INTERNAL, TEXT("Internal")},
    DEBUG_FLAG_NAME{DEBUG_MODE_CONSOLE, TEXT("Console")},
    DEBUG_FLAG_NAME{DEBUG_MODE_NO_TIME_STAMP, TEXT("No time stamp")},
};

struct CATEGORY_NAMES {
    CRITICAL_SECTION_OWNER lock;
    STRING ad{TEXT("Custom1")};
    STRING tcp{TEXT("Custom2")};
};

CATEGORY_NAMES& CategoryNames() {
    static CATEGORY_NAMES& names = *new CATEGORY_NAMES;  // never destroyed: the output is used until the very end
    return names;
}

using PRINTED_NAMES = std::array<STRING, DEBUG_FLAG_NAMES.size()>;

PRINTED_NAMES CompleteNames() {
    CATEGORY_NAMES& categories = CategoryNames();
    const LOCK_GUARD guard(categories.lock);
    PRINTED_NAMES names;
    for (size_t i = 0; i < names.size(); ++i) {
        const DWORD flag = DEBUG_FLAG_NAMES[i].flag;
        if (flag == DEBUG_AD)
            names[i] = categories.ad;
        else if (flag == DEBUG_TCP)
            names[i] = categories.tcp;
        else
            names[i].Assign(DEBUG_FLAG_NAMES[i].name);
    }
    return names;
}

// Whether any sink wants a line with those flags.
bool IsWanted(const DEBUG_STATE& state, DWORD flags) {
    if (!HasDebugCategories(flags)) return false;
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
    if (DEFERRED_LINES* const lines = MakeThreadLines(state))
        lines->push_back({flags, std::string(state.message.View())});
}

void WriteDeferred(DEBUG_STATE& state, DEFERRED_LINES* lines) {
    if (lines == nullptr || lines->empty()) return;
    for (const DEFERRED_LINE& line : *lines) WriteLine(state, line.flags, line.text);
    lines->clear();
}

// Hands on the line that `format` puts into the buffer it is given, under the lock.
template <typename FORMATTING>
void PrintWanted(DEBUG_STATE& state, DWORD flags, FORMATTING format) {
    const ERROR_CODE error;
    state.message.Clear();
    if (!WithinMemory([&] { format(state.message); }) || state.message.Failed()) {
        // There is no memory for the line.
    } else if ((flags & DEBUG_DEFER) != 0 && (flags & DeferOverruled) == 0) {
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

constinit std::atomic<DWORD> CurrentDebugMode{0};

DEBUG_STATE& DebugState() {
    static DEBUG_STATE& state = *new DEBUG_STATE;
    return state;
}

void DebugPrintV(DWORD flags, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments,
                 std::initializer_list<TEXT_VIEW> before) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (!IsWanted(state, flags)) return;
    PrintWanted(state, flags, [&](LINE_BUFFER& line) {
        for (const TEXT_VIEW text : before) line.AppendWide(text);
        line.AppendFormat(format, arguments);
    });
}

void DebugPrintErrorV(DWORD flags, const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format,
                      FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (IsWanted(state, flags)) {
        PrintWanted(state, flags,
                    [&](LINE_BUFFER& line) { AppendError(line, error, format, arguments, &state.lastError); });
    }
    error.Restore();  // for the caller
}

void DebugPrintNarrowV(DWORD flags, const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    if (!IsWanted(state, flags)) return;
    PrintWanted(state, flags, [&](LINE_BUFFER& line) { line.AppendFormat(STRING(format.start).Text(), arguments); });
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
    state.lastPrefix = {};
}

DWORD DebugOutputActive() {
    const DWORD mode = DebugOutputMode();
    if ((mode & (DEBUG_MODE_DEBUGGER | DEBUG_MODE_LOG)) != 0) return (mode & ~0xFFu) | 1;
    const DWORD rest = mode >> 13 << 8;
    return (mode & DEBUG_MODE_CONSOLE) != 0 ? rest | 1 : rest;
}

void SetDebugCategoryName(DWORD category, const WCHAR* name) {
    CATEGORY_NAMES& names = CategoryNames();
    const LOCK_GUARD guard(names.lock);
    WithinMemory([&] {
        if (category == DEBUG_AD) names.ad.Assign(name);
        if (category == DEBUG_TCP) names.tcp.Assign(name);
    });
}

STRING FormatDebugOutputMode(DWORD mode) {
    static const PRINTED_NAMES& names = *new PRINTED_NAMES(CompleteNames());
    STRING text;
    for (size_t i = 0; i < names.size(); ++i) {
        const DWORD flag = DEBUG_FLAG_NAMES[i].flag;
        if ((mode & flag) != flag) continue;
        mode &= ~flag;
        if (!text.IsEmpty()) text.Append(TEXT(", "));
        text.Append(names[i].View());
    }
    return text.IsEmpty() ? STRING(TEXT("None")) : text;
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
