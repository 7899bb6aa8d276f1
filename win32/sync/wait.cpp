// Waiting for objects: one poll over their descriptors and those of their companions, until the first of them is due.
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>

#include "win32/sync/file_time.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr int64_t NanosecondsPerSecond = 1'000'000'000;
constexpr int64_t NanosecondsPerMillisecond = 1'000'000;

// When a wait ends without a signal.
class DEADLINE {
public:
    explicit DEADLINE(DWORD milliseconds) {
        if (milliseconds != INFINITE)
            at = milliseconds == 0 ? 0 : MonotonicNanoseconds() + milliseconds * NanosecondsPerMillisecond;
    }

    bool IsOver() const { return at == 0 || (at != KERNEL_OBJECT::Never && MonotonicNanoseconds() >= at); }

    // For ppoll: until then or until `due`, if that is earlier; null waits without limit.
    const timespec* Remaining(int64_t due) {
        const int64_t end = std::min(at, due);
        if (end == KERNEL_OBJECT::Never) return nullptr;
        const int64_t left = end == 0 ? 0 : std::max<int64_t>(end - MonotonicNanoseconds(), 0);
        span = {left / NanosecondsPerSecond, left % NanosecondsPerSecond};
        return &span;
    }

private:
    int64_t at = KERNEL_OBJECT::Never;
    timespec span{};
};

// A wait for at most so many objects: most are for a few, and need not clear the places of many.
template <size_t LIMIT>
class WAIT {
public:
    WAIT() = default;
    ~WAIT() {
        if (begun == 0) return;
        const std::lock_guard guard(DispatcherLock());
        for (DWORD i = 0; i < begun; ++i)
            if (objects[i]) objects[i]->EndWait();
    }
    WAIT(const WAIT&) = delete;
    WAIT& operator=(const WAIT&) = delete;

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
        const std::lock_guard guard(DispatcherLock());
        for (; begun < count; ++begun)
            if (objects[begun]) objects[begun]->BeginWait();
        LookWhenDue();
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
            const int ready = ppoll(polled.data(), polls, deadline.Remaining(firstDue), nullptr);
            if (ready < 0 && errno != EINTR) return Failed();
            if (ready >= 0) {
                const std::lock_guard guard(DispatcherLock());
                for (nfds_t p = 0; p < polls; ++p)
                    if (Fired(p) && Take(p)) return WAIT_OBJECT_0 + owner[p];
                LookWhenDue();
            }
            if (ready == 0 && deadline.IsOver()) return WAIT_TIMEOUT;
        }
    }

    // Polls for whatever is still missing, then looks at all again: signals may have gone meanwhile.
    DWORD All(DWORD milliseconds) {
        DEADLINE deadline(milliseconds);
        for (;;) {
            if (TakeAll()) return WAIT_OBJECT_0;
            const int ready = ppoll(missing.data(), polls, deadline.Remaining(missingDue), nullptr);
            if (ready < 0 && errno != EINTR) return Failed();
            if (ready == 0 && deadline.IsOver()) return TakeAll() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
        }
    }

private:
    void Add(pollfd wanted, DWORD object) {
        owner[polls] = object;
        polled[polls++] = wanted;
    }

    void LookWhenDue() {
        firstDue = KERNEL_OBJECT::Never;
        for (DWORD i = 0; i < count; ++i) {
            due[i] = objects[i] ? objects[i]->DueTime() : KERNEL_OBJECT::Never;
            firstDue = std::min(firstDue, due[i]);
        }
    }

    bool IsDue(DWORD object) const {
        return due[object] != KERNEL_OBJECT::Never && MonotonicNanoseconds() >= due[object];
    }
    bool Fired(nfds_t p) const { return (polled[p].revents & ~POLLNVAL) != 0 || (!IsCompanion(p) && IsDue(owner[p])); }
    bool IsCompanion(nfds_t p) const { return p > 0 && owner[p - 1] == owner[p]; }

    // A companion signals its event without having been taken from it; what the event itself holds goes with it.
    bool Take(nfds_t p) { return objects[owner[p]]->TakeSignal() || IsCompanion(p); }

    // Takes every signal or none. Leaves in `missing` one unsignalled object's descriptors to wait for.
    bool TakeAll() {
        const std::lock_guard guard(DispatcherLock());
        if (poll(polled.data(), polls, 0) < 0) return false;
        LookWhenDue();
        missing = polled;
        missingDue = KERNEL_OBJECT::Never;
        bool complete = true;
        for (nfds_t p = 0; p < polls;) {
            const bool pair = p + 1 < polls && IsCompanion(p + 1);
            const bool signalled = Fired(p) || (pair && Fired(p + 1));
            if (signalled || !complete) missing[p].fd = missing[p + pair].fd = -1;
            if (!signalled && complete) missingDue = due[owner[p]];
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
    DWORD begun = 0;  // for so many objects
    nfds_t polls = 0;
    int64_t firstDue = KERNEL_OBJECT::Never;
    int64_t missingDue = KERNEL_OBJECT::Never;  // of the object in `missing`
    std::array<std::shared_ptr<KERNEL_OBJECT>, LIMIT> objects;
    std::array<pollfd, 2 * LIMIT> polled, missing;
    std::array<int64_t, LIMIT> due;
    std::array<DWORD, 2 * LIMIT> owner;  // the object of each polled descriptor
};

template <size_t LIMIT>
DWORD WaitFor(const HANDLE* handles, DWORD count, bool all, DWORD milliseconds) {
    WAIT<LIMIT> wait;
    if (!wait.Prepare(handles, count)) return WAIT_FAILED;
    if (!all) return wait.Any(milliseconds);
    if (wait.SameObjectTwice()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return wait.All(milliseconds);
}

}  // namespace
}  // namespace win32

DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    constexpr DWORD Few = 4;
    return count <= Few ? win32::WaitFor<Few>(handles, count, all != FALSE, milliseconds)
                        : win32::WaitFor<MAXIMUM_WAIT_OBJECTS>(handles, count, all != FALSE, milliseconds);
}

DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}
