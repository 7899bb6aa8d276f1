// Which process reads a log of the machine root through the event-log calls: one at a time.
#pragma once

#include <string>

namespace win32 {

// Claims the log with that file for this process, until it ends: a log that is closed and opened again, as after it was
// cleared, stays its own. True as well when the process has it already, and where no lock is to be had: no file can be
// made beside the log, or its file system knows no locks (which standard error then says). False, with last error
// ERROR_SHARING_VIOLATION: another process has the log, which is said once on standard error with its number; or as the
// host says, when the lock's file, NAME.lock beside the log, cannot be used.
bool ClaimLog(const std::string& logFile);

}  // namespace win32
