// Threads. A thread object is signalled by the thread's end or by its being abandoned, whichever comes first.
#include <process.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "win32/sync/descriptor.h"
#include "win32/sync/dispatcher.h"
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

    // The first end counts: a thread that was abandoned keeps the exit code it was given then.
    void End(DWORD code) {
        const std::lock_guard guard(DispatcherLock());
        if (ended) return;
        const uint64_t one = 1;
        ended = write(fd.Get(), &one, sizeof(one)) == sizeof(one);
        exitCode = code;
    }

    DWORD ExitCode() const {
        const std::lock_guard guard(DispatcherLock());
        return exitCode;
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
    bool ended = false;             // under the dispatcher lock
    DWORD exitCode = STILL_ACTIVE;  // under the dispatcher lock
    std::atomic<DWORD> id{0};
};

// A thread has ended when nothing of it is left: libraries clean up after it in destructors of their own, which must
// have run before somebody who waited for the thread ends the process. So its end is the destructor of a thread-local
// key that comes back in the rounds of destructors, but for the last one, which the sanitizers keep for themselves.
class THREAD_END {
public:
    THREAD_END(std::shared_ptr<THREAD> object, DWORD exitCode) : thread(std::move(object)), code(exitCode) {}

    // Ends the calling thread's object once the thread is gone; at once, when there is no key to be had.
    static void Await(std::unique_ptr<THREAD_END> end) {
        static const KEY key;
        constexpr int rounds = PTHREAD_DESTRUCTOR_ITERATIONS - 1;
        if (end->round++ < rounds && pthread_setspecific(key.number, end.get()) == 0) {
            static_cast<void>(end.release());
            return;
        }
        const std::shared_ptr<THREAD> thread = end->thread;
        const DWORD code = end->code;
        end.reset();
        thread->End(code);
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
    const DWORD code;
    int round = 0;
};

// What a new thread is handed.
template <typename ROUTINE>
struct START {
    std::shared_ptr<THREAD> thread;
    ROUTINE routine;
    void* argument;
};

template <typename ROUTINE>
void* Run(void* memory) {
    const std::unique_ptr<START<ROUTINE>> start(static_cast<START<ROUTINE>*>(memory));
    start->thread->Started(GetCurrentThreadId());
    const DWORD code = start->routine(start->argument);
    THREAD_END::Await(std::make_unique<THREAD_END>(start->thread, code));
    return nullptr;
}

class THREAD_ATTRIBUTES {
public:
    explicit THREAD_ATTRIBUTES(size_t stack) {
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        size_t usual = 0;
        pthread_attr_getstacksize(&attributes, &usual);
        if (stack > usual) pthread_attr_setstacksize(&attributes, stack);  // a smaller wish is only a first commitment
    }
    ~THREAD_ATTRIBUTES() { pthread_attr_destroy(&attributes); }
    THREAD_ATTRIBUTES(const THREAD_ATTRIBUTES&) = delete;
    THREAD_ATTRIBUTES& operator=(const THREAD_ATTRIBUTES&) = delete;

    const pthread_attr_t* Get() const { return &attributes; }

private:
    pthread_attr_t attributes;
};

// The agent ends without a word when a thread that it needs does not start: here it is said what there was none of.
HANDLE NotStarted(int reason, DWORD code) {
    OutputDebugStringW(
        ToUtf16("Keldwick: a thread cannot be started: " + std::string(strerror(reason)) + "\n").c_str());
    SetLastError(code);
    return nullptr;
}

// The new thread's handle, or null (last error set). Flags (suspended start) are not supported.
template <typename ROUTINE, typename ID>
HANDLE Start(size_t stack, ROUTINE routine, void* argument, DWORD flags, ID* threadId) {
    DESCRIPTOR fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd) return NotStarted(errno, ErrorFromErrno(errno));
    if (routine == nullptr || flags != 0) {
        SetLastError(flags != 0 ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const auto thread = std::make_shared<THREAD>(std::move(fd));
    auto start = std::make_unique<START<ROUTINE>>(START<ROUTINE>{thread, routine, argument});
    const THREAD_ATTRIBUTES attributes(stack);
    pthread_t ignored;
    if (const int error = pthread_create(&ignored, attributes.Get(), Run<ROUTINE>, start.get()); error != 0)
        return NotStarted(error, ERROR_NOT_ENOUGH_MEMORY);
    static_cast<void>(start.release());  // the thread owns it now
    if (threadId) *threadId = thread->Id();
    return NewHandle(thread);
}

}  // namespace
}  // namespace win32

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T stack, LPTHREAD_START_ROUTINE routine, LPVOID argument,
                           DWORD flags, LPDWORD threadId) {
    return win32::Start(stack, routine, argument, flags, threadId);
}

uintptr_t _beginthreadex(void*, unsigned stack, unsigned(WINAPI* routine)(void*), void* argument, unsigned flags,
                         unsigned* threadId) {
    HANDLE thread = win32::Start(stack, routine, argument, flags, threadId);
    if (thread == nullptr) errno = routine == nullptr || flags != 0 ? EINVAL : EAGAIN;
    return reinterpret_cast<uintptr_t>(thread);
}

BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode) {
    const auto object = win32::ObjectAs<win32::THREAD>(thread);
    if (object) object->End(exitCode);
    return object != nullptr;
}

BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode) {
    const auto object = win32::ObjectAs<win32::THREAD>(thread);
    if (object) *exitCode = object->ExitCode();
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
    SetLastError(index < PTHREAD_KEYS_MAX ? ERROR_SUCCESS
                                          : ERROR_INVALID_PARAMETER);  // tells a null value from failure
    return pthread_getspecific(index);
}

BOOL WINAPI TlsSetValue(DWORD index, LPVOID value) {
    return pthread_setspecific(index, value) == 0 || win32::FailWith(ERROR_INVALID_PARAMETER);
}

BOOL WINAPI TlsFree(DWORD index) { return pthread_key_delete(index) == 0 || win32::FailWith(ERROR_INVALID_PARAMETER); }
