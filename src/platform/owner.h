// OWNER: holds one handle and closes it on every way out. A closer names the kind:
//
//     struct EVENT_LOG_CLOSER {
//         using TYPE = HANDLE;
//         static void Close(TYPE log) { CloseEventLog(log); }
//         static TYPE Empty() { return INVALID_HANDLE_VALUE; }   // only when that is not null
//     };
//     using EVENT_LOG_HANDLE = OWNER<EVENT_LOG_CLOSER>;
//
// Closing keeps the thread's last error. A Close that gives a DWORD or LONG gives an error code, which, when it is not
// 0, becomes the last error instead.
#pragma once

#include <windows.h>

#include <type_traits>
#include <utility>

namespace keldwick {

template <typename CLOSER>
class OWNER {
public:
    using TYPE = typename CLOSER::TYPE;

    OWNER() = default;
    explicit OWNER(TYPE owned) : handle(owned) {}
    OWNER(OWNER&& other) noexcept : handle(other.Release()) {}
    OWNER& operator=(OWNER&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    OWNER(const OWNER&) = delete;
    OWNER& operator=(const OWNER&) = delete;
    ~OWNER() { Reset(); }

    TYPE Get() const { return handle; }
    explicit operator bool() const { return handle != Empty(); }
    TYPE operator->() const requires std::is_pointer_v<TYPE> { return handle; }

    // The place for a call's out parameter. What was held is closed first.
    TYPE* Put() {
        Reset();
        return &handle;
    }
    void Reset(TYPE owned = Empty()) {
        const TYPE old = std::exchange(handle, owned);
        if (old != Empty() && old != owned) Close(old);
    }
    [[nodiscard]] TYPE Release() { return std::exchange(handle, Empty()); }

    static TYPE Empty() {
        if constexpr (requires { CLOSER::Empty(); })
            return CLOSER::Empty();
        else
            return TYPE{};
    }

private:
    static void Close(TYPE old) {
        const DWORD lastError = GetLastError();
        if constexpr (std::is_void_v<decltype(CLOSER::Close(old))>) {
            CLOSER::Close(old);
            SetLastError(lastError);
        } else {
            const DWORD error = static_cast<DWORD>(CLOSER::Close(old));
            SetLastError(error != 0 ? error : lastError);
        }
    }

    TYPE handle = Empty();
};

}  // namespace keldwick
