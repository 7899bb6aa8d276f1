// Loaded ahead of a program, moves its wall clock by the seconds that the file named by KELDWICK_TEST_CLOCK holds, a
// 64-bit number that may change at any time. Relative times, and the machine's own clock, stay as they are.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

const volatile int64_t* offset = nullptr;

__attribute__((constructor)) void FindOffset() {
    const char* const name = std::getenv("KELDWICK_TEST_CLOCK");
    const int file = name != nullptr ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* const page = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) offset = static_cast<const int64_t*>(page);
}

int64_t Offset() { return offset != nullptr ? *offset : 0; }

}  // namespace

// Straight to the kernel: sanitizers ask for the time before anything could be looked up.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) now->tv_sec += Offset();
    return result;
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    timespec time;
    const int result = clock_gettime(CLOCK_REALTIME, &time);
    if (result == 0) *now = {time.tv_sec, time.tv_nsec / 1000};
    return result;
}

extern "C" time_t time(time_t* out) noexcept {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

// The kernel gets an absolute time by its own clock; one long ago stays one.
extern "C" int timerfd_settime(int fd, int flags, const itimerspec* wanted, itimerspec* old) noexcept {
    itimerspec due = *wanted;
    if ((flags & TFD_TIMER_ABSTIME) != 0 && due.it_value.tv_sec > Offset()) due.it_value.tv_sec -= Offset();
    return static_cast<int>(syscall(SYS_timerfd_settime, fd, flags, &due, old));
}
