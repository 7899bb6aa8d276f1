// Other users of an open file: the lock by which the layer's programs take turns (flock), and whether another
// program writes the file (the kernel's leases).
#pragma once

namespace win32 {

// Takes the lock LOCK_SH or LOCK_EX, which ends with the descriptor. The wait is bounded: a process that was stopped
// while it holds the lock, or keeps it on purpose, must not stop all others. False: errno says why, EAGAIN after 10 s.
bool TakeFileLock(int descriptor, int kind);

enum class FILE_WRITER {
    NONE,    // and no process becomes one: see below
    HELD,    // a process has it open for writing, this process or another
    UNKNOWN  // the file belongs to another user, or its file system does not say
};

// Asks for a file that is open for reading. After NONE a process that opens it for writing waits until this descriptor
// is closed (the kernel lets no process wait for more than /proc/sys/fs/lease-break-time), so close it soon.
FILE_WRITER WriterOf(int descriptor);

// After NONE: false when a process waits to write the file by now.
bool NobodyWaitsToWrite(int descriptor);

}  // namespace win32
