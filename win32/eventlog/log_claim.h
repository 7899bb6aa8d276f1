// Which process reads a log of the machine root through the event-log calls: one at a time.
#pragma once

#include <memory>
#include <string>

#include "win32/sync/descriptor.h"

namespace win32 {

// Held as long as this process has a handle of the log open. The kernel ends it with the process.
class LOG_CLAIM {
public:
    // This process's claim of the log with that file; its handles share one. Null, with last error
    // ERROR_SHARING_VIOLATION: another process has the log, which is said once on standard error with its number; or as
    // the host says, when the lock's file, NAME.lock beside the log, cannot be used. Where no file can be made beside
    // the log the claim is given unchecked.
    static std::shared_ptr<LOG_CLAIM> Take(const std::string& logFile);

    explicit LOG_CLAIM(DESCRIPTOR held) : file(std::move(held)) {}

private:
    const DESCRIPTOR file;
};

}  // namespace win32
