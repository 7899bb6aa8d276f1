#include "tests/diagnostics/log_fixture.h"

#include <mutex>
#include <new>

WRAP_CALL(HANDLE, CreateFileW,
          (LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
           HANDLE templateFile),
          (path, access, share, security, (Dispositions().push_back(disposition), disposition), flags, templateFile))
WRAP_CALL(BOOL, WriteFile, (HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written, LPOVERLAPPED overlapped),
          (file, bytes, count, written, overlapped))
WRAP_CALL(BOOL, DeleteFileW, (LPCWSTR path), (path))
WRAP_CALL(void*, malloc, (size_t bytes), (bytes))
WRAP_CALL(void*, realloc, (void* block, size_t bytes), (block, bytes))
CALL_PLAN& CreateFileCalls = CreateFileW_calls;
CALL_PLAN& WriteFileCalls = WriteFile_calls;
CALL_PLAN& DeleteFileCalls = DeleteFileW_calls;
CALL_PLAN& MallocCalls = malloc_calls;
CALL_PLAN& ReallocCalls = realloc_calls;
CALL_PLAN NewCalls;

extern "C" void* __real__Znwm(size_t bytes);
extern "C" void* __wrap__Znwm(size_t bytes) {
    if (NewCalls.Fires()) throw std::bad_alloc();
    return __real__Znwm(bytes);
}

namespace {

std::mutex ClockLock;
SYSTEMTIME Clock{2026, 11, 1, 16, 14, 5, 9, 0};
bool ClockRuns = false;

}  // namespace

void SetClock(const SYSTEMTIME& time, bool runs) {
    const std::lock_guard guard(ClockLock);
    Clock = time;
    ClockRuns = runs;
}

std::vector<std::string>& Debugger() {
    static auto& texts = *new std::vector<std::string>;
    return texts;
}

std::vector<DWORD>& Dispositions() {
    static auto& dispositions = *new std::vector<DWORD>;
    return dispositions;
}

extern "C" void __wrap_GetLocalTime(LPSYSTEMTIME time) {
    const std::lock_guard guard(ClockLock);
    *time = Clock;
    if (ClockRuns) ++Clock.wSecond;
}

extern "C" void __real_OutputDebugStringW(LPCWSTR text);
extern "C" void __wrap_OutputDebugStringW(LPCWSTR text) {
    Debugger().push_back(Narrow(text));
    __real_OutputDebugStringW(text);
}
