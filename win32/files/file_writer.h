// Whether a process holds a file open to write it, as the kernel's leases tell.
#pragma once

namespace win32 {

enum class FILE_WRITER {
    NONE,    // and no process becomes one: see below
    HELD,    // a process has it open for writing, this process or another
    UNKNOWN  // the file belongs to another user, or its file system does not tell
};

// Asks for a file that is open for reading. After NONE whoever opens it for writing waits until this descriptor is
// closed (the kernel lets nobody wait for more than /proc/sys/fs/lease-break-time), so close it soon.
FILE_WRITER WriterOf(int descriptor);

// After NONE: false when a process waits to write the file by now.
bool NobodyWaitsToWrite(int descriptor);

}  // namespace win32
