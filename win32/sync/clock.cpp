// The clocks. All wall-clock times come from GetSystemTimeAsFileTime, so that replacing this call moves all of them.
// What is computed from its reading is in file_time.cpp.
#include <time.h>

#include <cerrno>

#include "win32/sync/file_time.h"

int64_t win32::MonotonicNanoseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

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
    timespec left{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}
