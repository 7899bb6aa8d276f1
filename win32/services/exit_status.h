// How a process that ran a service is to end.
#pragma once

namespace win32 {

// The exit status for the manager after the dispatcher has returned: the service-specific exit code that the service
// stopped with, else its exit code; 0 when it stopped well or no service ran. An exit status keeps eight bits: a
// failure whose code has none of them set is 1.
int ServiceExitStatus();

}  // namespace win32
