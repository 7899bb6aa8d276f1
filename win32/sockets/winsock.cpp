// Starting and ending the use of Winsock, and its last error.
#include <winsock2.h>

#include <atomic>

#include "win32/sockets/socket_error.h"

namespace {

std::atomic<int> starts{0};  // only counted: nothing here needs starting

}  // namespace

int WINAPI WSAStartup(WORD version, LPWSADATA data) {
    constexpr BYTE highestMajor = 2;
    constexpr WORD highest = MAKEWORD(highestMajor, 2);
    constexpr int versionNotSupported = 10092;  // WSAVERNOTSUPPORTED
    const BYTE major = version & 0xFF;
    if (major == 0) return versionNotSupported;
    if (data == nullptr) return WSAEFAULT;
    *data = {};
    data->wVersion = major > highestMajor ? highest : version;
    data->wHighVersion = highest;
    ++starts;
    return 0;
}

int WINAPI WSACleanup() {
    int count = starts;
    do {
        if (count == 0) return win32::FailSocketCall(WSANOTINITIALISED);
    } while (!starts.compare_exchange_weak(count, count - 1));
    return 0;
}

int WINAPI WSAGetLastError() { return static_cast<int>(GetLastError()); }

void WINAPI WSASetLastError(int code) { SetLastError(static_cast<DWORD>(code)); }
