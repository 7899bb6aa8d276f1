// The clocks. All wall-clock times come from GetSystemTimeAsFileTime, so that replacing this call moves all of them.
// What is computed from its reading is in file_time.cpp.
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "win32/sync/file_time.h"

void WINAPI GetSystemTimeAsFileTime(LPFILETIME time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *time = win32::FromUnits(static_cast<uint64_t>(now.tv_sec * win32::UnitsPerSecond +
                                                   now.tv_nsec / win32::NanosecondsPerUnit + win32::UnixEpoch));
}

ULONGLONG WINAPI GetTickCount64() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<ULONGLONG>(now.tv_sec) * 1000 + static_cast<ULONGLONG>(now.tv_nsec) / 1'000'000;
}

void WINAPI Sleep(DWORD milliseconds) {
    if (milliseconds == 0) {
        sched_yield();
        return;
    }
    if (milliseconds == INFINITE)
        for (;;) pause();
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    const int64_t nanoseconds = until.tv_nsec + milliseconds % 1000 * int64_t{1'000'000};
    until = {until.tv_sec + milliseconds / 1000 + nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}
