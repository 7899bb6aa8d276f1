// Linked into a copy of a program whose calls are to be counted and made to fail: each function named in calls.txt is
// wrapped by the linker, and memory comes from the operators below. What happens is told by two variables of the
// environment (tests/faults/run sets them):
//
//     FAULTS_SHARED   a file that is mapped: the counts, and the clock's offset, which the driver moves
//     FAULTS_PLAN     "CALL SITE N RESULT ERROR": the N-th call (from 0) of CALL from SITE gives RESULT, and sets errno
//                     to ERROR or, for a call of Windows ("w5"), the last error. Without a plan calls are only counted.
//
// A site is a call with the innermost return addresses in the program itself, so that the same call counts anew when
// something else led to it.
#include <poll.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <unwind.h>
#include <windows.h>

#include <fcntl.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

extern "C" {
extern const char __executable_start, etext;

// What a failing call returns; for the wrappers below.
uint64_t FaultsResult = 0;

// Whether this call is to fail now. Throws when that is how the call fails.
int FaultsFires(const char* call, const void* caller);

int __real_main(int count, char** arguments);
void* __real_malloc(size_t bytes);
int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_ppoll(pollfd* polled, nfds_t count, const timespec* limit, const sigset_t* mask);
int __real_timerfd_settime(int fd, int flags, const itimerspec* wanted, itimerspec* former);
}

namespace {

constexpr size_t Depth = 6;  // return addresses that make a site
constexpr size_t MostSites = 16384;
constexpr int64_t Second = 1'000'000'000;
constexpr int64_t Slice = 10'000'000;  // nanoseconds: how long a wait goes on without a look at the driver's clock

struct SITE_COUNT {
    char call[96];
    uint64_t site;
    uint64_t count;
    uint64_t frames[Depth];  // offsets in the program
};

// The mapped file; tests/faults/run knows this layout.
struct SHARED {
    std::atomic<int64_t> clockOffset;  // nanoseconds
    std::atomic<uint64_t> fired;
    uint64_t sites;
    uint64_t overflowed;
    SITE_COUNT counts[MostSites];
};

struct PLAN {
    char call[96] = "";  // empty: only count
    uint64_t site = 0;
    uint64_t skip = 0;
    uint64_t result = 0;
    char error[16] = "";
};

std::atomic<bool> Begun = false;   // before main there is nobody to tell
thread_local bool Inside = false;  // the harness's own calls do not count

struct FAULTS {
    SHARED* shared = nullptr;
    PLAN plan;
    std::mutex lock;

