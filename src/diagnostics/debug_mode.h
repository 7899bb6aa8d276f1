// The debug output's mode: which sinks get lines, and which lines.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

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

// Names one of the free categories (0x200 or 0x400). Without effect on FormatDebugOutputMode once that was used.
void SetDebugCategoryName(DWORD category, const WCHAR* name);

// The names of the mode's bits, joined by ", "; "None" when none is known.
STRING FormatDebugOutputMode(DWORD mode);

}  // namespace keldwick
