// Who runs: the process and the calling thread.
#include <pthread.h>
#include <unistd.h>
#include <windows.h>

#include <atomic>

namespace {

// The C library asks the kernel each time, and the id stands in every log line. A fork makes another process.
std::atomic<DWORD> processId{0};

DWORD AskForProcessId() {
    static const int registered = pthread_atfork(nullptr, nullptr, [] { processId = 0; });
    const auto id = static_cast<DWORD>(getpid());
    if (registered == 0) processId = id;
    return id;
}

}  // namespace

DWORD WINAPI GetCurrentProcessId() {
    const DWORD id = processId;
    return id != 0 ? id : AskForProcessId();
}

DWORD WINAPI GetCurrentThreadId() {
    static thread_local const DWORD id = static_cast<DWORD>(gettid());
    return id;
}

HANDLE WINAPI GetCurrentProcess() { return INVALID_HANDLE_VALUE; }
