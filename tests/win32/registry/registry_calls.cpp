// The wrapped calls of the registry's tests.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <utility>

#include "tests/win32/registry/registry_test.h"

int fsyncFailure = 0, renameFailure = 0, leaseFailure = 0;
std::function<void()> whileSyncing, whileWaiting;

namespace {

std::atomic<ULONGLONG> moved{0};
constexpr ULONGLONG NapMs = 100;          // by which a nap moves the clock
constexpr useconds_t LookPauseUs = 5000;  // a nap between two looks at a file that is held
constexpr int LookMs = 10;                // how often the moved clock is noticed

void CallOnce(std::function<void()>& call) {
    if (const std::function<void()> now = std::exchange(call, nullptr)) now();
}

int Fail(int failure) {
    errno = failure;
    return -1;
}

}  // namespace

void MoveClock(ULONGLONG milliseconds) { moved += milliseconds; }

extern "C" {
int __real_fsync(int file);
int __wrap_fsync(int file) {
    CallOnce(whileSyncing);
    return fsyncFailure == 0 ? __real_fsync(file) : Fail(fsyncFailure);
}

int __real_renameat(int fromFolder, const char* from, int toFolder, const char* to);
int __wrap_renameat(int fromFolder, const char* from, int toFolder, const char* to) {
    return renameFailure == 0 ? __real_renameat(fromFolder, from, toFolder, to) : Fail(renameFailure);
}

int __real_usleep(useconds_t time);
int __wrap_usleep(useconds_t time) {
    CallOnce(whileWaiting);
    if (time >= LookPauseUs) MoveClock(NapMs);  // who waits for a lock takes shorter naps, of real time
    return __real_usleep(time);
}

int __real_fcntl(int file, int command, ...);
int __wrap_fcntl(int file, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return command == F_SETLEASE && leaseFailure != 0 ? Fail(leaseFailure) : __real_fcntl(file, command, argument);
}

int __real_poll(pollfd* polled, nfds_t count, int milliseconds);
int __wrap_poll(pollfd* polled, nfds_t count, int milliseconds) {
    return __real_poll(polled, count, milliseconds < 0 ? LookMs : std::min(milliseconds, LookMs));
}

ULONGLONG __real_GetTickCount64();
ULONGLONG __wrap_GetTickCount64() { return __real_GetTickCount64() + moved; }
}
