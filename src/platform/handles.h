// Owners: OWNER holds one handle and closes it on every way out. A closer names the kind:
//
//     struct EVENT_LOG_CLOSER {
//         using TYPE = HANDLE;
//         static void Close(TYPE log) { CloseEventLog(log); }
//         static TYPE Empty() { return INVALID_HANDLE_VALUE; }   // only when that is not null
//     };
//     using EVENT_LOG_OWNER = OWNER<EVENT_LOG_CLOSER>;
//
// Closing keeps the thread's last error. A Close that gives a DWORD or LONG gives an error code, which, when it is not
// 0, becomes the last error instead.
//
// The owners of the kinds of handles that the agent uses follow.
#pragma once

#include <windows.h>

#include <cstdlib>
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

// Events, threads, timers, tokens: null is empty.
struct HANDLE_CLOSER {
    using TYPE = HANDLE;
    static void Close(TYPE handle) { CloseHandle(handle); }
};
using HANDLE_OWNER = OWNER<HANDLE_CLOSER>;

// Files: the invalid handle is empty.
struct FILE_CLOSER {
    using TYPE = HANDLE;
    static void Close(TYPE file) { CloseHandle(file); }
    static TYPE Empty() { return INVALID_HANDLE_VALUE; }
};
using FILE_OWNER = OWNER<FILE_CLOSER>;

// A registry key. The predefined root keys are only forgotten; a failing close becomes the thread's last error.
struct REG_KEY_CLOSER {
    using TYPE = HKEY;
    static LSTATUS Close(TYPE key) { return IsRootKey(key) ? ERROR_SUCCESS : RegCloseKey(key); }
    // Root keys are 32-bit numbers from 0x80000000 on, sign-extended or not; other handles are never such numbers.
    static bool IsRootKey(TYPE key) {
        const auto value = reinterpret_cast<ULONG_PTR>(key);
        const auto upper = static_cast<DWORD>(static_cast<ULONGLONG>(value) >> 32);
        return static_cast<DWORD>(value) >= 0x80000000u && (upper == 0 || upper == MAXDWORD);
    }
};
using REG_KEY = OWNER<REG_KEY_CLOSER>;

struct EVENT_LOG_CLOSER {
    using TYPE = HANDLE;
    static void Close(TYPE log) { CloseEventLog(log); }
};
using EVENT_LOG_OWNER = OWNER<EVENT_LOG_CLOSER>;

struct EVENT_SOURCE_CLOSER {
    using TYPE = HANDLE;
    static void Close(TYPE source) { DeregisterEventSource(source); }
};
using EVENT_SOURCE_OWNER = OWNER<EVENT_SOURCE_CLOSER>;

struct MODULE_CLOSER {
    using TYPE = HMODULE;
    static void Close(TYPE module) { FreeLibrary(module); }
};
using MODULE_OWNER = OWNER<MODULE_CLOSER>;

// What the system allocated with LocalAlloc: texts of FormatMessageW and ConvertSidToStringSidW.
template <typename POINTED>
struct LOCAL_CLOSER {
    using TYPE = POINTED*;
    static void Close(TYPE memory) { LocalFree(memory); }
};
using LOCAL_TEXT_OWNER = OWNER<LOCAL_CLOSER<WCHAR>>;

// SIDs made by AllocateSid.
struct SID_CLOSER {
    using TYPE = PSID;
    static void Close(TYPE sid) { FreeSid(sid); }
};
using SID_OWNER = OWNER<SID_CLOSER>;

// A block of the C heap.
template <typename POINTED>
struct HEAP_CLOSER {
    using TYPE = POINTED*;
    static void Close(TYPE memory) { std::free(memory); }
};

// A lock and its holder. The same thread may take the lock again while it holds it.
class CRITICAL_SECTION_OWNER {
public:
    explicit CRITICAL_SECTION_OWNER(DWORD spins = 0) { InitializeCriticalSectionAndSpinCount(&section, spins); }
    ~CRITICAL_SECTION_OWNER() { DeleteCriticalSection(&section); }
    CRITICAL_SECTION_OWNER(const CRITICAL_SECTION_OWNER&) = delete;
    CRITICAL_SECTION_OWNER& operator=(const CRITICAL_SECTION_OWNER&) = delete;

    void Enter() { EnterCriticalSection(&section); }
    void Leave() { LeaveCriticalSection(&section); }

private:
    CRITICAL_SECTION section;
};

class LOCK_GUARD {
public:
    explicit LOCK_GUARD(CRITICAL_SECTION_OWNER& held) : lock(held) { lock.Enter(); }
    ~LOCK_GUARD() { lock.Leave(); }
    LOCK_GUARD(const LOCK_GUARD&) = delete;
    LOCK_GUARD& operator=(const LOCK_GUARD&) = delete;

private:
    CRITICAL_SECTION_OWNER& lock;
};

}  // namespace keldwick
