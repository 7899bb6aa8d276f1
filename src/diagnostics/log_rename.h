// The daily renaming of the log file: each period's lines end up in a file named after the time it began.
#pragma once

#include <windows.h>

namespace keldwick {

// Renames the log file every `days` days at that hour of the local time, on a thread of its own; called again, it
// changes the schedule. Hour 0 names a file after the day that it covers.
void StartLogRename(DWORD hour, DWORD days);
// Ends the thread (at process end); waits for it at most 10 s.
void StopLogRename();

}  // namespace keldwick