    FAULTS() {
        const bool before = std::exchange(Inside, true);
        Map();
        Inside = before;
    }

private:
    void Map() {
        const char* const path = std::getenv("FAULTS_SHARED");
        const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
        if (fd < 0) return;
        void* const mapped = mmap(nullptr, sizeof(SHARED), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        if (mapped == MAP_FAILED) return;
        const char* const text = std::getenv("FAULTS_PLAN");
        if (text != nullptr &&
            sscanf(text, "%95s %lx %lu %lx %15s", plan.call, &plan.site, &plan.skip, &plan.result, plan.error) != 5) {
            fprintf(stderr, "FAULTS_PLAN is not understood: %s\n", text);
            _exit(99);
        }
        shared = static_cast<SHARED*>(mapped);
    }
};

// Made by the first call, whenever that is.
FAULTS& Faults() {
    alignas(FAULTS) static char memory[sizeof(FAULTS)];
    static FAULTS& faults = *new (memory) FAULTS;
    return faults;
}

struct STACK {
    uintptr_t caller = 0;
    bool reached = false;
    size_t count = 0;
    std::array<uint64_t, Depth> frames{};
};

_Unwind_Reason_Code TakeFrame(_Unwind_Context* context, void* memory) {
    STACK& stack = *static_cast<STACK*>(memory);
    const uintptr_t at = _Unwind_GetIP(context);
    stack.reached = stack.reached || at == stack.caller;
    const auto begin = reinterpret_cast<uintptr_t>(&__executable_start), end = reinterpret_cast<uintptr_t>(&etext);
    if (!stack.reached || at < begin || at >= end) return _URC_NO_REASON;
    stack.frames[stack.count++] = at - begin;
    return stack.count < Depth ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// FNV-1a over call and frames.
uint64_t SiteOf(const char* call, const STACK& stack) {
    uint64_t hash = 0xcbf29ce484222325;
    const auto mix = [&hash](uint64_t value) { hash = (hash ^ value) * 0x100000001b3; };
    for (const char* c = call; *c != '\0'; ++c) mix(static_cast<unsigned char>(*c));
    for (const uint64_t frame : stack.frames) mix(frame);
    return hash;
}

void Count(FAULTS& faults, const char* call, uint64_t site, const STACK& stack) {
    const std::lock_guard guard(faults.lock);
    SHARED& shared = *faults.shared;
    for (size_t step = 0; step < MostSites; ++step) {
        SITE_COUNT& entry = shared.counts[(site + step) % MostSites];
        if (entry.count == 0) {
            strncpy(entry.call, call, sizeof entry.call - 1);
            entry.site = site;
            std::copy(stack.frames.begin(), stack.frames.end(), entry.frames);
            ++shared.sites;
        }
        if (entry.site == site) {
            ++entry.count;
            return;
        }
    }
    ++shared.overflowed;
}

bool IsPlanned(FAULTS& faults, uint64_t site) {
    if (site != faults.plan.site) return false;
    const std::lock_guard guard(faults.lock);
    if (faults.shared->fired != 0) return false;
    if (faults.plan.skip > 0) {
        --faults.plan.skip;
        return false;
    }
    faults.shared->fired = 1;
    return true;
}

// ---- The clock ----

int64_t Offset() {
    const SHARED* const shared = Faults().shared;
    return shared != nullptr ? shared->clockOffset.load() : 0;
}

int64_t Nanoseconds(const timespec& time) { return time.tv_sec * Second + time.tv_nsec; }
timespec SpanOf(int64_t nanoseconds) { return {nanoseconds / Second, nanoseconds % Second}; }

int64_t Now(clockid_t clock) {
    timespec now{};
    __real_clock_gettime(clock, &now);
    return Nanoseconds(now) + Offset();
}

// A timer whose time comes earlier when the clock is moved. Timers of the program that are not here are not moved.
struct ARMED {
    int fd = -1;
    int64_t due = 0;  // on the moved monotonic clock
    itimerspec repeat{};
};
std::mutex ArmedLock;
std::array<ARMED, 32> Armed;

void FireDueTimers() {
    const int64_t now = Now(CLOCK_MONOTONIC);
    const std::lock_guard guard(ArmedLock);
    for (ARMED& timer : Armed) {
        if (timer.fd < 0 || timer.due > now) continue;
        itimerspec atOnce{timer.repeat.it_interval, {0, 1}};
        __real_timerfd_settime(timer.fd, 0, &atOnce, nullptr);
        timer.fd = -1;
    }
}

}  // namespace

extern "C" {

int FaultsFires(const char* call, const void* caller) {
    if (Inside || !Begun) return 0;
    Inside = true;
    const int before = errno;
    FAULTS& faults = Faults();
    bool fires = false;
    if (faults.shared != nullptr && (faults.plan.call[0] == '\0' || strcmp(call, faults.plan.call) == 0)) {
        STACK stack;
        stack.caller = reinterpret_cast<uintptr_t>(caller);
        _Unwind_Backtrace(TakeFrame, &stack);
        const uint64_t site = SiteOf(call, stack);
        if (faults.plan.call[0] == '\0')
            Count(faults, call, site, stack);
        else
            fires = IsPlanned(faults, site);
    }
    errno = before;
    if (fires) {
        FaultsResult = faults.plan.result;
        const std::string_view error = faults.plan.error;
        if (error == "bad_alloc" || error == "thread") {
            Inside = false;
            if (error == "thread") throw std::system_error(EAGAIN, std::generic_category());
            throw std::bad_alloc();
        }
        if (error[0] == 'w')
            SetLastError(static_cast<DWORD>(atoi(faults.plan.error + 1)));
        else if (error != "-")
            errno = atoi(faults.plan.error);
    }
    Inside = false;
    return fires;
}

int __wrap_main(int count, char** arguments) {
    Begun = true;
    return __real_main(count, arguments);
}

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    const int result = __real_clock_gettime(clock, time);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME))
        *time = SpanOf(Nanoseconds(*time) + Offset());
    return result;
}

std::chrono::steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(Now(CLOCK_MONOTONIC)));
}

int __wrap_ppoll(pollfd* polled, nfds_t count, const timespec* limit, const sigset_t* mask) {
    if (FaultsFires("ppoll", __builtin_return_address(0))) return static_cast<int>(FaultsResult);
    const int64_t end = limit != nullptr ? Now(CLOCK_MONOTONIC) + Nanoseconds(*limit) : INT64_MAX;
    for (;;) {
        FireDueTimers();
        const int64_t left = std::max<int64_t>(end - Now(CLOCK_MONOTONIC), 0);
        const timespec slice = SpanOf(std::min(left, Slice));
        const int ready = __real_ppoll(polled, count, &slice, mask);
        if (ready != 0 || left <= Slice) return ready;
    }
}

int __wrap_poll(pollfd* polled, nfds_t count, int milliseconds) {
    if (FaultsFires("poll", __builtin_return_address(0))) return static_cast<int>(FaultsResult);
    const timespec limit = SpanOf(milliseconds * int64_t{1'000'000});
    const bool before = std::exchange(Inside, true);
    const int ready = __wrap_ppoll(polled, count, milliseconds < 0 ? nullptr : &limit, nullptr);
    Inside = before;
    return ready;
}

