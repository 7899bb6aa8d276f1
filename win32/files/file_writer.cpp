#include "win32/files/file_writer.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/vfs.h>

#include <cerrno>

namespace win32 {

namespace {

// These give a lease only with the server's leave, and refuse it as if there were a writer.
bool AsksItsServer(int descriptor) {
    struct statfs about;
    if (fstatfs(descriptor, &about) != 0) return true;
    const auto kind = static_cast<unsigned>(about.f_type);
    return kind == NFS_SUPER_MAGIC || kind == CIFS_SUPER_MAGIC || kind == SMB2_SUPER_MAGIC;
}

}  // namespace

FILE_WRITER WriterOf(int descriptor) {
    // Who waits to write is told by a signal; SIGIO, unless another is set, would end the process.
    if (fcntl(descriptor, F_SETSIG, SIGURG) != 0) return FILE_WRITER::UNKNOWN;
    if (fcntl(descriptor, F_SETLEASE, F_RDLCK) == 0) return FILE_WRITER::NONE;
    return errno == EAGAIN && !AsksItsServer(descriptor) ? FILE_WRITER::HELD : FILE_WRITER::UNKNOWN;
}

bool NobodyWaitsToWrite(int descriptor) { return fcntl(descriptor, F_GETLEASE) == F_RDLCK; }

}  // namespace win32
