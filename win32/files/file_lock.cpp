#include "win32/files/file_lock.h"

#include <sys/file.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>

namespace win32 {

namespace {

constexpr ULONGLONG Patience = 10'000;                         // milliseconds
constexpr useconds_t ShortestPause = 50, LongestPause = 1000;  // microseconds, between two attempts

}  // namespace

bool TakeFileLock(int descriptor, int kind) {
    const ULONGLONG begin = GetTickCount64();
    for (useconds_t pause = ShortestPause; flock(descriptor, kind | LOCK_NB) != 0;) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN || GetTickCount64() - begin >= Patience) return false;
        usleep(pause);
        pause = std::min(2 * pause, LongestPause);
    }
    return true;
}

}  // namespace win32
