// Which file a log's name means, and how large the log may grow.
#pragma once

#include <string>
#include <string_view>

namespace win32 {

// The host's path of a log's file: eventlog/NAME.evt in the machine root, its name compared without case, or the file
// that a path names. Empty, with last error: ERROR_INVALID_NAME for a name that cannot be a log's,
// ERROR_FILE_NOT_FOUND when there is no such log.
std::string LogFile(std::u16string_view name);

// The path that a new log of that name gets; the folder is made when it is missing. Empty: last error set.
std::string NewLogFile(std::u16string_view name);

// The log's MaxSize value, in bytes: HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\services\EventLog\NAME, by default
// 64 MiB.
unsigned LogMaxSize(std::u16string_view name);

}  // namespace win32
