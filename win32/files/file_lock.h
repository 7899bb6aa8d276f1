// The kernel's lock of an open file (flock), by which the layer's programs take turns.
#pragma once

namespace win32 {

// Takes the lock LOCK_SH or LOCK_EX, which ends with the descriptor. Bounded: a process that was stopped with the lock
// in its hands, or keeps it on purpose, must not stop all others. False: errno says why, EAGAIN after 10 s in vain.
bool TakeFileLock(int descriptor, int kind);

}  // namespace win32
