// Waiting for objects: one poll over their descriptors and those of their companions.
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>

#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr int64_t NanosecondsPerSecond = 1'000'000'000;
constexpr int64_t NanosecondsPerMillisecond = 1'000'000;

int64_t MonotonicNanoseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NanosecondsPerSecond + now.tv_nsec;
}

// When a wait ends without a signal.
class DEADLINE {
public:
    explicit DEADLINE(DWORD milliseconds) : kind(milliseconds) {
        if (IsClock()) at = MonotonicNanoseconds() + milliseconds * NanosecondsPerMillisecond;
    }

    // For ppoll: null waits without limit.
    const timespec* Remaining() {
        if (kind == INFINITE) return nullptr;
        const int64_t left = IsClock() ? std::max<int64_t>(at - MonotonicNanoseconds(), 0) : 0;
        span = {left / NanosecondsPerSecond, left % NanosecondsPerSecond};
        return &span;
    }

private:
    bool IsClock() const { return kind != 0 && kind != INFINITE; }
    const DWORD kind;
    int64_t at = 0;
    timespec span{};
};

class WAIT {
public:
    // False: a handle that is none or that cannot be waited for (last error set).
    bool Prepare(const HANDLE* handles, DWORD number) {
        count = number;
        if (!ObjectsOf(handles, count, objects.data())) return false;
        for (DWORD i = 0; i < count; ++i) {
            if (objects[i] == nullptr) {
                Add({-1, 0, 0}, i);  // the process itself; poll skips it
                continue;
            }
            const int fd = objects[i]->WaitDescriptor();
            if (fd < 0) return FailWith(ERROR_INVALID_HANDLE);
            Add({fd, POLLIN, 0}, i);
            const KERNEL_OBJECT::COMPANION companion = objects[i]->Companion();
            if (companion.fd >= 0) Add({companion.fd, companion.events, 0}, i);
        }
        return true;
    }

    bool SameObjectTwice() const {
        for (DWORD i = 0; i < count; ++i)
            if (std::find(objects.begin(), objects.begin() + i, objects[i]) != objects.begin() + i) return true;
        return false;
    }

    DWORD Any(DWORD milliseconds) {
        DEADLINE deadline(milliseconds);
        for (;;) {
            const int ready = ppoll(polled.data(), polls, deadline.Remaining(), nullptr);
            if (ready == 0) return WAIT_TIMEOUT;
            if (ready < 0 && errno != EINTR) return Failed();
            if (ready > 0) {
                const std::lock_guard guard(DispatcherLock());
                for (nfds_t p = 0; p < polls; ++p)
                    if (Fired(p) && Take(p)) return WAIT_OBJECT_0 + owner[p];
            }
        }
    }

    // Polls for whatever is still missing, then looks at all again: signals may have gone meanwhile.
    DWORD All(DWORD milliseconds) {
        DEADLINE deadline(milliseconds);
        for (;;) {
            if (TakeAll()) return WAIT_OBJECT_0;
            const int ready = ppoll(missing.data(), polls, deadline.Remaining(), nullptr);
            if (ready == 0) return WAIT_TIMEOUT;
            if (ready < 0 && errno != EINTR) return Failed();
        }
    }

private:
    static constexpr size_t Limit = MAXIMUM_WAIT_OBJECTS;

    void Add(pollfd wanted, DWORD object) {
        owner[polls] = object;
        polled[polls++] = wanted;
    }

    bool Fired(nfds_t p) const { return (polled[p].revents & ~POLLNVAL) != 0; }
    bool IsCompanion(nfds_t p) const { return p > 0 && owner[p - 1] == owner[p]; }

    // A companion signals its event without having been taken from it; what the event itself holds goes with it.
    bool Take(nfds_t p) { return objects[owner[p]]->TakeSignal() || IsCompanion(p); }

    // Takes every signal or none. Leaves in `missing` one unsignalled object's descriptors to wait for.
    bool TakeAll() {
        const std::lock_guard guard(DispatcherLock());
        if (poll(polled.data(), polls, 0) < 0) return false;
        missing = polled;
        bool complete = true;
        for (nfds_t p = 0; p < polls;) {
            const bool pair = p + 1 < polls && IsCompanion(p + 1);
            const bool signalled = Fired(p) || (pair && Fired(p + 1));
            if (signalled || !complete) missing[p].fd = missing[p + pair].fd = -1;
            complete = complete && signalled;
            p += pair ? 2 : 1;
        }
        if (!complete) return false;
        for (DWORD i = 0; i < count; ++i) objects[i]->TakeSignal();
        return true;
    }

    static DWORD Failed() {
        FailWithErrno();
        return WAIT_FAILED;
    }

    DWORD count = 0;
    nfds_t polls = 0;
    std::array<std::shared_ptr<KERNEL_OBJECT>, Limit> objects;
    std::array<pollfd, 2 * Limit> polled, missing;
    std::array<DWORD, 2 * Limit> owner;  // the object of each polled descriptor
};

}  // namespace
}  // namespace win32

DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    win32::WAIT wait;
    if (!wait.Prepare(handles, count)) return WAIT_FAILED;
    if (!all) return wait.Any(milliseconds);
    if (wait.SameObjectTwice()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return wait.All(milliseconds);
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}
