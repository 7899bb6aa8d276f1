// The debug output: every part of the system reports here what it does, one line a call, in a printf-style format.
// A line goes to the debugger, the console and the log file, as the mode says. It never fails its callers; any thread
// may print at any time. A line that no sink wants is not formatted.
#pragma once

#include <windows.h>

#include <atomic>
#include <initializer_list>

#include "platform/error_text.h"
#include "platform/string.h"

namespace keldwick {

// ---- The mode: which sinks get lines, and which lines ----

// Bits of the mode.
constexpr DWORD DEBUG_MODE_DEBUGGER = 0x1;
constexpr DWORD DEBUG_MODE_LOG = 0x2;
constexpr DWORD DEBUG_MODE_OVERWRITE = 0x4;  // the first open of the log file replaces an existing one
constexpr DWORD DEBUG_MODE_RENAME = 0x8;     // ... renames an existing one aside; wins over the former
constexpr DWORD DEBUG_MODE_KERNEL = 0x10;    // the debugger is the kernel's
constexpr DWORD DEBUG_MODE_CONSOLE = 0x20;
constexpr DWORD DEBUG_MODE_INTERNAL = 0x10000;  // the debug output's messages about itself
constexpr DWORD DEBUG_MODE_NO_TIME_STAMP = 0x40000;

// Categories: bits of the mode and of a line's flags.
constexpr DWORD DEBUG_VERBOSE = 0x100;
constexpr DWORD DEBUG_AD = 0x200;   // directory look-ups
constexpr DWORD DEBUG_TCP = 0x400;  // transports
constexpr DWORD DEBUG_CATEGORIES = 0x1F00;

// Flags of a line, besides its categories, all of which the mode must have for the line to be written.
constexpr DWORD DEBUG_DEFER = 0x1;  // held until the thread's next line that is not deferred
constexpr DWORD DEBUG_RAW = 0x4;    // no prefix, no identifiers, no time
constexpr DWORD DEBUG_NO_LINE_END = 0x8;
constexpr DWORD DEBUG_FORCE_DEBUGGER = 0x2000;
constexpr DWORD DEBUG_FORCE_LOG = 0x4000;
constexpr DWORD DEBUG_ERROR = DEBUG_FORCE_DEBUGGER | DEBUG_FORCE_LOG;

void SetDebugOutputMode(DWORD mode);  // closes the log file when the new mode has no "Log"; ignored at process end
DWORD DebugOutputMode();

// The mode, for a look that takes no lock; SetDebugOutputMode alone changes it.
extern std::atomic<DWORD> CurrentDebugMode;

// Whether the mode has all categories of a line with those flags: without them no sink wants it.
inline bool HasDebugCategories(DWORD flags) {
    return (flags & DEBUG_CATEGORIES & ~CurrentDebugMode.load(std::memory_order_relaxed)) == 0;
}

DWORD DebugOutputActive();  // its low byte is 1 when "Debugger", "Log" or "Console" is set

// Names one of the free categories (0x200 or 0x400). Without effect on FormatDebugOutputMode once that was used.
void SetDebugCategoryName(DWORD category, const WCHAR* name);

// The names of the mode's bits, joined by ", "; "None" when none is known.
STRING FormatDebugOutputMode(DWORD mode);

// ---- Lines ----

// The printing calls that the templates make. `before`: texts that the line begins with, as they stand.
void DebugPrintV(DWORD flags, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments,
                 std::initializer_list<TEXT_VIEW> before = {});
void DebugPrintErrorV(DWORD flags, const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format,
                      FORMAT_ARGUMENTS arguments);
void DebugPrintNarrowV(DWORD flags, const FORMAT_TEXT<char>& format, FORMAT_ARGUMENTS arguments);
void DebuggerPrintV(bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments);
void InternalPrintV(const WCHAR* format, FORMAT_ARGUMENTS arguments);

template <typename... ARGUMENTS>
void DebugPrint(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintV(0, format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugPrintMasked(DWORD flags, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    if (HasDebugCategories(flags)) DebugPrintV(flags, format.Text(), FormatArguments(arguments...));
}

// A line about a failed call, which FormatError ends. Afterwards the error's code is the thread's last error.
template <typename... ARGUMENTS>
void DebugPrintError(const ERROR_CODE& error, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintErrorV(0, error, format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugPrintErrorMasked(DWORD flags, const ERROR_CODE& error, FORMAT<ARGUMENTS...> format,
                           const ARGUMENTS&... arguments) {
    DebugPrintErrorV(flags, error, format.Text(), FormatArguments(arguments...));
}

// The lines of one routine, which all begin with its name.
class DEBUG_PREFIX {
public:
    constexpr explicit DEBUG_PREFIX(TEXT_VIEW text) : prefix(text) {}  // which must live as long

    template <typename... ARGUMENTS>
    void Print(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) const {
        PrintMasked(0, format, arguments...);
    }
    template <typename... ARGUMENTS>
    void PrintMasked(DWORD flags, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) const {
        if (HasDebugCategories(flags)) DebugPrintV(flags, format.Text(), FormatArguments(arguments...), {prefix});
    }
    // After an empty line.
    template <typename... ARGUMENTS>
    void PrintApart(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) const {
        DebugPrintV(0, format.Text(), FormatArguments(arguments...), {TEXT("\n"), prefix});
    }
    // Why the routine goes no further; always false.
    template <typename... ARGUMENTS>
    bool Refuse(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) const {
        Print(format, arguments...);
        return false;
    }

private:
    TEXT_VIEW prefix;
};

// A text as it stands; a percent sign in it is a percent sign.
inline void DebugPrintText(const WCHAR* text) { DebugPrint(TEXT("%s"), text); }
inline void DebugPrintText(const STRING& text) { DebugPrint(TEXT("%s"), text); }
inline void DebugPrintTextMasked(DWORD flags, const WCHAR* text) { DebugPrintMasked(flags, TEXT("%s"), text); }
inline void DebugPrintTextMasked(DWORD flags, const STRING& text) { DebugPrintMasked(flags, TEXT("%s"), text); }

// With a narrow format, which is widened first: its %s takes UTF-16 text.
template <typename... ARGUMENTS>
void DebugPrintNarrow(FORMAT_NARROW<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintNarrowV(0, format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugPrintNarrowMasked(DWORD flags, FORMAT_NARROW<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintNarrowV(flags, format.Text(), FormatArguments(arguments...));
}

// Straight to the debugger, whatever the mode: a line, or (Raw) the formatted text alone.
template <typename... ARGUMENTS>
void DebuggerPrint(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebuggerPrintV(true, format.Text().start, FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebuggerPrint(WORD stringId, const ARGUMENTS&... arguments) {
    DebuggerPrintV(true, MAKEINTRESOURCEW(stringId), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebuggerPrintRaw(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebuggerPrintV(false, format.Text().start, FormatArguments(arguments...));
}

// The debug output about itself, to the debugger: its progress, when the mode has "Internal", and its failures, always.
template <typename... ARGUMENTS>
void InternalPrint(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    InternalPrintV(format.Text().start, FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugOutputError(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebuggerPrintV(true, format.Text().start, FormatArguments(arguments...));
}

// ---- The rest ----

void SetDebugOutputPrefix(const WCHAR* prefix);  // at most 32 units are kept; stays as it was without memory
void FlushDebugOutput(bool separator);           // the thread's deferred lines, then, when asked, an empty line

// An extra sink, given each finished message (null: none).
using DEBUG_OUTPUT_HOOK = void (*)(const WCHAR* message);
void SetDebugOutputHook(DEBUG_OUTPUT_HOOK hook);

}  // namespace keldwick
