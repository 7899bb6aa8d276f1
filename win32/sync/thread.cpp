// Threads, critical sections, thread-local slots, and who runs. A thread object is signalled by the thread's end or by
// its being abandoned, whichever comes first.
#include <process.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "win32/sync/descriptor.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

class THREAD final : public KERNEL_OBJECT {
public:
    explicit THREAD(DESCRIPTOR descriptor) : fd(std::move(descriptor)) {}

    int WaitDescriptor() const override { return fd.Get(); }
    bool TakeSignal() override { return ended; }

    // By the thread's end or by its being abandoned: the first counts. Exit codes are not kept, no caller asks for
    // them.
    void End() {
        const std::lock_guard guard(DispatcherLock());
        const uint64_t one = 1;
        if (!ended) ended = write(fd.Get(), &one, sizeof(one)) == sizeof(one);
    }

    void Started(DWORD number) {
        id.store(number);
        id.notify_all();
    }
    DWORD Id() const {
        id.wait(0);
        return id.load();
    }

private:
    const DESCRIPTOR fd;
    bool ended = false;  // under the dispatcher lock
    std::atomic<DWORD> id{0};
};

// A thread has ended when nothing of it is left: libraries clean up after it in destructors of their own, which must
// have run before a thread that waited for it ends the process. So its end is the destructor of a thread-local
// key that comes back in the rounds of destructors, except the last one, which the sanitizers keep for themselves.
class THREAD_END {
public:
    explicit THREAD_END(std::shared_ptr<THREAD> object) : thread(std::move(object)) {}

    // Ends the calling thread's object once the thread is gone; at once, when there is no key to be had.
    static void Await(std::unique_ptr<THREAD_END> end) {
        static const KEY key;
        constexpr int rounds = PTHREAD_DESTRUCTOR_ITERATIONS - 1;
        if (end->round++ < rounds && pthread_setspecific(key.number, end.get()) == 0) {
            static_cast<void>(end.release());
            return;
        }
        const std::shared_ptr<THREAD> thread = end->thread;
        end.reset();
        thread->End();
    }

private:
    struct KEY {
        pthread_key_t number = PTHREAD_KEYS_MAX;  // which is none, and so refused
        KEY() {
            pthread_key_create(&number,
                               [](void* end) { Await(std::unique_ptr<THREAD_END>(static_cast<THREAD_END*>(end))); });
        }
    };

    const std::shared_ptr<THREAD> thread;
    int round = 0;
};

// What a new thread is handed.
struct START {
    std::shared_ptr<THREAD> thread;
    unsigned(WINAPI* routine)(void*);
    void* argument;
};

void* Run(void* memory) {
    const std::unique_ptr<START> start(static_cast<START*>(memory));
    start->thread->Started(GetCurrentThreadId());
    start->routine(start->argument);
    THREAD_END::Await(std::make_unique<THREAD_END>(start->thread));
    return nullptr;
}

// The agent ends without a line when a thread that it needs does not start: here it is said why.
uintptr_t NotStarted(int reason, DWORD code) {
    OutputDebugStringW(
        ToUtf16("Keldwick: a thread cannot be started: " + std::string(strerror(reason)) + "\n").c_str());
    SetLastError(code);
    errno = EAGAIN;
    return 0;
}

}  // namespace
}  // namespace win32

// The new thread's handle, or 0 with errno and the last error. Flags (suspended start) and sizes of a stack are not
// supported.
uintptr_t _beginthreadex(void*, unsigned stack, unsigned(WINAPI* routine)(void*), void* argument, unsigned flags,
                         unsigned* threadId) {
    if (routine == nullptr || stack != 0 || flags != 0) {
        SetLastError(ERROR_NOT_SUPPORTED);
        errno = EINVAL;
        return 0;
    }
    win32::DESCRIPTOR fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd) return win32::NotStarted(errno, win32::ErrorFromErrno(errno));
    const auto thread = std::make_shared<win32::THREAD>(std::move(fd));
    auto start = std::make_unique<win32::START>(win32::START{thread, routine, argument});
    pthread_t started;
    if (const int error = pthread_create(&started, nullptr, win32::Run, start.get()); error != 0)
        return win32::NotStarted(error, ERROR_NOT_ENOUGH_MEMORY);
    static_cast<void>(start.release());  // the thread owns it now
    pthread_detach(started);
    if (threadId) *threadId = thread->Id();
    return reinterpret_cast<uintptr_t>(win32::NewHandle(thread));
}

BOOL WINAPI TerminateThread(HANDLE thread, DWORD) {
    const auto object = win32::ObjectAs<win32::THREAD>(thread);
    if (object) object->End();
    return object != nullptr;
}

// ---- Thread-local slots: the system's own keys, which are empty in every thread when handed out ------------------

DWORD WINAPI TlsAlloc() {
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) == 0) return key;
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
}

LPVOID WINAPI TlsGetValue(DWORD index) {
    SetLastError(index < PTHREAD_KEYS_MAX ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER);  // a null value is no failure
    return pthread_getspecific(index);
}

BOOL WINAPI TlsSetValue(DWORD index, LPVOID value) {
    return pthread_setspecific(index, value) == 0 || win32::FailWith(ERROR_INVALID_PARAMETER);
}

// ---- Critical sections: a recursive mutex in the section's own storage ----------------------------------------------

static_assert(sizeof(pthread_mutex_t) <= sizeof(CRITICAL_SECTION::Storage));
static_assert(alignof(pthread_mutex_t) <= alignof(CRITICAL_SECTION));

static pthread_mutex_t* MutexOf(LPCRITICAL_SECTION section) {
    return std::launder(reinterpret_cast<pthread_mutex_t*>(section->Storage));
}

BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (section->Storage) pthread_mutex_t, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return TRUE;
}

void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_lock(MutexOf(section)); }

void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_unlock(MutexOf(section)); }

void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section) { pthread_mutex_destroy(MutexOf(section)); }

// ---- The process and the calling thread
// ------------------------------------------------------------------------------

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
