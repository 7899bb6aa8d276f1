// What the tests of the registry share: a key of the machine root, its numbers, its notification, and the clock.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

// The system calls of wrapped-calls.txt. They fail with these, when not 0.
extern int fsyncFailure, renameFailure, leaseFailure;
// Called once, at the next fsync, or the next time that a write waits for another writer.
extern std::function<void()> whileSyncing, whileWaiting;
// The clock of GetTickCount64 goes on by so much; a thread that waits for it in poll notices.
void MoveClock(ULONGLONG milliseconds);

const char16_t* const Path = u"SOFTWARE\\Vantorel Systems\\Keldwick";
inline const std::string File = "registry.reg";
constexpr DWORD WaitMs = 10'000;  // for what must come; a failing test takes this long

inline std::string Settings(const std::string& values) {
    return "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick]\n" +
           values;
}
inline std::string Heartbeat(int value) { return Settings("\"Heartbeat\"=dword:" + std::to_string(value) + "\n"); }

// A key of the local machine, made unless it is there.
struct KEY {
    explicit KEY(const char16_t* path = Path, REGSAM access = KEY_ALL_ACCESS) {
        EXPECT_EQ(ERROR_SUCCESS,
                  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, access, nullptr, &key, nullptr));
    }
    ~KEY() { RegCloseKey(key); }
    operator HKEY() const { return key; }
    HKEY key = nullptr;
};

inline LSTATUS SetNumber(HKEY key, const char16_t* name, DWORD number) {
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
}

// The number, or minus the error.
inline int64_t Number(HKEY key, const char16_t* name) {
    DWORD number = 0, size = sizeof number, type = 0;
    const LSTATUS status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    return status == ERROR_SUCCESS ? number : -static_cast<int64_t>(status);
}

struct EVENT {
    HANDLE handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ~EVENT() { CloseHandle(handle); }
    DWORD Wait(DWORD ms) const { return WaitForSingleObject(handle, ms); }
};

inline LSTATUS Arm(HKEY key, const EVENT& event) {
    return RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, event.handle, TRUE);
}
