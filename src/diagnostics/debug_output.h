// The debug output: every part of the system reports here what it does, one line a call, in a printf-style format.
// A line goes to the debugger, the console and the log file, as the mode says. It never fails its callers; any thread
// may print at any time. A line that no sink wants is not formatted.
#pragma once

#include "diagnostics/debug_mode.h"
#include "platform/string.h"

namespace keldwick {

// Flags of a line, besides the categories of debug_mode.h, all of which the mode must have for the line to be written.
constexpr DWORD DEBUG_DEFER = 0x1;  // held until the thread's next line that is not deferred
constexpr DWORD DEBUG_RAW = 0x4;    // no prefix, no identifiers, no time
constexpr DWORD DEBUG_NO_LINE_END = 0x8;
constexpr DWORD DEBUG_FORCE_DEBUGGER = 0x2000;
constexpr DWORD DEBUG_FORCE_LOG = 0x4000;
constexpr DWORD DEBUG_ERROR = DEBUG_FORCE_DEBUGGER | DEBUG_FORCE_LOG;

// The printing calls behind the templates.
void DebugPrintV(DWORD flags, const WCHAR* format, FORMAT_ARGUMENTS arguments);
void DebugPrintNarrowV(DWORD flags, const char* format, FORMAT_ARGUMENTS arguments);
void DebuggerPrintV(bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments);
void InternalPrintV(const WCHAR* format, FORMAT_ARGUMENTS arguments);

template <typename... ARGUMENTS>
void DebugPrint(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintV(0, format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugPrintMasked(DWORD flags, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebugPrintV(flags, format.Text(), FormatArguments(arguments...));
}
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
    DebuggerPrintV(true, format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebuggerPrint(WORD stringId, const ARGUMENTS&... arguments) {
    DebuggerPrintV(true, MAKEINTRESOURCEW(stringId), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebuggerPrintRaw(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebuggerPrintV(false, format.Text(), FormatArguments(arguments...));
}

// The debug output about itself, to the debugger: its progress, when the mode has "Internal", and its failures, always.
template <typename... ARGUMENTS>
void InternalPrint(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    InternalPrintV(format.Text(), FormatArguments(arguments...));
}
template <typename... ARGUMENTS>
void DebugOutputError(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    DebuggerPrintV(true, format.Text(), FormatArguments(arguments...));
}

void SetDebugOutputMode(DWORD mode);  // closes the log file when the new mode has no "Log"; ignored at process end
DWORD DebugOutputMode();
void SetDebugOutputPrefix(const WCHAR* prefix);  // at most 32 units are kept; stays as it was without memory
DWORD DebugOutputActive();                       // its low byte is 1 when "Debugger", "Log" or "Console" is set
void FlushDebugOutput(bool separator);           // the thread's deferred lines, then, when asked, an empty line

// An extra sink, given each finished message (null: none).
using DEBUG_OUTPUT_HOOK = void (*)(const WCHAR* message);
void SetDebugOutputHook(DEBUG_OUTPUT_HOOK hook);

}  // namespace keldwick
