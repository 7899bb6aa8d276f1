// Event objects over eventfd. The descriptor is readable exactly while the event is signalled.
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>

#include "win32/sync/descriptor.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

class EVENT final : public KERNEL_OBJECT {
public:
    EVENT(DESCRIPTOR descriptor, bool manualReset, bool initiallySet)
        : fd(std::move(descriptor)), manual(manualReset), signalled(initiallySet) {}
    ~EVENT() override {
        if (ended) ended();
    }

    int WaitDescriptor() const override { return fd.Get(); }
    COMPANION Companion() const override { return companion.load(std::memory_order_acquire); }
    void SetCompanion(COMPANION bound) { companion.store(bound, std::memory_order_release); }

    bool TakeSignal() override {
        if (!signalled) return false;
        if (!manual || oneShot) Unsignal();
        return true;
    }

    void OnEnd(std::function<void()> call) {
        const std::lock_guard guard(DispatcherLock());
        ended.swap(call);
    }

    void Set() {
        const std::lock_guard guard(DispatcherLock());
        oneShot = false;
        Signal();
    }

    void Pulse() {
        const std::lock_guard guard(DispatcherLock());
        if (signalled) return;  // set for good, or a pulse that no wait has taken yet
        oneShot = true;
        Signal();
    }

    void Reset() {
        const std::lock_guard guard(DispatcherLock());
        if (signalled) Unsignal();
    }

private:
    void Signal() {
        if (signalled) return;
        const uint64_t one = 1;
        signalled = write(fd.Get(), &one, sizeof(one)) == sizeof(one);  // fails only on a counter that is full
    }
    void Unsignal() {
        uint64_t count;
        if (read(fd.Get(), &count, sizeof(count)) == sizeof(count)) signalled = false;
    }

    const DESCRIPTOR fd;
    const bool manual;
    bool signalled;        // under the dispatcher lock; mirrors the descriptor, to save calls
    bool oneShot = false;  // under the dispatcher lock; the signal is a pulse, which the first wait takes with it
    std::atomic<COMPANION> companion{};
    std::function<void()> ended;
};

// False: the object is not an event.
template <typename ACTION>
bool WithEvent(KERNEL_OBJECT& object, ACTION act) {
    EVENT* const event = dynamic_cast<EVENT*>(&object);
    if (event != nullptr) act(*event);
    return event != nullptr;
}

}  // namespace

bool SignalEventObject(KERNEL_OBJECT& event) {
    return WithEvent(event, [](EVENT& object) { object.Set(); });
}

bool PulseEventObject(KERNEL_OBJECT& event) {
    return WithEvent(event, [](EVENT& object) { object.Pulse(); });
}

bool OnEventEnd(KERNEL_OBJECT& event, std::function<void()> call) {
    return WithEvent(event, [&](EVENT& object) { object.OnEnd(std::move(call)); });
}

bool SetEventCompanion(KERNEL_OBJECT& event, int fd, short events) {
    return WithEvent(event, [&](EVENT& object) { object.SetCompanion({fd, events}); });
}

}  // namespace win32

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initiallySet, LPCWSTR name) {
    if (name != nullptr && *name != 0) return win32::NullWith(ERROR_NOT_SUPPORTED);  // no caller shares one by name
    win32::DESCRIPTOR fd(eventfd(initiallySet ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd) {
        win32::FailWithErrno();
        return nullptr;
    }
    return win32::NewHandle(std::make_shared<win32::EVENT>(std::move(fd), manualReset != 0, initiallySet != 0));
}

BOOL WINAPI SetEvent(HANDLE event) {
    const auto object = win32::ObjectAs<win32::EVENT>(event);
    if (object) object->Set();
    return object != nullptr;
}

BOOL WINAPI ResetEvent(HANDLE event) {
    const auto object = win32::ObjectAs<win32::EVENT>(event);
    if (object) object->Reset();
    return object != nullptr;
}
