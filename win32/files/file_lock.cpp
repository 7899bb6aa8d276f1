#include "win32/files/file_lock.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "win32/sync/file_time.h"

namespace win32 {

namespace {

constexpr std::chrono::seconds MaxLockWait{10};
constexpr useconds_t MinPauseUs = 50, MaxPauseUs = 1000;  // between two attempts

// These give a lease only with the server's leave, and refuse it as if there were a writer.
bool AsksItsServer(int descriptor) {
    struct statfs about;
    if (fstatfs(descriptor, &about) != 0) return true;
    const auto kind = static_cast<unsigned>(about.f_type);
    return kind == NFS_SUPER_MAGIC || kind == CIFS_SUPER_MAGIC || kind == SMB2_SUPER_MAGIC;
}

}  // namespace

bool TakeFileLock(int descriptor, int kind) {
    const auto begin = Uptime();
    for (useconds_t pause = MinPauseUs; flock(descriptor, kind | LOCK_NB) != 0;) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN || Uptime() - begin >= MaxLockWait) return false;
        usleep(pause);
        pause = std::min(2 * pause, MaxPauseUs);
    }
    return true;
}

FILE_WRITER WriterOf(int descriptor) {
    // A signal reports a process that waits to write; SIGIO, unless another is set, would end this process.
    if (fcntl(descriptor, F_SETSIG, SIGURG) != 0) return FILE_WRITER::UNKNOWN;
    if (fcntl(descriptor, F_SETLEASE, F_RDLCK) == 0) return FILE_WRITER::NONE;
    return errno == EAGAIN && !AsksItsServer(descriptor) ? FILE_WRITER::HELD : FILE_WRITER::UNKNOWN;
}

bool NobodyWaitsToWrite(int descriptor) { return fcntl(descriptor, F_GETLEASE) == F_RDLCK; }

}  // namespace win32
