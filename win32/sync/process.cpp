// Who runs: the process and the calling thread.
#include <unistd.h>
#include <windows.h>

DWORD WINAPI GetCurrentProcessId() { return static_cast<DWORD>(getpid()); }

DWORD WINAPI GetCurrentThreadId() {
    static thread_local const DWORD id = static_cast<DWORD>(gettid());
    return id;
}

HANDLE WINAPI GetCurrentProcess() { return INVALID_HANDLE_VALUE; }
