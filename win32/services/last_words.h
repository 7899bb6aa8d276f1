// The end of a process that cannot go on.
#pragma once

namespace win32 {

constexpr int UncaughtExceptionStatus = 70;  // a service's exit status then: for its manager a failure like any other

// From now on an exception that no thread catches, as a rule for want of memory, ends the process with this exit status
// and a line on the standard error, in place of a core dump. Nothing that needs memory is done then.
void EndOnUncaughtException(int exitStatus = UncaughtExceptionStatus);

}  // namespace win32
