// What a HANDLE stands for: one table of reference-counted objects for the whole process.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace win32 {

// The object of a handle. Objects that can be waited for give a descriptor that polls readable while signalled.
class KERNEL_OBJECT {
public:
    KERNEL_OBJECT() = default;
    virtual ~KERNEL_OBJECT() = default;
    KERNEL_OBJECT(const KERNEL_OBJECT&) = delete;
    KERNEL_OBJECT& operator=(const KERNEL_OBJECT&) = delete;

    // The descriptor to poll for POLLIN, or -1: the object cannot be waited for.
    virtual int WaitDescriptor() const { return -1; }

    // A second condition that also signals the object: a socket bound to an event. fd -1: none. events: poll's bits.
    struct alignas(8) COMPANION {  // aligned so that it can be exchanged in one go
        int fd = -1;
        short events = 0;
    };
    virtual COMPANION Companion() const { return {}; }

    // When the object becomes signalled although its descriptor does not say so: nanoseconds of CLOCK_MONOTONIC. It
    // stays as it is while a wait is under way, unless the signal is taken or the descriptor says from then on.
    static constexpr int64_t Never = std::numeric_limits<int64_t>::max();
    virtual int64_t DueTime() const { return Never; }

    // Of a wait for the object, which gets the time above. All three are called under the dispatcher lock.
    virtual void BeginWait() {}
    virtual void EndWait() {}

    // Takes the signal if the object is signalled right now (an auto-reset object becomes unsignalled by it).
    // False: another wait was faster. Called by waits only, which hold the dispatcher lock.
    virtual bool TakeSignal() { return false; }
};

// The one lock under which objects become signalled and signals are taken, so that a wait for all of several objects
// takes every signal or none. Never destroyed: objects are signalled while the process ends, too. Held for a few system
// calls at most.
std::mutex& DispatcherLock();

// Enters the object into the table; never null. Closed by CloseHandle.
HANDLE NewHandle(std::shared_ptr<KERNEL_OBJECT> object);

// The object of a handle, or null (last error ERROR_INVALID_HANDLE). The caller shares its ownership, so that
// another thread may close the handle meanwhile.
std::shared_ptr<KERNEL_OBJECT> ObjectOf(HANDLE handle);

// The objects of `count` handles, all or none of them; false with ERROR_INVALID_HANDLE when one is no handle. The
// pseudo handle of the process gives a null pointer: it is an object that never becomes signalled.
bool ObjectsOf(const HANDLE* handles, DWORD count, std::shared_ptr<KERNEL_OBJECT>* objects);

// Removes the handle from the table; the object dies with its last user. False: no such handle (last error set).
bool RemoveHandle(HANDLE handle);

// The object of a handle as a T, or null with ERROR_INVALID_HANDLE when it is of another kind.
template <typename T>
std::shared_ptr<T> ObjectAs(HANDLE handle) {
    static_assert(std::is_final_v<T>);
    std::shared_ptr<KERNEL_OBJECT> object = ObjectOf(handle);
    const KERNEL_OBJECT* const found = object.get();
    if (found != nullptr && typeid(*found) == typeid(T)) return std::static_pointer_cast<T>(std::move(object));
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

// Signals an event object as SetEvent does; false when the object is not an event. For notifications of the layer,
// which keep the event alive although its handle may be closed.
bool SignalEventObject(KERNEL_OBJECT& event);

// Signals an event object for one wait: the wait that is going on or else the next one takes the signal with it, also
// when the event is a manual-reset one. An event that is set already stays as it is. False: not an event.
bool PulseEventObject(KERNEL_OBJECT& event);

// Has `call` called when the event is gone: its handle is closed and no thread uses it any more. It may run on any
// thread. False: not an event. The last call given counts.
bool OnEventEnd(KERNEL_OBJECT& event, std::function<void()> call);

// Binds a descriptor to an event as its companion (fd -1: none); false when the object is not an event. Waits that
// begin afterwards look at it; the descriptor must stay open until it is unbound.
bool SetEventCompanion(KERNEL_OBJECT& event, int fd, short events);

}  // namespace win32
