// Linked into a copy of a program whose calls are to be counted and made to fail: each function named in calls.txt is
// wrapped by the linker, and memory comes from the operators below. What happens is set by two variables of the
// environment (tests/faults/run sets them):
//
//     FAULTS_SHARED   a file that is mapped: the counts, and the clock's offset, which the driver moves
//     FAULTS_PLAN     "CALL SITE N RESULT ERROR": the N-th call (from 0) of CALL from SITE gives RESULT, and sets errno
//                     to ERROR or, for a call of Windows ("w5"), the last error. Without a plan calls are only counted.
//
// A site is a call with the innermost return addresses in the program itself, so that the same call counts again when
// something else led to it.
#include <elf.h>
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
    uint64_t frames[Depth];  // addresses as in the program's file
};

// The mapped file; tests/faults/run knows this layout.
struct SHARED {
    std::atomic<int64_t> clockOffset;  // nanoseconds
    std::atomic<uint64_t> fired;
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

SHARED* Shared = nullptr;  // from main on: before it no one reads it
PLAN Plan;
std::mutex CountLock;
thread_local bool Inside = false;  // the harness's own calls do not count

void ReadEnvironment() {
    const char *const path = std::getenv("FAULTS_SHARED"), *const text = std::getenv("FAULTS_PLAN");
    const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) return;
    void* const mapped = mmap(nullptr, sizeof(SHARED), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (text != nullptr &&
        sscanf(text, "%95s %lx %lu %lx %15s", Plan.call, &Plan.site, &Plan.skip, &Plan.result, Plan.error) != 5) {
        fprintf(stderr, "FAULTS_PLAN is not understood: %s\n", text);
        _exit(99);
    }
    if (mapped != MAP_FAILED) Shared = static_cast<SHARED*>(mapped);
}

struct STACK {
    uintptr_t caller = 0;
    bool reached = false;
    size_t count = 0;
    std::array<uint64_t, Depth> frames{};
};

// How far the program lies from the addresses in its file.
uintptr_t Displacement() {
    const auto* const header = reinterpret_cast<const Elf64_Ehdr*>(&__executable_start);
    return header->e_type == ET_DYN ? reinterpret_cast<uintptr_t>(header) : 0;
}

_Unwind_Reason_Code TakeFrame(_Unwind_Context* context, void* memory) {
    STACK& stack = *static_cast<STACK*>(memory);
    const uintptr_t at = _Unwind_GetIP(context);
    stack.reached = stack.reached || at == stack.caller;
    const auto begin = reinterpret_cast<uintptr_t>(&__executable_start), end = reinterpret_cast<uintptr_t>(&etext);
    if (!stack.reached || at < begin || at >= end) return _URC_NO_REASON;
    stack.frames[stack.count++] = at - Displacement();
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

void Count(const char* call, uint64_t site, const STACK& stack) {
    const std::lock_guard guard(CountLock);
    for (size_t step = 0; step < MostSites; ++step) {
        SITE_COUNT& entry = Shared->counts[(site + step) % MostSites];
        if (entry.count == 0) {
            strncpy(entry.call, call, sizeof entry.call - 1);
            entry.site = site;
            std::copy(stack.frames.begin(), stack.frames.end(), entry.frames);
        }
        if (entry.site == site) {
            ++entry.count;
            return;
        }
    }
    ++Shared->overflowed;
}

bool IsPlanned(uint64_t site) {
    if (site != Plan.site) return false;
    const std::lock_guard guard(CountLock);
    if (Shared->fired != 0 || Plan.skip-- > 0) return false;
    Shared->fired = 1;
    return true;
}

// ---- The clock ----

int64_t Offset() { return Shared != nullptr ? Shared->clockOffset.load() : 0; }

int64_t Nanoseconds(const timespec& time) { return time.tv_sec * Second + time.tv_nsec; }
timespec SpanOf(int64_t nanoseconds) { return {nanoseconds / Second, nanoseconds % Second}; }

int64_t Now(clockid_t clock) {
    timespec now{};
    __real_clock_gettime(clock, &now);
    return Nanoseconds(now) + Offset();
}

// A timer whose time comes earlier when the clock is moved, by its descriptor. Timers that are not here are not moved.
struct ARMED {
    int64_t due = 0;  // on the moved monotonic clock; 0: not armed
    timespec repeat{};
};
std::mutex ArmedLock;
std::array<ARMED, 1024> Armed;
size_t ArmedEnd = 0;  // no descriptor from here on was ever armed

void FireDueTimers() {
    const int64_t now = Now(CLOCK_MONOTONIC);
    const std::lock_guard guard(ArmedLock);
    for (size_t fd = 0; fd < ArmedEnd; ++fd) {
        if (Armed[fd].due == 0 || Armed[fd].due > now) continue;
        const itimerspec atOnce{Armed[fd].repeat, {0, 1}};
        __real_timerfd_settime(static_cast<int>(fd), 0, &atOnce, nullptr);
        Armed[fd].due = 0;
    }
}

}  // namespace

extern "C" {

int FaultsFires(const char* call, const void* caller) {
    if (Inside || Shared == nullptr || (Plan.call[0] != '\0' && strcmp(call, Plan.call) != 0)) return 0;
    Inside = true;
    const int before = errno;
    STACK stack;
    stack.caller = reinterpret_cast<uintptr_t>(caller);
    _Unwind_Backtrace(TakeFrame, &stack);
    const uint64_t site = SiteOf(call, stack);
    const bool fires = Plan.call[0] != '\0' && IsPlanned(site);
    if (Plan.call[0] == '\0') Count(call, site, stack);
    errno = before;
    Inside = false;
    if (!fires) return 0;
    FaultsResult = Plan.result;
    const std::string_view error = Plan.error;
    if (error == "thread") throw std::system_error(EAGAIN, std::generic_category());
    if (error == "bad_alloc") throw std::bad_alloc();
    if (error[0] == 'w')
        SetLastError(static_cast<DWORD>(atoi(Plan.error + 1)));
    else if (error != "-")
        errno = atoi(Plan.error);
    return 1;
}

int __wrap_main(int count, char** arguments) {
    ReadEnvironment();
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
    int64_t due = Nanoseconds(wanted->it_value);
    // An absolute time is one of the monotonic clock, or a wall-clock time (the file's rename at midnight), left alone.
    const bool absolute = (flags & TFD_TIMER_ABSTIME) != 0;
    if (absolute && due > Now(CLOCK_MONOTONIC) + 1'000'000 * Second)
        due = 0;
    else if (absolute && due != 0)
        real.it_value = SpanOf(std::max<int64_t>(due - Offset(), 1));
    else if (due != 0)
        due += Now(CLOCK_MONOTONIC);
    {
        const std::lock_guard guard(ArmedLock);
        const auto place = static_cast<size_t>(fd);
        if (place < Armed.size()) {
            Armed[place] = {due, wanted->it_interval};
            ArmedEnd = std::max(ArmedEnd, place + 1);
        }
    }
    return __real_timerfd_settime(fd, flags, &real, former);
}

// A wrapper of any signature without floating-point numbers: asks, and either goes on to the real function with all its
// arguments or returns.
asm(R"(
    .macro FAULTS_CALL name
    .pushsection .rodata
.Lname_\name: .string "\name"
    .popsection
    .globl __wrap_\name
    .type __wrap_\name, @function
__wrap_\name:
    .cfi_startproc
    push %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset 6, -16
    mov %rsp, %rbp
    .cfi_def_cfa_register 6
    .irp argument, rdi, rsi, rdx, rcx, r8, r9, rax, r10
    push %\argument
    .endr
    lea .Lname_\name(%rip), %rdi
    mov 8(%rbp), %rsi
    call FaultsFires
    test %eax, %eax
    .irp argument, r10, rax, r9, r8, rcx, rdx, rsi, rdi
    pop %\argument
    .endr
    leave
    .cfi_def_cfa 7, 8
    jnz 1f
    jmp __real_\name@PLT
1:  mov FaultsResult(%rip), %rax
    ret
    .cfi_endproc
    .size __wrap_\name, . - __wrap_\name
    .endm
)");
#define FAULTS_CALL(NAME) asm("FAULTS_CALL " #NAME);
#include "wrapped_calls.inc"
}

// ---- Memory ----

void* operator new(size_t bytes) {
    if (FaultsFires("new", __builtin_return_address(0))) throw std::bad_alloc();
    if (void* const memory = __real_malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return FaultsFires("new(nothrow)", __builtin_return_address(0)) ? nullptr : __real_malloc(bytes);
}
// The same for arrays: not by a call of theirs, which would be the place that made the call.
void* operator new[](size_t) __attribute__((alias("_Znwm")));
void* operator new[](size_t, const std::nothrow_t&) noexcept __attribute__((alias("_ZnwmRKSt9nothrow_t")));
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
