// The kinds of handles that the system owns.
#pragma once

#include <windows.h>

#include <cstdlib>

#include "platform/owner.h"

namespace keldwick {

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
using FILE_HANDLE = OWNER<FILE_CLOSER>;

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
using EVENT_LOG_HANDLE = OWNER<EVENT_LOG_CLOSER>;

struct EVENT_SOURCE_CLOSER {
    using TYPE = HANDLE;
    static void Close(TYPE source) { DeregisterEventSource(source); }
};
using EVENT_SOURCE_HANDLE = OWNER<EVENT_SOURCE_CLOSER>;

struct MODULE_CLOSER {
    using TYPE = HMODULE;
    static void Close(TYPE module) { FreeLibrary(module); }
};
using MODULE_HANDLE = OWNER<MODULE_CLOSER>;

// What the system allocated with LocalAlloc: texts of FormatMessageW and ConvertSidToStringSidW.
template <typename POINTED>
struct LOCAL_CLOSER {
    using TYPE = POINTED*;
    static void Close(TYPE memory) { LocalFree(memory); }
};
using LOCAL_TEXT = OWNER<LOCAL_CLOSER<WCHAR>>;
using LOCAL_MEMORY = OWNER<LOCAL_CLOSER<void>>;

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

}  // namespace keldwick
