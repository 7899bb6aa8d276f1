// Waitable timers. A relative due time costs no system call: the wait for the timer ends by its own time limit. An
// absolute one, which follows changes of the wall clock, and one that is set while a thread waits, is a timerfd's.
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>

#include "win32/sync/descriptor.h"
#include "win32/sync/file_time.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

timespec SpanOf(int64_t units) { return {units / UnitsPerSecond, units % UnitsPerSecond * NanosecondsPerUnit}; }

// At most a century, which is as good as never.
int64_t Nanoseconds(const timespec& span) {
    constexpr int64_t MaxSeconds = int64_t{100} * 366 * 24 * 60 * 60;
    return std::min<int64_t>(span.tv_sec, MaxSeconds) * 1'000'000'000 + span.tv_nsec;
}

class TIMER final : public KERNEL_OBJECT {
public:
    TIMER(DESCRIPTOR descriptor, bool manualReset) : fd(std::move(descriptor)), manual(manualReset) {}

    int WaitDescriptor() const override { return fd.Get(); }
    int64_t DueTime() const override { return due; }
    void BeginWait() override { ++waits; }
    void EndWait() override { --waits; }

    bool TakeSignal() override {
        if (due != Never) return TakeOwnSignal();
        if (manual) {
            pollfd state{fd.Get(), POLLIN, 0};
            return poll(&state, 1, 0) > 0;
        }
        uint64_t expirations;
        return read(fd.Get(), &expirations, sizeof(expirations)) == sizeof(expirations);
    }

    // Also takes back a signal that no wait has taken.
    bool Arm(const itimerspec& schedule, bool absolute) {
        const std::lock_guard guard(DispatcherLock());
        if (absolute || waits > 0) {
            due = Never;
            usesDescriptor = true;
            // One descriptor serves both kinds: on the real-time clock an absolute time follows changes of the wall
            // clock, and a relative one does not.
            return timerfd_settime(fd.Get(), absolute ? TFD_TIMER_ABSTIME : 0, &schedule, nullptr) == 0;
        }
        constexpr itimerspec none{};
        if (usesDescriptor && timerfd_settime(fd.Get(), 0, &none, nullptr) != 0) return false;
        usesDescriptor = false;
        due = MonotonicNanoseconds() + Nanoseconds(schedule.it_value);
        period = Nanoseconds(schedule.it_interval);
        return true;
    }

private:
    bool TakeOwnSignal() {
        const int64_t now = MonotonicNanoseconds();
        if (now < due) return false;
        if (!manual) due = period > 0 ? due + ((now - due) / period + 1) * period : Never;
        return true;
    }

    const DESCRIPTOR fd;
    const bool manual;
    // Under the dispatcher lock:
    int64_t due = Never;  // of a timer that does without the descriptor
    int64_t period = 0;
    bool usesDescriptor = false;
    int waits = 0;  // that are under way
};

}  // namespace
}  // namespace win32

HANDLE WINAPI CreateWaitableTimerW(LPSECURITY_ATTRIBUTES, BOOL manualReset, LPCWSTR name) {
    if (name != nullptr && *name != 0) return win32::NullWith(ERROR_NOT_SUPPORTED);  // no caller shares one by name
    win32::DESCRIPTOR fd(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!fd) {
        win32::FailWithErrno();
        return nullptr;
    }
    return win32::NewHandle(std::make_shared<win32::TIMER>(std::move(fd), manualReset != 0));
}

BOOL WINAPI SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG periodMs, PTIMERAPCROUTINE routine, LPVOID,
                             BOOL) {
    if (due == nullptr || periodMs < 0) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (routine != nullptr) return win32::FailWith(ERROR_NOT_SUPPORTED);
    const auto object = win32::ObjectAs<win32::TIMER>(timer);
    if (!object) return FALSE;

    const bool absolute = due->QuadPart >= 0;
    itimerspec schedule{{periodMs / 1000, periodMs % 1000 * 1'000'000L}, {}};
    if (absolute) {
        schedule.it_value = win32::SpanOf(due->QuadPart - std::min<int64_t>(due->QuadPart, win32::UnixEpoch));
    } else {
        const int64_t units = due->QuadPart;
        schedule.it_value = win32::SpanOf(units == std::numeric_limits<int64_t>::min() ? -(units + 1) : -units);
    }
    // All zeros would disarm the timer; a time that has passed signals at once.
    if (schedule.it_value.tv_sec == 0 && schedule.it_value.tv_nsec == 0) schedule.it_value.tv_nsec = 1;
    return object->Arm(schedule, absolute) || win32::FailWithErrno();
}
