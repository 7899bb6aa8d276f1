// The one lock under which objects become signalled and signals are taken, so that a wait for all of several objects
// takes every signal or none.
#pragma once

#include <mutex>

namespace win32 {

// Never destroyed: objects are signalled while the process ends, too. Held for a few system calls at most.
std::mutex& DispatcherLock();

}  // namespace win32