int __wrap_timerfd_settime(int fd, int flags, const itimerspec* wanted, itimerspec* former) {
    if (FaultsFires("timerfd_settime", __builtin_return_address(0))) return static_cast<int>(FaultsResult);
    itimerspec real = *wanted;
    ARMED timer{fd, Nanoseconds(wanted->it_value), *wanted};
    const bool armed = timer.due != 0;
    // An absolute time is one of the monotonic clock, or a wall-clock time (the file's rename at midnight), left alone.
    const bool wallClock = (flags & TFD_TIMER_ABSTIME) != 0 && timer.due > Now(CLOCK_MONOTONIC) + 1'000'000 * Second;
    if (armed && (flags & TFD_TIMER_ABSTIME) != 0 && !wallClock)
        real.it_value = SpanOf(std::max<int64_t>(timer.due - Offset(), 1));
    if ((flags & TFD_TIMER_ABSTIME) == 0) timer.due += Now(CLOCK_MONOTONIC);
    {
        const std::lock_guard guard(ArmedLock);
        for (ARMED& other : Armed)
            if (other.fd == fd) other.fd = -1;
        const auto room = std::find_if(Armed.begin(), Armed.end(), [](const ARMED& one) { return one.fd < 0; });
        if (armed && !wallClock && room != Armed.end()) *room = timer;
    }
    return __real_timerfd_settime(fd, flags, &real, former);
}

// A wrapper of any signature: asks, and either goes on to the real function with all its arguments or returns.
#define FAULTS_CALL(NAME)                                    \
    asm(".section .rodata\n"                                 \
        ".Lname_" #NAME ": .string \"" #NAME                 \
        "\"\n"                                               \
        ".text\n"                                            \
        ".globl __wrap_" #NAME                               \
        "\n"                                                 \
        ".type __wrap_" #NAME                                \
        ",@function\n"                                       \
        "__wrap_" #NAME                                      \
        ":\n"                                                \
        ".cfi_startproc\n"                                   \
        "push %rbp\n"                                        \
        ".cfi_def_cfa_offset 16\n"                           \
        ".cfi_offset 6,-16\n"                                \
        "mov %rsp,%rbp\n"                                    \
        ".cfi_def_cfa_register 6\n"                          \
        "sub $192,%rsp\n"                                    \
        "mov %rdi,-8(%rbp)\nmov %rsi,-16(%rbp)\n"            \
        "mov %rdx,-24(%rbp)\nmov %rcx,-32(%rbp)\n"           \
        "mov %r8,-40(%rbp)\nmov %r9,-48(%rbp)\n"             \
        "mov %rax,-56(%rbp)\n"                               \
        "movups %xmm0,-80(%rbp)\nmovups %xmm1,-96(%rbp)\n"   \
        "movups %xmm2,-112(%rbp)\nmovups %xmm3,-128(%rbp)\n" \
        "lea .Lname_" #NAME                                  \
        "(%rip),%rdi\n"                                      \
        "mov 8(%rbp),%rsi\n"                                 \
        "call FaultsFires\n"                                 \
        "test %eax,%eax\n"                                   \
        "mov -8(%rbp),%rdi\nmov -16(%rbp),%rsi\n"            \
        "mov -24(%rbp),%rdx\nmov -32(%rbp),%rcx\n"           \
        "mov -40(%rbp),%r8\nmov -48(%rbp),%r9\n"             \
        "mov -56(%rbp),%rax\n"                               \
        "movups -80(%rbp),%xmm0\nmovups -96(%rbp),%xmm1\n"   \
        "movups -112(%rbp),%xmm2\nmovups -128(%rbp),%xmm3\n" \
        "leave\n"                                            \
        ".cfi_def_cfa 7,8\n"                                 \
        "jnz 1f\n"                                           \
        "jmp __real_" #NAME                                  \
        "@PLT\n"                                             \
        "1: mov FaultsResult(%rip),%rax\n"                   \
        "ret\n"                                              \
        ".cfi_endproc\n"                                     \
        ".size __wrap_" #NAME ",.-__wrap_" #NAME "\n");
#include "wrapped_calls.inc"
}

// ---- Memory ----

void* operator new(size_t bytes) {
    if (FaultsFires("new", __builtin_return_address(0))) throw std::bad_alloc();
    if (void* const memory = __real_malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void* operator new[](size_t bytes) {
    if (FaultsFires("new", __builtin_return_address(0))) throw std::bad_alloc();
    if (void* const memory = __real_malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return FaultsFires("new(nothrow)", __builtin_return_address(0)) ? nullptr : __real_malloc(bytes);
}
void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
    return FaultsFires("new(nothrow)", __builtin_return_address(0)) ? nullptr : __real_malloc(bytes);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
